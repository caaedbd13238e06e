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
#include <set>

#include "sim/Board.h"
#include "sim/Scan.h"

namespace {

struct Case {
    const char* device;
    const char* platform;  // "" for none
    unsigned family, model;
    const char* window;  // the window the chain hangs behind
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.device << " on " << (*c.platform ? c.platform : "-"); }

constexpr const char* kSb820 = "theSb820Ham";
constexpr const char* kSoc = "gpioWindow";

const Case kCases[] = {
    // "fodak" and "komefi": the SB820 outside gozip and bupul, the SoC's GPIO there.
    {"fodak", "mosavo", 0x16, 0x30, kSb820},
    {"komefi", "", 0x16, 0x30, kSb820},
    {"fodak", "gozip", 0x16, 0x05, kSoc},
    {"komefi", "gozip", 0x16, 0x30, kSoc},
    // The SoC's GPIO: Kabini and Steppe Eagle numbering.
    {"nodun", "gozip", 0x16, 0x05, kSoc},
    {"tibekscd", "gozip", 0x16, 0x30, kSoc},
    {"komipe_scd", "gozip", 0x16, 0x0f, kSoc},
    {"pabev_standby", "gozip", 0x16, 0x30, kSoc},
    {"pabev_misc", "bupul", 0x16, 0x05, kSoc},
    {"vadekuScd", "vadeku", 0x16, 0x30, kSoc},
    {"mafulScd", "maful", 0x16, 0x00, kSoc},
    // The board-specific SoC.
    {"debusScd", "mosavo", 0x15, 0x60, kSoc},
    {"dizufScd", "mosavo", 0x17, 0x01, kSoc},
    {"gogosScd", "gogos", 0x15, 0x65, kSoc},
    {"dubakScd", "fezub", 0x17, 0x01, kSoc},
    {"vomesT4Scd", "goneg", 0x17, 0x01, kSoc},
    {"zazaviScd", "fezub", 0x15, 0xff, kSoc},
    {"mafavo2Scd", "fezub", 0x17, 0x01, kSoc},
    {"fezubScd", "fezub", 0x15, 0x70, kSoc},
    {"didonaScd", "goneg", 0x15, 0x60, kSoc},
    {"fetupSwitchAux", "fetup", 0x17, 0x01, kSoc},
    {"fetupSwitchMain", "fetup", 0x17, 0x01, kSoc},
    {"fetupSwitchScd", "fetup", 0x15, 0x60, kSoc},
    {"fezubSwitchScd", "fezub", 0x17, 0x01, kSoc},
    // V3000.
    {"telubSwitchAux", "telub", 0x19, 0x44, kSoc},
    {"mukomSwitchScd", "mukom", 0x19, 0x44, kSoc},
    {"padudSwitchCpld", "padud", 0x19, 0x44, kSoc},
    {"tabukhcpuSwitchScd", "tabukhcpu", 0x19, 0x44, kSoc},
    {"telubSwitchMain", "telub", 0x19, 0x44, kSoc},
    {"telubSwitchScd", "telub", 0x19, 0x44, kSoc},
    {"mukomSwitchCpld", "mukom", 0x19, 0x44, kSoc},
    {"padudSwitchScd", "padud", 0x19, 0x44, kSoc},
    {"mubarPlusScd", "mubarplus", 0x19, 0x44, kSoc},
    {"tumarScd", "telub", 0x19, 0x44, kSoc},  // "tumar" is not among the SoC factory's platforms
    // R1000.
    {"mupeneSwitchScd", "mupene", 0x17, 0x18, kSoc},
    {"tabukccpuSwitchScd", "tabukccpu", 0x17, 0x10, kSoc},
    {"bamebVadekuScd", "bameb", 0x17, 0x18, kSoc},
    {"mafulprimeScd", "mafulprime", 0x17, 0x2f, kSoc},
    {"bugilSwitchScd", "bugil", 0x17, 0x18, kSoc},
    // Cave Creek.
    {"zetizSwitchCpld", "", 0x6, 0x4d, "theCaveCreekPCHIOHam"},
    {"zetizSwitchScd", "", 0x6, 0x4d, "theCaveCreekPCHIOHam"},
    {"bevibLineScd", "", 0x6, 0x4d, "theCaveCreekPCHIOHam"},
    {"mubarScd", "", 0x6, 0x4d, "theCaveCreekPCHIOHam"},
    {"posabuSwitchScd", "", 0x6, 0x4d, "theCaveCreekPCHIOHam"},
    {"tomitShimScd", "", 0x6, 0x4d, "theCaveCreekPCHIOHam"},
    // Cedar Fork.
    {"disalSwitchJtagMuxSel0False", "disal", 0x6, 0x5f, "CedarForkGpioHam"},
    {"disalSwitchJtagMuxSel0True", "disal", 0x6, 0x5f, "CedarForkGpioHam"},
    {"kubezShimScd", "kubez", 0x6, 0x5f, "CedarForkGpioHam"},
    // PEX 8600.
    {"rotanMotub", "", 0x16, 0x30, "theJamHam"},
    {"rotanSeret", "", 0x16, 0x30, "theJamHam"},
    {"vopot", "", 0x16, 0x30, "theJamHam"},
    {"rotanGuzik", "", 0x16, 0x30, "theJamHam"},
    {"selek", "", 0x16, 0x30, "theJamHam"},
    {"dimabuGen4Scd", "", 0x16, 0x30, "theJamHam"},
    {"dimabuGen4LineScd", "", 0x16, 0x30, "theJamHam"},
    {"lomipuScd", "", 0x16, 0x30, "theJamHam"},
    {"mubarUplinkScd", "", 0x16, 0x30, "theJamHam"},
    // PEX 8700.
    {"gemufScd", "", 0x16, 0x30, "PlxPex8700Ham"},
    {"lomifScd", "", 0x16, 0x30, "PlxPex8700Ham"},
    {"zegomoScd", "", 0x16, 0x30, "PlxPex8700Ham"},
    {"tilegScd", "", 0x16, 0x30, "PlxPex8700Ham"},
    {"nipigScd", "", 0x16, 0x30, "PlxPex8700Ham"},
    {"vebekScd", "", 0x16, 0x30, "PlxPex8700Ham"},
    {"nipig2Scd", "", 0x16, 0x30, "PlxPex8700Ham"},
    {"gurideScd", "", 0x16, 0x30, "PlxPex8700Ham"},
    {"bakonScd", "", 0x16, 0x30, "PlxPex8700Ham"},
    {"memivScd", "", 0x16, 0x30, "PlxPex8700Ham"},
    {"mofidiPlusLcScd", "", 0x16, 0x30, "PlxPex8700Ham"},
    {"mubarplusUplinkScd", "", 0x16, 0x30, "PlxPex8700Ham"},
    // The GbE controller's SDPs.
    {"penetScd", "", 0x16, 0x30, "0_2_0_jtag"},
    {"ratumiScd", "", 0x16, 0x30, "0_2_0_jtag"},
    // Pericom Gen3.
    {"togif", "", 0x16, 0x30, "PericomGen3Ham"},
    {"togif_scd", "", 0x16, 0x30, "PericomGen3Ham"},
    {"togif_fan", "", 0x16, 0x30, "PericomGen3Ham"},
};

const std::vector<sim::DeviceDesc> kChain{{0x12345679, 5}, {0x0abcdef1, 7}, {0x2468ace1, 10}};
const char kIdcodes[] = "0x12345679\n0x0abcdef1\n0x2468ace1\n";

// The child: scans on its own board, reports on stderr, ends with the scan's status.
[[noreturn]] void scanOnBoard(const Case& c, std::function<void(sim::Wiring&)> rewire) {
    if (!std::freopen("/dev/null", "w", stdout)) std::_Exit(99);  // the backends' own lines
    sim::BoardConfig config;
    config.platform = c.platform;
    config.family = c.family;
    config.model = c.model;
    config.chain = kChain;
    config.device = c.device;
    config.rewire = std::move(rewire);
    auto* board = new sim::Board(config);  // lives until the process ends, like the interfaces
    board->install();
    int status = sim::scan(c.device, "0000:02:00.0", stderr);
    std::fprintf(stderr, "%s: %s\n", board->wiredChip() ? board->wiredChip()->window().c_str() : "unwired",
                 board->pins().c_str());
    std::exit(status);
}

class SimScan : public ::testing::TestWithParam<Case> {};

}  // namespace

TEST_P(SimScan, ReadsTheChainThroughTheProductionCode) {
    const Case& c = GetParam();
    EXPECT_EXIT(scanOnBoard(c, nullptr), ::testing::ExitedWithCode(0),
                std::string("^") + kIdcodes + c.window + ": TCK=z TDI=z TMS=z TDO=[01]( [^=]+=[01z])*\n$");
}

TEST_P(SimScan, FindsNoChainWithTckAndTmsSwapped) {
    const Case& c = GetParam();
    EXPECT_EXIT(scanOnBoard(c, [](sim::Wiring& w) { std::swap(w.tck, w.tms); }), ::testing::ExitedWithCode(1),
                std::string("^kelvorn-sim: no device answers on ") + c.device + "\n");
}

INSTANTIATE_TEST_SUITE_P(EveryName, SimScan, ::testing::ValuesIn(kCases));

TEST(SimScanCases, CoverEveryAcceptedName) {
    std::set<std::string> names;
    for (const Case& c : kCases) names.insert(c.device);
    EXPECT_EQ(names.size(), 72u);
    EXPECT_EQ(sizeof kCases / sizeof kCases[0], 74u);
}
