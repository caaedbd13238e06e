// The player on a simulated chain with a clock that runs only as TCK
// cycles and sleeps make it: TDO checks against real IDCODEs, long scans
// in segments, XSVF retries and their TMS path, and the timing of
// RUNTEST, XRUNTEST and FREQUENCY.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "ChainIntf.h"
#include "TestSupport.h"

namespace {

class Player : public ::testing::Test {
  protected:
    // Plays the file to its end or its first mismatch; "" or the mismatch.
    std::string play(const std::string& file, bool xsvf = false, jtag::Player* by = nullptr) {
        if (!by) by = &player;
        MemoryReader r(file, xsvf);
        for (jtag::Action a; r->next(&a);)
            if (!by->play(a)) return std::string(a.statement) + " " + by->mismatch();
        return "";
    }
    // TMS at each rising edge since the mark.
    std::string tmsSince(size_t mark) const {
        std::string s;
        for (size_t i = 2 * mark; i < intf->tmsTrail.size(); i += 2) s += intf->tmsTrail[i] ? '1' : '0';
        return s;
    }

    FakeBoard board;
    sim::JtagChain chain{{{0x0a5c7035, 8}, {0x1b4d2093, 6}}};
    ChainIntf* intf = new ChainIntf("0_1_0_jtag", &chain);
    jtag::Tap tap{intf};
    ChainClock clock{intf};
    jtag::Player player{&tap, clock};
};

}  // namespace

TEST_F(Player, IdcodesVerifyAndAFlippedBitIsOneMismatchLine) {
    player.start();
    EXPECT_EQ(play("SDR 64 TDI(0) TDO(1b4d2093 0a5c7035);\n"), "");
    EXPECT_EQ(play("STATE RESET;\nSDR 64 TDI(0) TDO(1b4d2093 0a5c7034);\n"),
              "SDR TDO mismatch: expected 1b4d20930a5c7034 mask ffffffffffffffff actual 1b4d20930a5c7035");
    // A mask hides the bit; a scan without TDO reads nothing.
    EXPECT_EQ(play("STATE RESET;\nSDR 64 TDI(0) TDO(1b4d2093 0a5c7034) MASK(ffffffff fffffffe);\n"), "");
    unsigned reads = intf->tdoReads;
    EXPECT_EQ(play("STATE RESET;\nSDR 64 TDI(0);\nSIR 14 TDI(0);\n"), "");
    EXPECT_EQ(intf->tdoReads, reads);
    // Past 64 bits: the 64 around the first difference, with its place.
    EXPECT_EQ(play("STATE RESET;\nSDR 100 TDI(0) TDO(4 1b4d2093 0a5c7035);\n"),
              "SDR TDO mismatch at bit 66 of 100, bits 97..34: expected 0000000106d34824 mask ffffffffffffffff "
              "actual 0000000006d34824");
    EXPECT_EQ(player.stats().mismatches, 2u);
    EXPECT_EQ(player.stats().scans, 6u);
    EXPECT_EQ(player.stats().bits, 4 * 64u + 14 + 100);
}

// Headers and trailers are merged into the scans by the reader
// (vectors_test); a mismatch behind them shows their bits masked
// (program_test.sh's "mask 1fffffffe").

TEST_F(Player, LongScansInSegmentsStayInShiftDr) {
    player.start();
    // XSDRTDOB, C and E: both IDCODEs and then the zeros shifted in first, in three segments of one Shift-DR.
    EXPECT_EQ(play(bytes({0x08, 0, 0, 0, 32, 0x0f, 0, 0, 0, 0, 0x0a, 0x5c, 0x70, 0x35, 0x10, 0, 0, 0, 0, 0x1b, 0x4d,
                          0x20, 0x93, 0x11, 0, 0, 0, 0, 0, 0, 0, 0, 0x00}),
                   true),
              "");
    EXPECT_EQ(chain.state(), jtag::TapState::RunTestIdle);
}

