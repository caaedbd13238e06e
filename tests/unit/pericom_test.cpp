// The Pericom Gen3 backend over a fake BAR 0: which register block each
// device name reaches, and the exact read-modify-write sequences of select,
// the pin operations, tdo and cleanup.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <utility>

#include "TestSupport.h"
#include "xilinx/backends/PericomGen3Intf.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

const char kResource[] = "/sys/bus/pci/devices/0000:05:00.1/resource0";

class Pericom : public ::testing::Test {
  protected:
    XilIntf* make() { return PericomGen3Factory().newXilIntf(0x12d8, 0x2608, 0, 5, 0, 1); }

    FakeBoard board;
    FakeHamImpl& regs = board.hams[kResource];
};

}  // namespace

// Its three names: simscan_test; here the names near them it refuses.
// Nothing before select reaches a register: pinpath_test, for every backend.
TEST_F(Pericom, FactoryRefusesNamesNearItsOwnLocksThenOpensResource0EvenInTestMode) {
    PericomGen3Factory f;
    for (const char* n : {"togi", "togif_", "togif_fanx", "Togif", ""}) EXPECT_FALSE(f.manages(n)) << n;
    XilIntf_testModeIs(1);  // until the board goes
    make();
    EXPECT_THAT(board.events,
                ElementsAre("lock /tmp/xilinxTestLockFile", std::string("window PericomGen3Ham ") + kResource));
    EXPECT_EQ(board.hams.opened()[0].size, 0u);  // the whole resource
}

// Direction preloaded with bits 1, 3, 5 clear and 7 set, the other bits
// mixed; output data all ones: select must flip exactly the JTAG bits.
TEST_F(Pericom, EachNameReachesItsBlockWithTheExactSequence) {
    XilIntf* intf = make();
    using Row = std::pair<const char*, U32>;  // name, block base
    for (auto [name, base] : {Row{"togif", 0x10000}, Row{"togif_scd", 0x10000}, Row{"togif_fan", 0}}) {
        SCOPED_TRACE(name);
        const U32 dir = base + 0x31C, in = base + 0x328, out = base + 0x330;
        regs.poke(dir, 0x5a5a5a91);
        regs.poke(out, 0xffffffff);
        intf->select(name);
        intf->tckIs(true);
        intf->tdiIs(true);
        intf->tmsIs(true);
        intf->tckIs(false);
        expectTdoFollows(regs, intf, in, 0x8);
        regs.poke(dir, 0xffffffff);
        intf->warningIs(true);
        intf->cleanup(name);
        // Select: TCK, TDI, TMS outputs, TDO an input, TCK, TDI, TMS low; the
        // four pin changes; two tdo reads; cleanup: TCK, TDI, TMS inputs.
        EXPECT_THAT(regs.log(),
                    ElementsAreArray(Accesses()
                                         .rmw(dir, {0x5a5a5a91, 0x5a5a5a93, 0x5a5a5ab3, 0x5a5a5abb, 0x5a5a5a3b})
                                         .rmw(out, {0xffffffff, 0xfffffffe, 0xfffffffa, 0xfffffff8})
                                         .rmw(out, {0xfffffff8, 0xfffffff9, 0xfffffffd, 0xffffffff, 0xfffffffe})
                                         .read(in, 0x8)
                                         .read(in, 0xfffffff7)
                                         .rmw(dir, {0xffffffff, 0xfffffffd, 0xffffffdd, 0xffffffd5})));
        EXPECT_EQ(regs.peek(out), 0xfffffffeu);  // cleanup leaves the levels
        regs.clearLog();
    }
}
