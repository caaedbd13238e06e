// Every device name a factory accepts, scanned through the production code
// on a board where its backend serves it: the chain's IDCODEs come back,
// on the chip the device is wired to, and cleanup leaves TCK, TDI and TMS
// undriven. The same scan with TCK and TMS swapped in the board's wiring
// finds no chain. Each scan runs in a child process of its own: the SoC
// backend detects the platform once per process and every interface holds
// its lock until the process ends. This process itself never installs a
// board, so every child starts clean.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "sim/Board.h"
#include "sim/Scan.h"

namespace {

// Names that share a board: platform ("" for none), processor and the window their chain hangs behind.
struct Group {
    const char* platform;
    unsigned family, model;
    const char* window;
    const char* devices;  // separated by spaces
};
struct Case {
    const Group* board;
    std::string device;
};

void PrintTo(const Case& c, std::ostream* os) {
    *os << c.device << " on " << (*c.board->platform ? c.board->platform : "-");
}

constexpr const char* kSb820 = "theSb820Ham";
constexpr const char* kSoc = "gpioWindow";

const Group kGroups[] = {
    // "fodak" and "komefi": the SB820 outside gozip and bupul, the SoC's GPIO there.
    {"mosavo", 0x16, 0x30, kSb820, "fodak"},
    {"", 0x16, 0x30, kSb820, "komefi"},
    {"gozip", 0x16, 0x05, kSoc, "fodak nodun"},  // Kabini numbering, then Steppe Eagle's
    {"gozip", 0x16, 0x30, kSoc, "komefi tibekscd pabev_standby"},
    {"gozip", 0x16, 0x0f, kSoc, "komipe_scd"},
    {"bupul", 0x16, 0x05, kSoc, "pabev_misc"},
    {"vadeku", 0x16, 0x30, kSoc, "vadekuScd"},
    {"maful", 0x16, 0x00, kSoc, "mafulScd"},
    // The board-specific SoC.
    {"mosavo", 0x15, 0x60, kSoc, "debusScd"},
    {"mosavo", 0x17, 0x01, kSoc, "dizufScd"},
    {"gogos", 0x15, 0x65, kSoc, "gogosScd"},
    {"fezub", 0x17, 0x01, kSoc, "dubakScd mafavo2Scd fezubSwitchScd"},
    {"fezub", 0x15, 0xff, kSoc, "zazaviScd"},
    {"fezub", 0x15, 0x70, kSoc, "fezubScd"},
    {"goneg", 0x17, 0x01, kSoc, "vomesT4Scd"},
    {"goneg", 0x15, 0x60, kSoc, "didonaScd"},
    {"fetup", 0x17, 0x01, kSoc, "fetupSwitchAux fetupSwitchMain"},
    {"fetup", 0x15, 0x60, kSoc, "fetupSwitchScd"},
    // V3000. "tumar" is not among the SoC factory's platforms.
    {"telub", 0x19, 0x44, kSoc, "telubSwitchAux telubSwitchMain telubSwitchScd tumarScd"},
    {"mukom", 0x19, 0x44, kSoc, "mukomSwitchScd mukomSwitchCpld"},
    {"padud", 0x19, 0x44, kSoc, "padudSwitchCpld padudSwitchScd"},
    {"tabukhcpu", 0x19, 0x44, kSoc, "tabukhcpuSwitchScd"},
    {"mubarplus", 0x19, 0x44, kSoc, "mubarPlusScd"},
    // R1000.
    {"mupene", 0x17, 0x18, kSoc, "mupeneSwitchScd"},
    {"tabukccpu", 0x17, 0x10, kSoc, "tabukccpuSwitchScd"},
    {"bameb", 0x17, 0x18, kSoc, "bamebVadekuScd"},
    {"mafulprime", 0x17, 0x2f, kSoc, "mafulprimeScd"},
    {"bugil", 0x17, 0x18, kSoc, "bugilSwitchScd"},
    {"", 0x6, 0x4d, "theCaveCreekPCHIOHam",
     "zetizSwitchCpld zetizSwitchScd bevibLineScd mubarScd posabuSwitchScd tomitShimScd"},
    {"disal", 0x6, 0x5f, "CedarForkGpioHam", "disalSwitchJtagMuxSel0False disalSwitchJtagMuxSel0True kubezShimScd"},
    {"", 0x16, 0x30, "theJamHam",
     "rotanMotub rotanSeret vopot rotanGuzik selek dimabuGen4Scd dimabuGen4LineScd lomipuScd mubarUplinkScd"},
    {"", 0x16, 0x30, "PlxPex8700Ham",
     "gemufScd lomifScd zegomoScd tilegScd nipigScd vebekScd nipig2Scd gurideScd bakonScd memivScd mofidiPlusLcScd "
     "mubarplusUplinkScd"},
    {"", 0x16, 0x30, "0_2_0_jtag", "penetScd ratumiScd"},  // the GbE controller's SDPs
    {"", 0x16, 0x30, "PericomGen3Ham", "togif togif_scd togif_fan"},
};

std::vector<Case> cases() {
    std::vector<Case> all;
    for (const Group& g : kGroups) {
        std::istringstream names(g.devices);
        for (std::string d; names >> d;) all.push_back({&g, d});
    }
    return all;
}

const std::vector<sim::DeviceDesc> kChain{{0x12345679, 5}, {0x0abcdef1, 7}, {0x2468ace1, 10}};
const char kIdcodes[] = "0x12345679\n0x0abcdef1\n0x2468ace1\n";

// The child: scans on its own board, reports on stderr, ends with the scan's status.
[[noreturn]] void scanOnBoard(const Case& c, std::function<void(sim::Wiring&)> rewire) {
    if (!std::freopen("/dev/null", "w", stdout)) std::_Exit(99);  // the backends' own lines
    sim::BoardConfig config;
    config.platform = c.board->platform;
    config.family = c.board->family;
    config.model = c.board->model;
    config.chain = kChain;
    config.device = c.device;
    config.rewire = std::move(rewire);
    auto* board = new sim::Board(config);  // lives until the process ends, like the interfaces
    board->install();
    int status = sim::scan(c.device.c_str(), "0000:02:00.0", stderr);
    std::fprintf(stderr, "%s: %s\n", board->wiredChip() ? board->wiredChip()->window().c_str() : "unwired",
                 board->pins().c_str());
    std::exit(status);
}

class SimScan : public ::testing::TestWithParam<Case> {};

}  // namespace

TEST_P(SimScan, ReadsTheChainThroughTheProductionCode) {
    const Case& c = GetParam();
    EXPECT_EXIT(scanOnBoard(c, nullptr), ::testing::ExitedWithCode(0),
                std::string("^") + kIdcodes + c.board->window + ": TCK=z TDI=z TMS=z TDO=[01]( [^=]+=[01z])*\n$");
}

TEST_P(SimScan, FindsNoChainWithTckAndTmsSwapped) {
    const Case& c = GetParam();
    EXPECT_EXIT(scanOnBoard(c, [](sim::Wiring& w) { std::swap(w.tck, w.tms); }), ::testing::ExitedWithCode(sim::kScanNoDevice),
                std::string("^kelvorn-sim: no device answers on ") + c.device + "\n");
}

INSTANTIATE_TEST_SUITE_P(EveryName, SimScan, ::testing::ValuesIn(cases()));