TEST_F(Player, XrepeatTriesAgainThroughPauseDrAndShiftsOneBitBeforeUpdate) {
    player.start();
    size_t mark = intf->cycles;
    // Two wrong tries (TDO is read only in the scan's 8 bits, not in the
    // moves to Shift-DR), then the expected 0xa5.
    intf->script.assign(8 + 8, false);
    for (int i = 0; i < 8; ++i) intf->script.push_back((0xa5 >> i) & 1);
    // XREPEAT 3, XRUNTEST 5 us, XSDRSIZE 8, XTDOMASK ff, XSDRTDO 00 a5.
    EXPECT_EQ(play(bytes({0x07, 3, 0x04, 0, 0, 0, 5, 0x08, 0, 0, 0, 8, 0x01, 0xff, 0x09, 0x00, 0xa5, 0x00}), true), "");
    std::string wait(50, '0');  // 5 us at 100 ns a cycle: 5 cycles, then on until the time has passed
    std::string shift = "100" "00000001";
    EXPECT_EQ(tmsSince(mark), "0" + shift + "010110" + wait + shift + "010110" + wait + shift + "10" + wait);
    EXPECT_EQ(player.stats().retries, 2u);
    // One try too few: the mismatch, after the last try.
    intf->script.assign(2 * 8, false);
    intf->scripted = 0;
    EXPECT_EQ(play(bytes({0x07, 1, 0x08, 0, 0, 0, 8, 0x01, 0xff, 0x09, 0x00, 0xa5, 0x00}), true),
              "XSDRTDO TDO mismatch: expected a5 mask ff actual 00 after 2 tries");
}

TEST_F(Player, RuntestClocksItsCyclesThenUntilItsMinimumTime) {
    player.start();
    unsigned before = intf->cycles;
    EXPECT_EQ(play("RUNTEST 5000 TCK 1E-6 SEC;\n"), "");  // the count is the longer
    EXPECT_EQ(intf->cycles - before, 1 + 5000u);
    before = intf->cycles;
    EXPECT_EQ(play("RUNTEST 100 TCK 1E-3 SEC;\n"), "");  // the time is: 10000 cycles of 100 ns
    EXPECT_GE(intf->cycles - before, 10000u);
    EXPECT_LE(intf->cycles - before, 10010u);
    before = intf->cycles;
    EXPECT_EQ(play("RUNTEST DRPAUSE 2E-4 SEC ENDSTATE IDLE;\n"), "");  // time alone: clocked throughout
    EXPECT_GE(intf->cycles - before, 2000u);
    EXPECT_LE(intf->cycles - before, 2020u);
    EXPECT_EQ(clock.slept, 0u);  // no ceiling: nothing sleeps
    // Longer than MAXIMUM: a warning, and on.
    std::string warned;
    player.onOverrun = [&](const jtag::Action& a) { warned = a.statement + (" " + player.warning()); };
    EXPECT_EQ(play("RUNTEST 1000 TCK 1E-6 SEC MAXIMUM 1E-5 SEC;\n"), "");
    EXPECT_EQ(warned, "RUNTEST stayed 0.000100 s in Run-Test/Idle, longer than its MAXIMUM of 0.000010 s");
    EXPECT_EQ(player.stats().minRunNs, 1000u + 1000000 + 200000 + 1000);  // the times: no ceiling to count cycles at
}

TEST_F(Player, XruntestClocksAtLeastAsManyCyclesAsMicroseconds) {
    clock.nsPerCycle = 2000;  // a slow backend: the count, not the time, is the longer
    player.start();
    unsigned before = intf->cycles;
    // XRUNTEST 1000 us, XSIR 8 bits: the scan, then 1000 cycles in Run-Test/Idle.
    EXPECT_EQ(play(bytes({0x04, 0, 0, 0x03, 0xe8, 0x02, 8, 0xff, 0x00}), true), "");
    EXPECT_EQ(intf->cycles - before, 5u + 8 + 2 + 1000);
    before = intf->cycles;
    // XWAIT in Pause-DR for 100 us, ending in Run-Test/Idle.
    EXPECT_EQ(play(bytes({0x17, 0x06, 0x01, 0, 0, 0, 100, 0x00}), true), "");
    EXPECT_EQ(chain.state(), jtag::TapState::RunTestIdle);
    EXPECT_EQ(intf->cycles - before, 4u + 100 + 3);
}

