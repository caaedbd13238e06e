// The pin path of every backend. With tracing off, after select, pin
// changes and TDO reads make no allocation, no OS call and no output
// (windows here are plain memory, so the only cost left is the backends'
// own); before select they touch no register at all; and select refuses a
// name it does not know before it touches one.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "xilinx/XilIntf.h"
#include "xilinx/amd/AmdPlatform.h"

// The replacement operator new below hands out malloc'ed memory, so the
// matching delete frees it; GCC cannot see that pairing through inlining.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

namespace {
bool counting = false;
unsigned long allocations = 0;
}  // namespace

void* operator new(std::size_t n) {
    if (counting) ++allocations;
    if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

struct Case {
    const char* device;
    const char* cmdline;
    U8 pciDevice;        // each case its own PCI device, so its own lock
    const char* near;    // a name its select does not know
    const char* kind;    // what select's refusal calls it
};

const Case kCases[] = {
    {"fodak", "console=ttyS0", 1, "komefi ", "device"},                  // SB820
    {"mubarScd", "", 2, "mubar", "device"},                              // Cave Creek
    {"rotanSeret", "", 3, "tilegScd", "device"},                         // PEX 8600
    {"nipig2Scd", "", 4, "rotanSeret", "fpga"},                          // PEX 8700, relocated block
    {"penetScd", "", 5, "penetScdX", "device"},                          // GbE
    {"kubezShimScd", "platform=kubez", 6, "kubez", "device"},            // Cedar Fork
    {"togif", "", 7, "togif_fanx", "device"},                            // Pericom
    {"tabukccpuSwitchScd", "platform=tabukccpu", 8, "Fodak", "device"},  // AMD SoC GPIO (R1000)
};

// A board on which the case's backend serves its name (an R1000 processor,
// a Cave Creek GPIO base in the configuration space), with its interface.
class PinPath : public ::testing::TestWithParam<Case> {
  protected:
    XilIntf* make() {
        const Case& c = GetParam();
        amd::resetForTests();  // the SoC backend detects its board once per process
        board.cmdline = c.cmdline;
        board.cpuIs(0x17, 0x18);
        board.fileIs("/sys/bus/pci/devices/0000:00:02.0/config", std::string(0x48, 0) + std::string("\x81\xf5\0\0", 4));
        return XilIntf_bySystem(c.device, 0, 0, 0, 0, c.pciDevice, 0);
    }
    void TearDown() override { Ham::providerIs(nullptr); }

    FakeBoard board;
};

}  // namespace

TEST_P(PinPath, NoAllocationNoSystemCallNoOutput) {
    const Case& c = GetParam();
    std::vector<std::vector<U8>> memories;
    memories.reserve(4);
    Ham::providerIs([&](const HamDesc& s) -> Ptr<HamImpl> {
        // The SoC GPIO window is mapped by its backend itself: over
        // board.devMem, through the faked /dev/mem.
        if (s.name == "gpioWindow" && s.base == 0xFED80000u) return nullptr;
        memories.emplace_back(s.size ? s.size + 0x1000 : 0x100000);
        return new MemoryHamImpl(memories.back().data());
    });
    XilIntf* intf = make();
    ASSERT_NE(intf, nullptr);
    XilIntf_select(intf, c.device);
    XilIntf_ledIs(intf, 0);

    size_t events = board.events.size();
    ::testing::internal::CaptureStderr();
    counting = true;
    for (int i = 0; i < 64; ++i) {
        XilIntf_tmsIs(intf, i & 4);
        XilIntf_tdiIs(intf, i & 2);
        XilIntf_tckIs(intf, 0);
        XilIntf_tdo(intf);
        XilIntf_tckIs(intf, 1);
    }
    // The vector path too.
    U8 tms[32], tdi[32], out[32];
    for (int i = 0; i < 32; ++i) tms[i] = static_cast<U8>(i * 37), tdi[i] = static_cast<U8>(i * 91);
    XilIntf_shift(intf, 256, tms, tdi, out);
    XilIntf_shift(intf, 255, tms, tdi, nullptr);
    for (int i = 0; i < 8; ++i) XilIntf_pinsIs(intf, i & 1, i & 2, i & 4);
    counting = false;
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(allocations, 0u);
    EXPECT_EQ(board.events.size(), events);
    XilIntf_cleanup(intf, c.device);
}

// Callers select first; a player that does not still must not reach a
// register through pins that were never assigned.
TEST_P(PinPath, NothingBeforeSelectTouchesARegister) {
    const Case& c = GetParam();
    XilIntf* intf = make();
    ASSERT_NE(intf, nullptr);
    XilIntf_tckIs(intf, 1);
    XilIntf_tmsIs(intf, 1);
    XilIntf_tdiIs(intf, 1);
    EXPECT_EQ(XilIntf_tdo(intf), 0);
    U8 bits[2] = {0x5a, 0xa5}, out[2] = {0xff, 0xff};
    XilIntf_shift(intf, 9, bits, bits, out);
    EXPECT_EQ(out[0] | out[1], 0) << "TDO reads 0 without a pin";
    XilIntf_pinsIs(intf, 1, 1, 1);
    XilIntf_ledIs(intf, 1);
    XilIntf_cleanup(intf, c.device);
    ASSERT_FALSE(board.hams.opened().empty());
    for (const HamDesc& w : board.hams.opened())
        EXPECT_TRUE(board.hams[w.fileName.empty() ? w.name : w.fileName].log().empty()) << w.name;
}

// A name near the backend's own ends the run at select with one line,
// before any register access (which would show on stderr first).
TEST_P(PinPath, UnknownNameEndsTheRunBeforeAnyRegisterAccess) {
    struct TellingHam : FakeHamImpl {
        int read32(U32 o, U32* v) override { return std::fputs("R32\n", stderr), FakeHamImpl::read32(o, v); }
        int read8(U32 o, U8* v) override { return std::fputs("R8\n", stderr), FakeHamImpl::read8(o, v); }
        int write32(U32 o, U32 v) override { return std::fputs("W32\n", stderr), FakeHamImpl::write32(o, v); }
        int write8(U32 o, U8 v) override { return std::fputs("W8\n", stderr), FakeHamImpl::write8(o, v); }
    };
    Ham::providerIs([](const HamDesc&) { return Ptr<HamImpl>(new TellingHam); });
    const Case& c = GetParam();
    XilIntf* intf = make();
    ASSERT_NE(intf, nullptr);
    EXPECT_EXIT(XilIntf_select(intf, c.near), ::testing::ExitedWithCode(1),
                std::string("^Unknown ") + c.kind + ": " + c.near + "\n$");
}

INSTANTIATE_TEST_SUITE_P(EveryBackend, PinPath, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<Case>& i) { return std::string(i.param.device); });
