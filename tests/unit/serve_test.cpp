// The protocol handlers of kelvorn-serve, fed bytes without a socket, over a
// backend that records what it is asked: the pin calls each symbol or
// command makes, in order, the answers, the refusals and their messages.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "StubBackend.h"
#include "TestSupport.h"
#include "serve/RemoteBitbang.h"
#include "serve/Xvc.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::Not;
using serve::Verdict;
using namespace std::string_literals;

namespace {

std::string hex(const uint8_t* bytes, size_t n) {
    std::string s;
    char b[4];
    for (size_t i = 0; i < n; ++i) s += (std::snprintf(b, sizeof b, "%02x", bytes[i]), b);
    return s;
}

// The base pin operations are recorded one by one (StubIntf); shifts are
// recorded whole, with the vectors as they arrive.
struct Recorder : StubIntf {
    explicit Recorder(std::vector<std::string>* calls) : StubIntf("serve_test_jtag", calls) {}

    // TDO levels the next reads return, in order; high once they run out.
    std::string tdoLevels;
    bool tdo() override {
        calls_->push_back("tdo");
        if (tdoLevels.empty()) return true;
        bool level = tdoLevels[0] == '1';
        tdoLevels.erase(0, 1);
        return level;
    }
    // What a shift that reads TDO puts into its TDO bytes, byte i from tdoBytes[i % size].
    std::vector<uint8_t> tdoBytes{0xa5};
    std::function<void()> onShift;
    void shift(U32 n, const U8* tms, const U8* tdi, U8* tdoOut) override {
        if (onShift) onShift();
        size_t bytes = (n + 7) / 8;
        calls_->push_back("shift " + std::to_string(n) + (n ? " tms " + hex(tms, bytes) + " tdi " + hex(tdi, bytes) : "") +
                          (tdoOut ? " tdo" : ""));
        for (size_t i = 0; tdoOut && i < bytes; ++i) tdoOut[i] = tdoBytes[i % tdoBytes.size()];
    }
};

uint32_t leAt(const std::string& s, size_t at) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = v << 8 | static_cast<uint8_t>(s[at + i]);
    return v;
}

class Handler : public ::testing::Test {
  protected:
    Verdict feed(serve::Protocol& p, const std::string& bytes) {
        return p.feed(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), &out);
    }
    std::string answers() const { return std::string(out.begin(), out.end()); }
    void clear() { calls.clear(), out.clear(); }

    FakeBoard board;  // the interface's lock goes to a private directory
    std::vector<std::string> calls;
    Recorder intf{&calls};
    std::vector<uint8_t> out;
};

// remote_bitbang ----------------------------------------------------------

class RemoteBitbang : public Handler {
  protected:
    void SetUp() override { rb.begin(); }
    serve::RemoteBitbang rb{&intf};
};

TEST_F(RemoteBitbang, SymbolsSetTckTmsTdiReadTdoAndSwitchTheIndication) {
    intf.tdoLevels = "01";
    EXPECT_EQ(feed(rb, "B2R6rstu0R5b"), Verdict::more);
    EXPECT_EQ(answers(), "01");
    EXPECT_THAT(calls, ElementsAre("warningIs 1",                      // B
                                   "shift 0",                          // the register image, once per batch
                                   "tckIs 0", "tmsIs 1", "tdiIs 0",    // 2: TCK low, TMS high, TDI low
                                   "tdo",                              // R
                                   "tmsIs 1", "tdiIs 0", "tckIs 1",    // 6: TCK rises last
                                   "tckIs 0", "tmsIs 0", "tdiIs 0",    // 0 (r s t u did nothing)
                                   "tdo",                              // R
                                   "tmsIs 0", "tdiIs 1", "tckIs 1",    // 5
                                   "warningIs 0"));                    // b
    EXPECT_EQ(rb.cycles(), 2u);
    EXPECT_EQ(rb.partial(), nullptr);
}

TEST_F(RemoteBitbang, CountsRisingEdgesAcrossBatchesAndSwitchesTheIndicationOnlyWhenItChanges) {
    feed(rb, "4444BB");
    feed(rb, "RbB");      // no pin symbol: the register image is not read
    feed(rb, "0B1546b");  // TCK high from the last batch stays high for 5 and 4
    EXPECT_EQ(rb.cycles(), 2u);
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "shift 0"), 2);
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "warningIs 1"), 2);
    EXPECT_EQ(calls.back(), "warningIs 0");
    rb.begin();  // the next client: nothing counted, the indication off
    calls.clear();
    feed(rb, "4b");
    EXPECT_EQ(rb.cycles(), 1u);
    EXPECT_THAT(calls, Not(Contains("warningIs 0")));
}

TEST_F(RemoteBitbang, QuitEndsTheSessionAndLeavesTheRestUnread) {
    EXPECT_EQ(feed(rb, "RQ4R"), Verdict::quit);
    EXPECT_EQ(answers(), "1");
    EXPECT_THAT(calls, ElementsAre("tdo"));
}

