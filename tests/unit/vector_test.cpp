// The vector path of every backend on the simulated board, against the
// per-pin path of the same backend: the same TDO bits from an IDCODE scan
// and a 4096-bit round trip through the chain's BYPASS registers, the same
// register file at the end; and what a long shift costs in register
// accesses. Each comparison runs in a child process of its own, on a
// fresh board.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <random>
#include <sstream>

#include "SimBackends.h"
#include "TestSupport.h"
#include "jtag/Tap.h"
#include "sim/Board.h"
#include "xilinx/XilIntf.h"
#include "xilinx/amd/AmdPlatform.h"
#include "xilinx/amd/EkabiniIntf.h"
#include "xilinx/backends/CaveCreekPCHIntf.h"
#include "xilinx/backends/CedarForkPCHIntf.h"
#include "xilinx/backends/IntelGbeControllerIntf.h"
#include "xilinx/backends/PericomGen3Intf.h"
#include "xilinx/backends/PlxPex8600Intf.h"
#include "xilinx/backends/PlxPex8700Intf.h"
#include "xilinx/backends/Sb820Intf.h"

using jtag::BitVector;

using simtest::Backend;
using simtest::kBackends;
using simtest::Others;
using simtest::PerPin;

namespace {

BitVector randomBits(size_t n, unsigned stream) {
    std::mt19937 gen(stream);
    BitVector v(n);
    for (size_t i = 0; i < v.byteCount(); ++i) v.data()[i] = static_cast<uint8_t>(gen());
    v.resize(n);  // clears the tail
    return v;
}

// Runs f in a child process on a fresh board for b and returns what it
// printed on stdout (the backends' own lines go to /dev/null).
std::string onBoard(const Backend& b, const std::function<void(sim::Board&, XilIntf*, FILE*)>& f) {
    int fds[2];
    if (::pipe(fds) != 0) return "pipe failed";
    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::close(fds[0]);
        FILE* out = ::fdopen(fds[1], "w");
        if (!out || !std::freopen("/dev/null", "w", stdout)) std::_Exit(99);
        auto* target = new simtest::SimTarget(b);  // lives until the process ends, like the interfaces
        if (!target->intf) std::_Exit(98);
        f(target->board, target->intf, out);
        std::fclose(out);
        std::_Exit(0);
    }
    ::close(fds[1]);
    std::string text;
    char buf[4096];
    for (ssize_t n; (n = ::read(fds[0], buf, sizeof buf)) > 0;) text.append(buf, static_cast<size_t>(n));
    ::close(fds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) text += "child status " + std::to_string(status);
    return text;
}

// IDCODEs, a 4096-bit DR round trip through both BYPASS registers, a few
// remote bit-bang symbols, clean-up; then every register byte of the chip.
void roundTrip(sim::Board& board, XilIntf* intf, FILE* out) {
    jtag::Tap tap(intf);
    for (uint32_t id : jtag::readIdcodes(tap)) std::fprintf(out, "id 0x%08x\n", id);
    tap.shiftIr(BitVector(8 + 6, true), nullptr);  // BYPASS on both devices
    BitVector first = randomBits(4096, 1), second = randomBits(4096, 2), out1, out2;
    tap.shiftDr(first, &out1);
    tap.shiftDr(second, &out2, jtag::TapState::PauseDr);
    std::fprintf(out, "dr %s\ndr %s\n", out1.hex().c_str(), out2.hex().c_str());
    // Test-Logic-Reset through symbols: TMS high over five rising edges.
    for (int i = 0; i < 5; ++i) XilIntf_pinsIs(intf, 0, 1, i & 1), XilIntf_pinsIs(intf, 1, 1, i & 1);
    XilIntf_pinsIs(intf, 0, 0, 0);
    std::fprintf(out, "tap %s\n", jtag::stateName(board.chain().state()));
    XilIntf_cleanup(intf, "");
    for (const auto& [offset, byte] : board.wiredChip()->contents()) std::fprintf(out, "%x=%02x ", offset, byte);
}

class Vector : public ::testing::TestWithParam<Backend> {};

}  // namespace