// FREQUENCY holds on every TCK edge: each phase waits for what its accesses
// (here 100 ns a rising edge) left of half the period, and nothing waits
// without a ceiling. A cap lowers the file's ceiling and stands for a
// missing one. (TDO read only where the mask compares it: timing_test.sh.)
TEST_F(Player, FrequencyIsACeilingOnEveryEdgeAndACapLowersIt) {
    player.start();
    auto paced = [&](const std::string& file, jtag::Player* by = nullptr) {
        clock.edgeWaits.clear();
        uint64_t start = clock.now();
        unsigned before = intf->cycles;
        EXPECT_EQ(play(file, false, by), "");
        uint64_t took = clock.now() - start, cycles = intf->cycles - before;
        return took / cycles;  // ns a cycle
    };
    uint64_t perCycle = paced("FREQUENCY 1E5 HZ;\nRUNTEST 20000 TCK;\n");  // 5 us low, 100 ns edge, 5 us high
    EXPECT_GE(perCycle, 10000u);
    EXPECT_LE(perCycle, 10100u);
    EXPECT_EQ(*std::max_element(clock.edgeWaits.begin(), clock.edgeWaits.end()), 5000u);
    EXPECT_GE(clock.edgeWaits.size(), 2 * 20000u);
    EXPECT_EQ(paced("FREQUENCY;\nRUNTEST 5000 TCK;\n"), 100u);
    EXPECT_TRUE(clock.edgeWaits.empty());
    jtag::Player capped(&tap, clock);
    capped.capIs(1e4);
    capped.start();
    for (std::string file : {"FREQUENCY 1E6 HZ;\nRUNTEST 100 TCK;\n", "RUNTEST 100 TCK;\n"})
        EXPECT_GE(paced(file, &capped), 100000u) << file;  // 100 us a cycle, not 1 us
}

// A timing value at the edge of its range is honoured exactly, or refused as
// unsupported with its statement's place before any of it is played.
TEST_F(Player, TimingValuesAreHonouredOrRefusedBeforeTheirStatementMoves) {
    auto refused = [&](const std::string& file, bool xsvf = false) -> std::string {
        unsigned before = intf->cycles;
        try {
            play(file, xsvf);
        } catch (const jtag::FormatError& e) {
            EXPECT_EQ(e.kind, jtag::FormatError::unsupported) << e.what();
            EXPECT_EQ(intf->cycles, before) << "cycles clocked before the refusal of " << e.what();
            return e.place.in("f") + ": " + e.what();
        }
        return "played";
    };
    player.start();
    // Ceilings below 1 Hz, waits past a day and counts past 1e12: kelvorn-play's lines in playinput_test.sh.
    EXPECT_EQ(refused("\nRUNTEST 1E30 TCK;\n"), "f:2: RUNTEST: a run count of 1e+30 TCK cycles is more than the 1e+12 this player clocks");
    // A day at the lowest ceiling is honoured (on this clock, without waiting); a cycle more is not.
    EXPECT_EQ(refused("FREQUENCY 1 HZ;\nRUNTEST 86400 TCK;\n"), "played");
    EXPECT_EQ(refused("FREQUENCY 1 HZ;\nRUNTEST 86401 TCK;\n"),
              "f:2: RUNTEST: 86401 TCK cycles at the ceiling of 1 Hz take 86401 s, longer than the 86400 s (a day) "
              "one statement may wait");
    // A ceiling far above what the pins reach never waits; a MAXIMUM of any size is never exceeded.
    clock.edgeWaits.clear();
    uint64_t slept = clock.slept;
    std::string warned;
    player.onOverrun = [&](const jtag::Action&) { warned = player.warning(); };
    EXPECT_EQ(refused("FREQUENCY 1E30 HZ;\nRUNTEST 20000 TCK 1E-6 SEC MAXIMUM 1E30 SEC;\nSDR 32 TDI(0);\n"), "played");
    EXPECT_EQ(clock.slept, slept);
    EXPECT_TRUE(clock.edgeWaits.empty());
    EXPECT_EQ(warned, "");
    // XRUNTEST 0xffffffff (71 minutes) is a wait the player keeps, to the microsecond.
    jtag::Player dry(nullptr, clock);
    play(bytes({0x04, 0xff, 0xff, 0xff, 0xff, 0x02, 8, 0xff, 0x00}), true, &dry);
    EXPECT_EQ(dry.stats().minRunNs, 4294967295000u);
}
