// JTAG through the GPIOs of a PLX PEX 86xx PCIe switch, reached in the
// switch's BAR 0 (the sysfs resource0 file of its PCI function). The GPIOs
// come in two groups of sixteen, each with its own direction, input-data
// and output-data register.
//
// TCK toggles on every JTAG clock, so tckIs reads the output-data register
// only on one call in eight and otherwise writes the value it last wrote.
// tdiIs and tmsIs always read, modify and write, and keep that value
// current, so a TCK edge never undoes a TDI or TMS level.
#pragma once
#include "ham/Ham.h"
#include "xilinx/hal/VectorShift.h"
#include "xilinx/XilIntfFactory.h"

class PlxPex8600Intf : public XilIntf {
  public:
    PlxPex8600Intf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device, U8 function, const char* lockName);

    void tdiIs(bool value) override;
    void tmsIs(bool value) override;
    void tckIs(bool value) override;
    bool tdo() override;
    void select(const char* deviceName) override;
    void cleanup(const char* deviceName) override;
    void warningIs(bool) override {}
    void shift(U32 nbits, const U8* tms, const U8* tdi, U8* tdoBits) override;
    void pinsIs(bool tck, bool tms, bool tdi) override;

    void setOutput(U8 pin);
    void setInput(U8 pin);

  private:
    static constexpr unsigned groups = 2;

    // Drives pin to level in its group's output-data register: from the
    // value last written when fromCache (and one was written), else from
    // the register as read.
    void drive(U8 pin, bool level, bool fromCache);
    void directionIs(U8 pin, U32 dir);
    // After a vector operation: the output-data cache takes the image.
    void cacheFromImage();

    Ptr<Ham> ham;
    Ptr<HamImpl> impl;
    U8 tckPin;
    U8 tdiPin;
    U8 tmsPin;
    U8 tdoPin;
    U8 heldLowPin;
    U32 cachedAddr[groups];  // output-data offset of the group once written; 0: nothing cached
    U32 cachedValue[groups];
    U32 tdoCount;
    U32 tdiCount;
    U32 tmsCount;
    U32 tckCount;
    Hal::VectorPins vec_;  // the output-data register(s) of TCK, TMS and TDI
};

class PlxPex8600Factory : public XilIntfFactory {
  public:
    bool manages(const char* deviceName) override;
    void servedNames(std::vector<XilServedName>* out) override;
    XilIntf* newXilIntf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device, U8 function) override;
};
