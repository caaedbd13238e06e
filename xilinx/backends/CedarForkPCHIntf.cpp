#include "xilinx/backends/CedarForkPCHIntf.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <cstring>

#include "os/Os.h"
#include "xilinx/hal/Hal.h"

namespace {

// What the register window is onto, for a provider that stands in for it (HamDesc::tag).
constexpr char kWindowTag[] = "cedar-fork-gpio";

// The PCH register space mapped from /dev/mem: 0xFD000000..0xFDC5FFFF.
constexpr U32 kWindowBytes = 0xC60000;

// PAD_CFG_DW0 bits.
constexpr U16 kTxStateBit = 0;  // GPIOTXSTATE: output level
constexpr U16 kRxStateBit = 1;  // GPIORXSTATE: input level
constexpr U16 kTxDisBit = 8;    // GPIOTXDIS: 1 = output buffer off
constexpr U16 kRxDisBit = 9;    // GPIORXDIS: 1 = input buffer off
// Bits 9..8 (RXDIS, TXDIS).
constexpr U32 kOutputBuffers = 0x2;  // input off, output on
constexpr U32 kInputBuffers = 0x1;   // input on, output off

constexpr U32 kNoPad = CedarForkPCHIntf::noPad;

struct Device {
    const char* name;
    U32 tck, tdi, tms, tdo, aux;
    U32 fixed;  // held at fixedLevel while selected
    U8 fixedLevel;
};
constexpr Device kDevices[] = {
    // Both names reach one device; the level of the mux select pad 0xC20B90 picks the path.
    {"disalSwitchJtagMuxSel0False", 0xC50910, 0xC20AF0, 0xC50920, 0xC50930, 0xC50940, 0xC20B90, 0},
    {"disalSwitchJtagMuxSel0True", 0xC50910, 0xC20AF0, 0xC50920, 0xC50930, 0xC50940, 0xC20B90, 1},
    {"kubezShimScd", 0xC20B40, 0xC20B20, 0xC20B50, 0xC20B60, 0xC20B80, 0xC508C0, 1},
};

const Device* findDevice(const char* name) {
    for (const Device& d : kDevices)
        if (std::strcmp(name, d.name) == 0) return &d;
    return nullptr;
}

}  // namespace

void CedarForkPCHIntf::padBitsIs(U32 pad, U16 from, U16 to, U32 value) {
    if (pad == kNoPad) return;
    vec_.valid = false;
    U32 dw0;
    impl->read32(pad, &dw0);
    Hal::bitsIs<U32>(dw0, from, to, value);
    impl->write32(pad, dw0);
}

void CedarForkPCHIntf::select(const char* deviceName) {
    const Device* d = findDevice(deviceName);
    if (!d) xilUnknownDevice(deviceName);
    ham->reaches(U64(std::max({d->tck, d->tdi, d->tms, d->tdo, d->aux, d->fixed})) + 4);
    impl = ham->hamImpl();
    tckPad = d->tck;
    tdiPad = d->tdi;
    tmsPad = d->tms;
    tdoPad = d->tdo;
    auxPad = d->aux;
    fixedPads[0] = d->fixed;
    fixedLevels[0] = d->fixedLevel;
    fixedPads[1] = fixedPads[2] = kNoPad;
    fixedLevels[1] = fixedLevels[2] = 0;

    // Each output starts at the level its DW0 already holds.
    for (U32 pad : {tckPad, tdiPad, tmsPad, auxPad, fixedPads[0], fixedPads[1], fixedPads[2]})
        padBitsIs(pad, kTxDisBit, kRxDisBit, kOutputBuffers);
    padBitsIs(tdoPad, kTxDisBit, kRxDisBit, kInputBuffers);
    for (U32 pad : {tckPad, tdiPad, tmsPad}) padBitsIs(pad, kTxStateBit, kTxStateBit, 0);
    for (int i = 0; i < 3; ++i) padBitsIs(fixedPads[i], kTxStateBit, kTxStateBit, fixedLevels[i]);

    vec_.clear();
    vec_.regOf(tckPad);
    vec_.tckMask = 1u << kTxStateBit;
    vec_.tmsReg = vec_.regOf(tmsPad);
    vec_.tmsMask = 1u << kTxStateBit;
    vec_.tdiReg = vec_.regOf(tdiPad);
    vec_.tdiMask = 1u << kTxStateBit;
    vec_.tdoOffset = tdoPad;
    vec_.tdoMask = 1u << kRxStateBit;
}

// Vector path. Every pad has a DW0 register of its own, so nothing can be
// combined: a cycle costs the two TCK writes, plus one write for each change
// of TMS or TDI; no read but TDO's, in the cycles that want it (the per-pin
// path reads before every write). A shift first reads the three DW0
// registers (three reads per call).
void CedarForkPCHIntf::shift(U32 nbits, const U8* tms, const U8* tdi, U8* tdoBits) {
    Hal::Registers32 regs{impl.ptr()};
    Hal::shiftVector(regs, vec_, vectorControl_, nbits, tms, tdi, tdoBits);
}

void CedarForkPCHIntf::pinsIs(bool tck, bool tms, bool tdi) {
    Hal::Registers32 regs{impl.ptr()};
    Hal::pinsVector(regs, vec_, vectorControl_, tck, tms, tdi);
}

void CedarForkPCHIntf::tckIs(bool value) { padBitsIs(tckPad, kTxStateBit, kTxStateBit, value); }
void CedarForkPCHIntf::tdiIs(bool value) { padBitsIs(tdiPad, kTxStateBit, kTxStateBit, value); }
void CedarForkPCHIntf::tmsIs(bool value) { padBitsIs(tmsPad, kTxStateBit, kTxStateBit, value); }

bool CedarForkPCHIntf::tdo() {
    if (tdoPad == kNoPad) return false;
    U32 dw0;
    impl->read32(tdoPad, &dw0);
    return Hal::bits<U32>(dw0, kRxStateBit, kRxStateBit);
}

// Every pad select drove stops driving; output levels stay, TDO is an input already.
void CedarForkPCHIntf::cleanup(const char*) {
    for (U32 pad : {tckPad, tdiPad, tmsPad, auxPad, fixedPads[0], fixedPads[1], fixedPads[2]})
        padBitsIs(pad, kTxDisBit, kRxDisBit, kInputBuffers);
}

bool CedarForkPCHFactory::manages(const char* deviceName) {
    std::printf("CHECKING FPGA %s\n", deviceName);
    if (Os::system("/bin/grep -qE \"platform=(sosepi|disal|kubez)\" /proc/cmdline") != 0) return false;
    return findDevice(deviceName) != nullptr;
}

XilIntf* CedarForkPCHFactory::newXilIntf(U16, U16, U16 domain, U8 bus, U8 device, U8) {
    char lockName[256];
    xilLockName(lockName, domain, bus, device);
    // Owned here until its window is mapped: a refusal that does not end the
    // process (the library's exit hook) must not keep the lock.
    std::unique_ptr<CedarForkPCHIntf> intf(new CedarForkPCHIntf(lockName));
    U32 page = static_cast<U32>(Os::pageSize());
    U32 size = (kWindowBytes + page - 1) / page * page;
    intf->ham = new Ham("CedarForkGpioHam", HamType::mappedFile, nullptr, intf->physBase, size, "/dev/mem", kWindowTag);
    return intf.release();
}

void CedarForkPCHFactory::servedNames(std::vector<XilServedName>* out) {
    for (const auto& d : kDevices) out->push_back({d.name, "Intel Cedar Fork PCH GPIO", "kernel command line has platform=(sosepi|disal|kubez)"});
}
