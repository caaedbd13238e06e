// JTAG through the first four GPIOs of a Pericom Gen3 PCIe switch, reached
// in BAR 0 of the switch's PCI function (its sysfs resource0 file). The
// switch has several GPIO register blocks; the device name chooses the
// block. Every pin change is a read-modify-write of the hardware.
#pragma once
#include "ham/Ham.h"
#include "xilinx/hal/VectorShift.h"
#include "xilinx/XilIntfFactory.h"

class PericomGen3Intf : public XilIntf {
  public:
    PericomGen3Intf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device, U8 function,
                    const char* lockName);

    void tdiIs(bool value) override;
    void tmsIs(bool value) override;
    void tckIs(bool value) override;
    bool tdo() override;
    void select(const char* deviceName) override;
    void cleanup(const char* deviceName) override;
    void warningIs(bool) override {}  // no warning indication on these boards
    void shift(U32 nbits, const U8* tms, const U8* tdi, U8* tdoBits) override;
    void pinsIs(bool tck, bool tms, bool tdi) override;

  private:
    // The register of pin's bank, of the kind whose per-bank offsets are given.
    U32 bankReg(const U16 (&offsets)[2], U32 pin) const;
    // Reads the register, sets or clears one bit, writes it back. Does
    // nothing before select has taken the window's handle.
    void bitIs(U32 offset, U32 bit, bool level);
    void outputIs(U32 pin, bool output);  // direction
    void levelIs(U32 pin, bool level);    // output data

    Ptr<Ham> ham;
    Ptr<HamImpl> impl;  // taken by select
    U32 blockBase = 0;
    U32 tckPin = 0;
    U32 tdiPin = 0;
    U32 tmsPin = 0;
    U32 tdoPin = 0;
    Hal::VectorPins vec_;  // output-data register(s) of TCK, TMS and TDI
};

class PericomGen3Factory : public XilIntfFactory {
  public:
    bool manages(const char* deviceName) override;
    void servedNames(std::vector<XilServedName>* out) override;
    XilIntf* newXilIntf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device, U8 function) override;
};