TEST_F(RemoteBitbang, AnythingElseIsMalformedAndNamesTheByte) {
    const struct {
        std::string bytes;
        const char* error;
    } cases[] = {
        {"8", "unknown remote_bitbang symbol '8'"},
        {"\n", "unknown remote_bitbang symbol '\\x0a'"},
        {std::string(1, '\0'), "unknown remote_bitbang symbol '\\x00'"},
        {"\xff", "unknown remote_bitbang symbol '\\xff'"},
        {"v", "unknown remote_bitbang symbol 'v'"},
        {"q", "unknown remote_bitbang symbol 'q'"},
        {"'", "unknown remote_bitbang symbol '\\x27'"},
        {"O", "unknown remote_bitbang symbol 'O' (SWD: only JTAG is served)"},
        {"d", "unknown remote_bitbang symbol 'd' (SWD: only JTAG is served)"},
        {"Z", "unknown remote_bitbang symbol 'Z'"},
    };
    for (const auto& c : cases) {
        clear();
        EXPECT_EQ(feed(rb, "2R" + c.bytes + "R4"), Verdict::malformed) << c.error;
        EXPECT_EQ(rb.error(), c.error);
        EXPECT_EQ(answers(), "1") << c.error;  // what came before is answered
        EXPECT_THAT(calls, ElementsAre("shift 0", "tckIs 0", "tmsIs 1", "tdiIs 0", "tdo")) << c.error;
    }
}

// XVC ------------------------------------------------------------------

class Xvc : public Handler {
  protected:
    void SetUp() override { xvc.begin(); }
    serve::Xvc xvc{&intf, 16};
};

const char kInfo16[] = "xvcServer_v1.0:16\n";

TEST_F(Xvc, GetinfoAndShiftAnswerWithTheirOwnBytes) {
    intf.tdoBytes = {0x35, 0x70};
    // 10 bits; the bits of the last bytes past 10 are the client's garbage.
    EXPECT_EQ(feed(xvc, "getinfo:shift:" + le(10) + "\xbf\x20" + "\x00\xfc"s + "getinfo:"), Verdict::more);
    EXPECT_EQ(answers(), std::string(kInfo16) + "\x35\x70" + kInfo16);
    EXPECT_THAT(calls, ElementsAre("shift 10 tms bf20 tdi 00fc tdo"));
    EXPECT_EQ(xvc.cycles(), 10u);
    out.clear();
    serve::Xvc wide(&intf, 65536);
    EXPECT_EQ(feed(wide, "getinfo:"), Verdict::more);
    EXPECT_EQ(answers(), "xvcServer_v1.0:65536\n");
}

TEST_F(Xvc, CommandsSplitAnywhereGiveTheSameCallsAndAnswers) {
    const std::string stream = "getinfo:shift:" + le(128) + std::string(16, '\x5a') + std::string(16, '\xc3') +
                               "shift:" + le(0) + "shift:" + le(1) + "\x01\x00"s + "getinfo:";
    ASSERT_EQ(feed(xvc, stream), Verdict::more);
    const std::vector<std::string> wholeCalls = calls;
    const std::string wholeAnswers = answers();
    EXPECT_EQ(wholeCalls.size(), 2u);  // no call for the 0-bit shift
    EXPECT_EQ(wholeAnswers.size(), 2 * sizeof kInfo16 - 2 + 16 + 1);
    for (size_t step : {1, 3, 7}) {
        clear();
        xvc.begin();
        for (size_t at = 0; at < stream.size(); at += step) ASSERT_EQ(feed(xvc, stream.substr(at, step)), Verdict::more);
        EXPECT_EQ(calls, wholeCalls) << "step " << step;
        EXPECT_EQ(answers(), wholeAnswers) << "step " << step;
    }
}

TEST_F(Xvc, PartialNamesTheCommandUnderWay) {
    const struct {
        std::string bytes;
        const char* partial;
    } cases[] = {
        {"", nullptr},
        {"shift", "a command name"},
        {"shift:\x08\x00"s, "shift"},
        {"shift:" + le(8) + "\xff", "shift"},
        {"shift:" + le(8) + "\xff\xff", nullptr},
        {"settck:\x10", "settck"},
    };
    for (const auto& c : cases) {
        xvc.begin();
        EXPECT_EQ(feed(xvc, c.bytes), Verdict::more);
        EXPECT_STREQ(xvc.partial(), c.partial) << testing::PrintToString(c.bytes);
    }
}

TEST_F(Xvc, AShiftLongerThanTheMaximumIsRefusedOnItsLength) {
    EXPECT_EQ(feed(xvc, "shift:" + le(128)), Verdict::more);  // 16 bytes: the maximum
    xvc.begin();
    for (uint32_t bits : {129u, 0xfffffff9u, 0xffffffffu}) {
        EXPECT_EQ(feed(xvc, "shift:" + le(bits)), Verdict::malformed) << bits;
        EXPECT_EQ(xvc.error(),
                  "shift of " + std::to_string(bits) + " bits: longer than the 16-byte maximum vector");
        xvc.begin();
    }
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_THAT(out, IsEmpty());
}

