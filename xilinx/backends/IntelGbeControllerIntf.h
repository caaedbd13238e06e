// JTAG through the four software-definable pins (SDP0..SDP3) of an Intel
// gigabit Ethernet controller, in BAR 0 of its PCI function. The SDP data
// and direction bits live in CTRL and CTRL_EXT; the backend keeps a copy of
// both registers, so a pin change is one register write and no read. One of
// the controller's LEDs serves as the board's warning indication.
#pragma once
#include "ham/Ham.h"
#include "xilinx/hal/VectorShift.h"
#include "xilinx/XilIntfFactory.h"

class IntelGbeControllerIntf : public XilIntf {
  public:
    IntelGbeControllerIntf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device, U8 function,
                           const char* lockName);

    void tdiIs(bool value) override;
    void tmsIs(bool value) override;
    void tckIs(bool value) override;
    bool tdo() override;
    void select(const char* deviceName) override;
    void cleanup(const char* deviceName) override;
    void warningIs(bool on) override;
    void shift(U32 nbits, const U8* tms, const U8* tdi, U8* tdoBits) override;
    void pinsIs(bool tck, bool tms, bool tdi) override;

    struct SdpPin {
        U8 reg;  // index into reg
        U8 dataBit;
        U8 dirBit;  // 1 = output
    };

  private:
    struct TracedRegisters;  // the accessors below, for the vector path
    // After a vector operation: the cached copies take the image.
    void cachedFromImage();

    // One register access each, traced at level 2.
    U32 read32(U32 offset);
    void write32(U32 offset, U32 value);
    U16 read16(U32 offset);
    // Sets or clears one bit of an SDP's register in the cached copy and
    // writes the whole register; returns the register's index.
    U8 sdpBitIs(int pin, U8 SdpPin::*bit, bool level);
    // A pin change of op ("tdiIs", ...): skipped while the pin is unassigned.
    void pinIs(const char* op, int pin, bool level);

    Ptr<HamImpl> ham;
    struct Reg {
        U32 offset;
        U32 cached;  // the contents as last read or written
    } reg[2];        // CTRL, CTRL_EXT
    // SDP numbers of the JTAG lines; -1 until select assigns them.
    int tdiPin = -1;
    int tmsPin = -1;
    int tckPin = -1;
    int tdoPin = -1;
    int warningLed = -1;  // index into the LED table; -1: none
    Hal::VectorPins vec_;  // CTRL (TCK, TDI) and CTRL_EXT (TMS, TDO) for the vector path
};

class IntelGbeControllerFactory : public XilIntfFactory {
  public:
    bool manages(const char* deviceName) override;
    void servedNames(std::vector<XilServedName>* out) override;
    XilIntf* newXilIntf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device, U8 function) override;
};
