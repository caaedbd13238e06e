// JTAG through the GPIOs of a PLX PEX 87xx PCIe switch, reached in the
// switch's BAR 0 (the sysfs resource0 file of its PCI function). GPIOs 0 to
// 10 share one input-data and one output-data register; GPIOs 0 to 9 share
// a direction register, GPIO 10 has one of its own. On some boards the GPIO
// registers sit in another 4 KB block, named by the register at 0x354.
//
// tckIs reads the output-data register on one call in eight only and
// otherwise writes the value last written; every other write reads first
// and keeps that value current.
#pragma once
#include <cassert>

#include "ham/Ham.h"
#include "xilinx/hal/VectorShift.h"
#include "xilinx/XilIntfFactory.h"

class PlxPex8700Intf : public XilIntf {
  public:
    PlxPex8700Intf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device, U8 function, const char* lockName);

    void tdiIs(bool value) override;
    void tmsIs(bool value) override;
    void tckIs(bool value) override;
    bool tdo() override;
    void select(const char* deviceName) override;
    void cleanup(const char* deviceName) override;
    void warningIs(bool) override {}
    void shift(U32 nbits, const U8* tms, const U8* tdi, U8* tdoBits) override;
    void pinsIs(bool tck, bool tms, bool tdi) override;

    // GPIO numbers; 255 (no pin) never reaches the helpers below.
    static constexpr U8 MIN_PIN = 0;
    static constexpr U8 MAX_PIN = 10;

    // Drives pin to level; with fromCache the other bits come from the
    // value last written instead of the register. Inline: it is the whole
    // of a TCK edge.
    void setPin(U8 pin, bool level, bool fromCache);
    // dir: 4 output, 0 input.
    void setDir(U8 pin, U32 dir);
    bool getPin(U8 pin);

  private:
    // The pin tables hold nothing else; a wrong entry stops here.
    static void checkPin([[maybe_unused]] U8 pin) { assert(pin >= MIN_PIN and pin <= MAX_PIN); }

    U32 dirOffset;
    U32 dir10Offset;
    U32 inputOffset;
    U32 outputOffset;
    Ptr<Ham> ham;
    Ptr<HamImpl> impl;
    U8 heldLowPin;
    U8 heldHighPin;
    U8 tckPin;
    U8 tmsPin;
    U8 tdiPin;
    U8 tdoPin;
    U32 tckCount;
    U32 cachedOut;
    Hal::VectorPins vec_;  // the output-data register for the vector path
};

inline void PlxPex8700Intf::setPin(U8 pin, bool level, bool fromCache) {
    checkPin(pin);
    vec_.valid = false;
    U32 value = cachedOut;
    if (!fromCache) impl->read32(outputOffset, &value);
    U32 bit = U32(1) << pin;
    value = level ? value | bit : value & ~bit;
    cachedOut = value;
    impl->write32(outputOffset, value);
}

class PlxPex8700Factory : public XilIntfFactory {
  public:
    bool manages(const char* deviceName) override;
    void servedNames(std::vector<XilServedName>* out) override;
    XilIntf* newXilIntf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device, U8 function) override;
};