TEST_F(Xvc, UnknownCommandsAreMalformedAtTheFirstByteThatFitsNone) {
    const struct {
        std::string bytes;
        const char* error;
    } cases[] = {
        {"x", "unknown XVC command 'x'"},
        {"getinfo;", "unknown XVC command 'getinfo;'"},
        {"GETINFO:", "unknown XVC command 'G'"},
        {"shifty", "unknown XVC command 'shifty'"},
        {"settck\n", "unknown XVC command 'settck\\x0a'"},
        {"\x00getinfo:"s, "unknown XVC command '\\x00'"},
        {"getinfo:getinfo:se\xff", "unknown XVC command 'se\\xff'"},
    };
    for (const auto& c : cases) {
        out.clear();
        xvc.begin();
        EXPECT_EQ(feed(xvc, c.bytes), Verdict::malformed) << c.error;
        EXPECT_EQ(xvc.error(), c.error);
    }
    EXPECT_EQ(answers(), std::string(kInfo16) + kInfo16);  // the last case's two getinfo
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(Xvc, SettckAnswersTheMeasuredPeriodNotTheRequest) {
    ASSERT_EQ(feed(xvc, "settck:" + le(0)), Verdict::more);
    ASSERT_EQ(out.size(), 4u);
    uint32_t period = leAt(answers(), 0);
    EXPECT_GT(period, 0u);
    EXPECT_EQ(xvc.period(), period);
    // Before any shift, the accesses of a cycle are timed with TCK held low.
    std::vector<std::string> round{"tckIs 0", "tmsIs 0", "tdiIs 0", "tckIs 0", "tmsIs 1", "tdiIs 1", "tdo"};
    std::vector<std::string> expected{"shift 0"};
    for (int i = 0; i < 32; ++i) expected.insert(expected.end(), round.begin(), round.end());
    EXPECT_EQ(calls, expected);

    // A full-speed shift measures anew; the next settck times nothing.
    clear();
    feed(xvc, "shift:" + le(64) + std::string(16, '\0') + "settck:" + le(0));
    EXPECT_THAT(calls, ElementsAre("shift 64 tms 0000000000000000 tdi 0000000000000000 tdo"));
    EXPECT_GT(leAt(answers(), 8), 0u);
}

// A slower clock is the interface's to hold on every edge (the vector
// path's ceiling, checked on the simulated board by timing_test.sh): settck
// sets it and answers it; the shift itself is the usual one call.
TEST_F(Xvc, ASlowerClockIsHeldOnEveryEdgeByTheInterface) {
    constexpr uint32_t kPeriod = 200000;  // 200 us
    ASSERT_EQ(feed(xvc, "settck:" + le(kPeriod)), Verdict::more);
    ASSERT_EQ(answers(), le(kPeriod));
    EXPECT_EQ(intf.vectorControl().halfPeriodNs, kPeriod / 2);
    calls.clear();
    ASSERT_EQ(feed(xvc, "shift:" + le(3) + "\xfd\x0b"), Verdict::more);  // TMS 1 0 1, TDI 1 1 0
    EXPECT_THAT(calls, ElementsAre("shift 3 tms fd tdi 0b tdo"));
    EXPECT_EQ(xvc.cycles(), 3u);

    // The slowest clock it makes is 1 kHz; a new client starts at full speed.
    out.clear();
    feed(xvc, "settck:" + le(0xffffffff));
    EXPECT_EQ(answers(), le(serve::Xvc::kSlowestPeriodNs));
    EXPECT_EQ(intf.vectorControl().halfPeriodNs, serve::Xvc::kSlowestPeriodNs / 2);
    xvc.begin();
    EXPECT_EQ(xvc.period(), 0u);
    EXPECT_EQ(intf.vectorControl().halfPeriodNs, 0u);

    // Under the server's own ceiling (10 us), no faster clock is answered or made.
    serve::Xvc capped(&intf, 16, nullptr, 10000);
    capped.begin();
    EXPECT_EQ(intf.vectorControl().halfPeriodNs, 5000u);
    out.clear();
    feed(capped, "settck:" + le(100) + "settck:" + le(40000));
    EXPECT_EQ(answers(), le(10000) + le(40000));
    EXPECT_EQ(intf.vectorControl().halfPeriodNs, 20000u);
}

TEST_F(Xvc, AStopSignalEndsAPacedShiftBetweenPiecesAndTheFeed) {
    volatile std::sig_atomic_t stop = 0;
    serve::Xvc stoppable(&intf, 1024, &stop);
    stoppable.begin();
    feed(stoppable, "settck:" + le(100000));
    clear();
    intf.onShift = [&] { stop = 1; };
    // 8192 bits go in pieces of 1024; the stop comes during the first.
    EXPECT_EQ(feed(stoppable, "shift:" + le(8192) + std::string(2048, '\0') + "getinfo:"), Verdict::more);
    EXPECT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].substr(0, 10), "shift 1024");
    EXPECT_EQ(out.size(), 1024u);  // the answer's room, and no getinfo answer
}

}  // namespace