TEST_P(Vector, SameBitsAndRegistersAsThePerPinPath) {
    std::string vector = onBoard(GetParam(), roundTrip);
    std::string perPin = onBoard(GetParam(), [](sim::Board& board, XilIntf* intf, FILE* out) {
        roundTrip(board, new PerPin(intf), out);
    });
    EXPECT_EQ(vector, perPin);
    // The chain answered: both codes, and what went in came out two bits (two BYPASS registers) later.
    BitVector first = randomBits(4096, 1), expected(2);
    expected.append(first, 0, 4094);
    EXPECT_THAT(vector, ::testing::StartsWith("id 0x0a5c7035\nid 0x1b4d2093\ndr "));
    EXPECT_THAT(vector, ::testing::HasSubstr("dr " + expected.hex() + "\n"));
    EXPECT_THAT(vector, ::testing::HasSubstr("tap Test-Logic-Reset\n"));
}

// A 100000-cycle shift makes no read but the image's (at most three) and
// TDO's, one per cycle when wanted; two writes per cycle, one more for each
// change of a TMS or TDI outside TCK's register, and at most one to start.
TEST_P(Vector, LongShiftCostsTwoWritesPerCycleAndNoRead) {
    std::string report = onBoard(GetParam(), [](sim::Board& board, XilIntf* intf, FILE* out) {
        constexpr U32 n = 100000;
        BitVector tms = randomBits(n, 3), tdi = randomBits(n, 4), tdo(n);
        for (BitVector* tdoBits : {static_cast<BitVector*>(nullptr), &tdo}) {
            uint64_t reads = board.reads(), writes = board.writes(), cycles = board.chain().tckCycles();
            XilIntf_shift(intf, n, tms.data(), tdi.data(), tdoBits ? tdoBits->data() : nullptr);
            std::fprintf(out, "%s: reads %u writes %u cycles %u\n", tdoBits ? "tdo" : "no tdo",
                         unsigned(board.reads() - reads), unsigned(board.writes() - writes),
                         unsigned(board.chain().tckCycles() - cycles));
        }
    });
    // The writes a change of TMS or TDI outside TCK's register costs: about n / 2 per random stream.
    BitVector tms = randomBits(100000, 3), tdi = randomBits(100000, 4);
    U32 others = 0;
    for (size_t i = 1; i < tms.size(); ++i) {
        bool tmsChange = tms[i] != tms[i - 1], tdiChange = tdi[i] != tdi[i - 1];
        switch (GetParam().others) {
            case Others::none: break;
            case Others::tms: others += tmsChange; break;
            case Others::apart: others += tmsChange + tdiChange; break;
            case Others::together: others += tmsChange || tdiChange; break;
        }
    }
    unsigned noTdoReads, noTdoWrites, noTdoCycles, tdoReads, tdoWrites, tdoCycles;
    ASSERT_EQ(std::sscanf(report.c_str(), "no tdo: reads %u writes %u cycles %u\ntdo: reads %u writes %u cycles %u",
                          &noTdoReads, &noTdoWrites, &noTdoCycles, &tdoReads, &tdoWrites, &tdoCycles),
              6)
        << report;
    EXPECT_EQ(noTdoCycles, 100000u);
    EXPECT_EQ(tdoCycles, 100000u);
    EXPECT_LE(noTdoReads, 3u);
    EXPECT_EQ(tdoReads, noTdoReads + 100000);
    // TMS and TDI in TCK's register ride on its writes; elsewhere each change
    // is a write. The first cycle may add one write per register.
    for (unsigned writes : {noTdoWrites, tdoWrites}) {
        EXPECT_GE(writes, 200000u + others);
        EXPECT_LE(writes, 200000u + others + 3);
    }
}

