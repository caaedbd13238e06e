// JTAG through GPIO pads of an Intel Cedar Fork PCH, reached through a
// /dev/mem mapping of the PCH's register space at 0xFD000000. Each pad is
// one DW0 configuration register (PAD_CFG_DW0); every change is a fresh
// read-modify-write of it, nothing is cached. Besides the four JTAG pads a
// device may have an aux pad made an output, and pads held at fixed levels
// while it is selected (on one board, the select line of a JTAG mux).
#pragma once
#include "ham/Ham.h"
#include "xilinx/hal/VectorShift.h"
#include "xilinx/XilIntfFactory.h"

class CedarForkPCHIntf : public XilIntf {
  public:
    void tdiIs(bool value) override;
    void tmsIs(bool value) override;
    void tckIs(bool value) override;
    bool tdo() override;
    void select(const char* deviceName) override;
    void cleanup(const char* deviceName) override;
    void warningIs(bool) override {}  // no warning indication
    void shift(U32 nbits, const U8* tms, const U8* tdi, U8* tdoBits) override;
    void pinsIs(bool tck, bool tms, bool tdi) override;

    static constexpr U32 noPad = 0xFFFFFFFF;

  private:
    friend class CedarForkPCHFactory;  // makes the window once the lock is held
    explicit CedarForkPCHIntf(const char* lockName) : XilIntf(lockName) {}

    // Reads pad's DW0, replaces bits from..to by value, writes it back;
    // does nothing for an empty slot.
    void padBitsIs(U32 pad, U16 from, U16 to, U32 value);

    U32 physBase = 0xFD000000;
    Ptr<Ham> ham;
    Ptr<HamImpl> impl;  // taken by select
    // Offsets of the pads' DW0 in the window; empty until select fills
    // them, so nothing before select touches the hardware.
    U32 tckPad = noPad;
    U32 tdiPad = noPad;
    U32 tmsPad = noPad;
    U32 tdoPad = noPad;
    U32 auxPad = noPad;
    U32 fixedPads[3] = {noPad, noPad, noPad};
    U8 fixedLevels[3] = {};
    Hal::VectorPins vec_;  // the DW0 registers of the TCK, TMS and TDI pads
};

// Serves its three device names on the platforms sosepi, disal and kubez.
// Says which name it is checking on stdout, for every name that reaches it.
class CedarForkPCHFactory : public XilIntfFactory {
  public:
    bool manages(const char* deviceName) override;
    void servedNames(std::vector<XilServedName>* out) override;
    XilIntf* newXilIntf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device, U8 function) override;
};