INSTANTIATE_TEST_SUITE_P(EveryBackend, Vector, ::testing::ValuesIn(kBackends),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- the exact register traffic of a short shift ----

namespace {

// Four cycles: TMS 1, 0, 0, 1 and TDI 0, 1, 1, 0 (bit 0 first).
constexpr U8 kTms = 0x9, kTdi = 0x6;

struct Sequence {
    const char* name;
    const char* window;  // the fake's key
    std::function<XilIntf*(FakeBoard&)> make;  // built and selected
    // Registers as someone left them after select, once before each call;
    // the second time with a further bit of nobody's pin set in TCK's
    // register, which every write must carry.
    std::vector<std::pair<U32, U32>> before, beforeTdo;
    std::vector<std::string> noTdo, tdo;  // the logs of the two calls
};

void PrintTo(const Sequence& s, std::ostream* os) { *os << s.name; }

const char kResource0[] = "/sys/bus/pci/devices/0000:02:00.0/resource0";

XilIntf* made(XilIntf* intf, const char* device) {
    intf->select(device);
    return intf;
}

using Make = std::function<XilIntf*(FakeBoard&)>;

// TCK in a register of its own, TMS and TDI in one each (tck, tms, tdi, tdo
// register offsets; level and TDO masks; the TMS and TDI registers' value
// besides them, TCK's); the further bit in TCK's register is 0x10.
Sequence apart(const char* name, const char* window, Make make, int width, U32 tck, U32 tms, U32 tdi, U32 tdoReg,
               U32 level, U32 rest, U32 tckRest, U32 tdoValue) {
    Sequence s{name, window, std::move(make), {}, {}, {}, {}};
    for (bool withTdo : {false, true}) {
        U32 tckNow = tckRest | (withTdo ? 0x10 : 0);
        (withTdo ? s.beforeTdo : s.before) = {{tck, tckNow}, {tms, rest}, {tdi, rest}, {tdoReg, tdoValue}};
        Accesses a(width);
        a.read(tck, tckNow).read(tms, rest).read(tdi, rest);
        auto edges = [&] {
            if (withTdo) a.read(tdoReg, tdoValue);
            a.write(tck, tckNow | level).write(tck, tckNow);
        };
        a.write(tms, rest | level), edges();                   // TMS 1
        a.write(tms, rest).write(tdi, rest | level), edges();  // TMS 0, TDI 1
        edges();                                               // no change
        a.write(tms, rest | level).write(tdi, rest), edges();  // TMS 1, TDI 0
        (withTdo ? s.tdo : s.noTdo) = std::move(a);
    }
    return s;
}

// TCK, TMS and TDI in one output-data register (its offset; their masks;
// the register's value besides them; the further bit), TDO in another: the
// falling edge carries the next cycle's TMS and TDI.
Sequence together(const char* name, Make make, U32 reg, U32 tck, U32 tms, U32 tdi, U32 rest, U32 extra, U32 tdoReg,
                  U32 tdoValue) {
    Sequence s{name, kResource0, std::move(make), {{reg, rest}}, {{reg, rest | extra}, {tdoReg, tdoValue}}, {}, {}};
    for (bool withTdo : {false, true}) {
        U32 now = rest | (withTdo ? extra : 0);
        auto levels = [&](int cycle) { return now | (kTms >> cycle & 1 ? tms : 0) | (kTdi >> cycle & 1 ? tdi : 0); };
        Accesses a;
        a.read(reg, now).write(reg, levels(0));
        for (int cycle = 0; cycle < 4; ++cycle) {
            if (withTdo) a.read(tdoReg, tdoValue);
            a.write(reg, levels(cycle) | tck).write(reg, levels(cycle < 3 ? cycle + 1 : cycle));
        }
        (withTdo ? s.tdo : s.noTdo) = std::move(a);
    }
    return s;
}

// The SoC GPIO backend's interface on a board with this platform word and processor.
Make soc(const char* platform, unsigned family, unsigned model, const char* device) {
    return [=](FakeBoard& board) {
        amd::resetForTests();
        board.cmdline = std::string("console=ttyS0 platform=") + platform;
        board.cpuIs(family, model);
        return made(EkabiniGpioFactory().newXilIntf(0, 0, 0, 0, 0x14, 0), device);
    };
}

std::vector<Sequence> sequences() {
    const U32 sb = 0x100;  // SB820 and Kabini control bytes
    return {
        apart("SB820", "/sys/bus/pci/devices/0000:02:00.0/resource5",
              [](FakeBoard&) { return made(Sb820Factory().newXilIntf(0, 0, 0, 2, 0, 0), "fodak"); },
              8, sb + 189, sb + 49, sb + 171, sb + 61, 0x40, 0x01, 0x03, 0x80),
        apart("Kabini", "/dev/mem", soc("gozip", 0x16, 0x05, "fodak"), 8, sb + 168, sb + 49, sb + 57, sb + 61, 0x40, 0x01, 0x03, 0x80),
        // Pads 116 (TCK), 132 (TMS), 115 (TDI), 131 (TDO): control words at 0x1500 + 4 x pad.
        apart("R1000", "/dev/mem", soc("tabukccpu", 0x17, 0x10, "tabukccpuSwitchScd"), 32, 0x16D0, 0x1710, 0x16CC, 0x170C, 0x400000, 0x800001, 0x800001, 0x10000),
        // Pad DW0 registers: TCK 0xC20B40, TMS 0xC20B50, TDI 0xC20B20, TDO 0xC20B60 (RX state, bit 1).
        apart("CedarFork", "/dev/mem",
              [](FakeBoard&) { return made(CedarForkPCHFactory().newXilIntf(0, 0, 0, 0, 0x1f, 0), "kubezShimScd"); },
              32, 0xC20B40, 0xC20B50, 0xC20B20, 0xC20B60, 0x1, 0x40000200, 0x40000200, 0x102),
        // Level registers: TCK (GPIO 12) in bank 0 at 0xf58c, TMS (45) and TDI (44) in bank 1 at 0xf5b8: one
        // write when either changes; TDO (22) in bank 0.
        {"CaveCreek", "theCaveCreekPCHIOHam",
         [](FakeBoard& board) {
             std::string config(0x100, '\0');
             config[0x48] = '\x81', config[0x49] = '\xf5';
             board.fileIs("/sys/bus/pci/devices/0000:00:1f.0/config", config);
             ::testing::internal::CaptureStdout();  // "GPIO Offset: 0xf580"
             XilIntf* intf = made(CaveCreekPCHFactory().newXilIntf(0, 0, 0, 0, 0x1f, 0), "zetizSwitchScd");
             ::testing::internal::GetCapturedStdout();
             return intf;
         },
         {{0xf58c, 0x80000000}, {0xf5b8, 0x1}},
         {{0xf58c, 0x80400010}, {0xf5b8, 0x1}},
         Accesses().read(0xf58c, 0x80000000).read(0xf5b8, 0x1)
             .write(0xf5b8, 0x2001).write(0xf58c, 0x80001000).write(0xf58c, 0x80000000)
             .write(0xf5b8, 0x1001).write(0xf58c, 0x80001000).write(0xf58c, 0x80000000)
             .write(0xf58c, 0x80001000).write(0xf58c, 0x80000000)
             .write(0xf5b8, 0x2001).write(0xf58c, 0x80001000).write(0xf58c, 0x80000000),
         Accesses().read(0xf58c, 0x80400010).read(0xf5b8, 0x1)
             .write(0xf5b8, 0x2001).read(0xf58c, 0x80400010).write(0xf58c, 0x80401010).write(0xf58c, 0x80400010)
             .write(0xf5b8, 0x1001).read(0xf58c, 0x80400010).write(0xf58c, 0x80401010).write(0xf58c, 0x80400010)
             .read(0xf58c, 0x80400010).write(0xf58c, 0x80401010).write(0xf58c, 0x80400010)
             .write(0xf5b8, 0x2001).read(0xf58c, 0x80400010).write(0xf58c, 0x80401010).write(0xf58c, 0x80400010)},
        // One output-data register (0x644): TCK GPIO 15, TMS 14, TDI 12; the falling edge carries the next
        // TMS and TDI. TDO GPIO 13 in the input-data register 0x63c.
        together("Pex8600",
                 [](FakeBoard&) { return made(PlxPex8600Factory().newXilIntf(0, 0, 0, 2, 0, 0), "rotanSeret"); },
                 0x644, 0x8000, 0x4000, 0x1000, 0x10001, 0x2, 0x63C, 0x2000),
        // One output-data register (0x624): TCK GPIO 9, TMS 8, TDI 7; TDO 6 at 0x61c. GPIO 10 held high.
        together("Pex8700",
                 [](FakeBoard&) { return made(PlxPex8700Factory().newXilIntf(0, 0, 0, 2, 0, 0), "tilegScd"); },
                 0x624, 0x200, 0x100, 0x80, 0x80000400, 0x1, 0x61C, 0x40),
        // Block 0x10000: output data at 0x10330 (TCK GPIO 0, TMS 1, TDI 2), TDO GPIO 3 at 0x10328.
        together("Pericom", [](FakeBoard&) { return made(PericomGen3Factory().newXilIntf(0, 0, 0, 2, 0, 0), "togif"); },
                 0x10330, 0x1, 0x2, 0x4, 0xA0, 0x100, 0x10328, 0x8),
        // CTRL: TCK SDP0 (bit 18), TDI SDP1 (bit 19); CTRL_EXT: TMS SDP2 (bit 6), TDO SDP3 (bit 7).
        {"Gbe", kResource0,
         [](FakeBoard&) { return made(IntelGbeControllerFactory().newXilIntf(0, 0, 0, 2, 0, 0), "penetScd"); },
         {{0x0, 0xC00001}, {0x18, 0x401}},
         {{0x0, 0xC00003}, {0x18, 0x481}},
         Accesses().read(0x0, 0xC00001).read(0x18, 0x401)
             .write(0x18, 0x441).write(0x0, 0xC40001).write(0x0, 0xC80001)
             .write(0x18, 0x401).write(0x0, 0xCC0001).write(0x0, 0xC80001)
             .write(0x0, 0xCC0001).write(0x0, 0xC00001)
             .write(0x18, 0x441).write(0x0, 0xC40001).write(0x0, 0xC00001),
         Accesses().read(0x0, 0xC00003).read(0x18, 0x481)
             .write(0x18, 0x4C1).read(0x18, 0x4C1).write(0x0, 0xC40003).write(0x0, 0xC80003)
             .write(0x18, 0x481).read(0x18, 0x481).write(0x0, 0xCC0003).write(0x0, 0xC80003)
             .read(0x18, 0x481).write(0x0, 0xCC0003).write(0x0, 0xC00003)
             .write(0x18, 0x4C1).read(0x18, 0x4C1).write(0x0, 0xC40003).write(0x0, 0xC00003)},
    };
}

class VectorSequence : public ::testing::TestWithParam<Sequence> {
  protected:
    void TearDown() override { amd::resetForTests(); }
    FakeBoard board;
};

}  // namespace

TEST_P(VectorSequence, FourCyclesWithAndWithoutTdo) {
    const Sequence& s = GetParam();
    XilIntf* intf = s.make(board);
    FakeHamImpl& window = board.hams[s.window];
    int width = s.noTdo.front()[1] == '8' ? 8 : 32;  // "R8 ..." or "R32 ..."
    for (auto [offset, value] : s.before) window.poke(offset, value, width);
    window.clearLog();
    XilIntf_shift(intf, 4, &kTms, &kTdi, nullptr);
    EXPECT_THAT(window.log(), ::testing::ElementsAreArray(s.noTdo));

    for (auto [offset, value] : s.beforeTdo) window.poke(offset, value, width);
    window.clearLog();
    U8 tdo = 0xff;
    XilIntf_shift(intf, 4, &kTms, &kTdi, &tdo);
    EXPECT_THAT(window.log(), ::testing::ElementsAreArray(s.tdo));
    EXPECT_EQ(tdo, 0x0f) << "TDO high in all four cycles; the bits past the fourth 0";
}

INSTANTIATE_TEST_SUITE_P(EveryBackend, VectorSequence, ::testing::ValuesIn(sequences()),
                         [](const auto& info) { return std::string(info.param.name); });

