#include "sim/Wiring.h"

namespace sim {

namespace {

constexpr U32 R = PlxPex8700Model::kRelocated;
constexpr U32 P2 = PericomGen3Model::kSecondBlock;

struct Entry {
    std::vector<const char*> names;
    Wiring wiring;
};

// TCK, TDI, TMS, TDO, then the pins that must be driven (pin, level).
const std::vector<Entry>& table() {
    static const std::vector<Entry> t = {
        // AMD SB820 GPIO numbers.
        {{"fodak", "komefi"}, {Chip::sb820, 189, 171, 49, 61, {{60, 1}, {41, 0}, {50, 0}}}},

        // The SoC's own GPIO, in board GPIO numbers (resolved to pads per SoC).
        {{"fodak", "komefi", "nodun", "tibekscd"}, {Chip::fchGpio, 168, 57, 49, 61, {{60, 1}, {32, 0}, {50, 0}}}},
        {{"komipe_scd"}, {Chip::fchGpio, 168, 57, 49, 61, {{60, 0}, {32, 0}, {50, 0}}}},
        {{"pabev_standby"}, {Chip::fchGpio, 56, 174, 62, 64, {{50, 0}}}},
        {{"pabev_misc"}, {Chip::fchGpio, 58, 57, 49, 61, {{70, 0}}}},
        {{"vadekuScd", "mafulScd"}, {Chip::fchGpio, 64, 57, 51, 58, {}}},
        {{"dizufCpld"}, {Chip::fchGpio, 116, 64, 68, 65, {{69, 0}, {71, 1}}}},
        {{"debusScd"}, {Chip::fchGpio, 116, 64, 68, 65, {{69, 1}, {71, 0}}}},
        {{"dizufScd"}, {Chip::fchGpio, 116, 64, 68, 65, {{69, 0}, {71, 0}}}},
        {{"gogosScd"}, {Chip::fchGpio, 85, 72, 86, 84, {{91, 1}}}},
        {{"dubakScd", "vomesT4Scd", "zazaviScd", "mafavo2Scd", "fezubScd", "didonaScd", "fetupSwitchAux"},
         {Chip::fchGpio, 9, 70, 40, 20, {{23, 0}, {2, 0}}}},
        {{"fetupSwitchMain", "fetupSwitchScd", "fezubSwitchScd"}, {Chip::fchGpio, 9, 70, 40, 20, {{23, 0}, {2, 1}}}},
        {{"telubSwitchAux", "telubSwitchCpld", "mukomSwitchScd", "mukomSwitchAux", "padudSwitchCpld"},
         {Chip::fchGpio, 116, 115, 132, 131, {{38, 0}, {39, 0}}}},
        {{"tabukhcpuSwitchScd", "telubSwitchMain", "telubSwitchScd", "mukomSwitchCpld", "mukomSwitchMain",
          "padudSwitchScd", "mubarPlusScd"},
         {Chip::fchGpio, 116, 115, 132, 131, {{38, 0}, {39, 1}}}},
        {{"tumarScd"}, {Chip::fchGpio, 116, 115, 132, 131, {}}},
        {{"mupeneSwitchScd"}, {Chip::fchGpio, 116, 115, 132, 131, {{120, 0}, {121, 0}}}},
        {{"tabukccpuSwitchScd"}, {Chip::fchGpio, 116, 115, 132, 131, {{120, 0}, {121, 1}}}},
        {{"bamebVadekuScd", "mafulprimeScd"}, {Chip::fchGpio, 18, 16, 13, 17, {{24, 1}}}},
        {{"bugilSwitchScd"}, {Chip::fchGpio, 18, 16, 13, 17, {}}},

        // Cave Creek GPIO numbers.
        {{"zetizSwitchCpld"}, {Chip::caveCreek, 12, 44, 45, 22, {{15, 1}, {24, 1}}}},
        {{"zetizSwitchScd"}, {Chip::caveCreek, 12, 44, 45, 22, {{15, 1}, {24, 0}}}},
        {{"bevibLineScd"}, {Chip::caveCreek, 17, 14, 48, 27, {{39, 0}, {24, 1}}}},
        {{"mubarScd"}, {Chip::caveCreek, 17, 14, 15, 27, {{24, 0}}}},
        {{"posabuSwitchScd", "tomitShimScd"}, {Chip::caveCreek, 12, 44, 45, 3, {{48, 1}, {18, 0}}}},

        // Cedar Fork pads, by the offset of their DW0 register.
        {{"disalSwitchJtagMuxSel0False"},
         {Chip::cedarFork, 0xC50910, 0xC20AF0, 0xC50920, 0xC50930, {{0xC50940, kAnyLevel}, {0xC20B90, 0}}}},
        {{"disalSwitchJtagMuxSel0True"},
         {Chip::cedarFork, 0xC50910, 0xC20AF0, 0xC50920, 0xC50930, {{0xC50940, kAnyLevel}, {0xC20B90, 1}}}},
        {{"kubezShimScd"},
         {Chip::cedarFork, 0xC20B40, 0xC20B20, 0xC20B50, 0xC20B60, {{0xC20B80, kAnyLevel}, {0xC508C0, 1}}}},

        // PEX 8600 GPIO numbers.
        {{"rotanMotub"}, {Chip::plxPex8600, 21, 18, 20, 19, {}}},
        {{"rotanSeret", "vopot"}, {Chip::plxPex8600, 15, 12, 14, 13, {{16, 0}}}},
        {{"rotanGuzik", "selek", "dimabuGen4Scd", "dimabuGen4LineScd", "lomipuScd", "mubarUplinkScd"},
         {Chip::plxPex8600, 9, 6, 8, 7, {}}},

        // PEX 8700 GPIO numbers (R: in the relocated register block).
        {{"gemufScd", "lomifScd", "zegomoScd"}, {Chip::plxPex8700, 7, 10, 8, 9, {{2, 0}, {6, 1}}}},
        {{"tilegScd", "nipigScd", "vebekScd"}, {Chip::plxPex8700, 9, 7, 8, 6, {{10, 1}}}},
        {{"nipig2Scd", "gurideScd"}, {Chip::plxPex8700, R | 9, R | 7, R | 8, R | 6, {{R | 10, 1}}}},
        {{"bakonScd", "memivScd"}, {Chip::plxPex8700, 6, 5, 2, 9, {}}},
        {{"mofidiPlusLcScd"}, {Chip::plxPex8700, 9, 6, 8, 7, {}}},
        {{"mubarplusUplinkScd"}, {Chip::plxPex8700, 7, 9, 8, 10, {}}},

        // Pericom Gen3 GPIO numbers (P2: in the second register block).
        {{"togif", "togif_scd"}, {Chip::pericomGen3, P2 | 0, P2 | 2, P2 | 1, P2 | 3, {}}},
        {{"togif_fan"}, {Chip::pericomGen3, 0, 2, 1, 3, {}}},

        // GbE SDP numbers.
        {{"penetScd", "ratumiScd"}, {Chip::intelGbe, 0, 1, 2, 3, {}}},
    };
    return t;
}

// SoC pad tables: board GPIO -> pad, IOMUX value of the pad's GPIO function.
using PadTable = std::map<U32, std::pair<U32, U8>>;

const PadTable kSteppeEaglePads = {
    {32, {0x59, 0}}, {49, {0x40, 2}}, {50, {0x41, 2}}, {51, {0x42, 2}},  {56, {0x54, 1}},  {57, {0x44, 1}},
    {58, {0x45, 1}}, {60, {0x5C, 3}}, {61, {0x73, 2}}, {62, {0x74, 2}},  {64, {0x47, 2}},  {65, {0x84, 1}},
    {68, {0x48, 0}}, {69, {0x49, 0}}, {70, {0x4C, 0}}, {71, {0x4D, 0}}, {168, {0x1B, 1}}, {174, {0x0A, 0}},
};

// The other 32-bit SoCs number their GPIOs by pad.
PadTable byPad(std::initializer_list<std::pair<U32, U8>> functions) {
    PadTable t;
    for (auto& f : functions) t[f.first] = {f.first, f.second};
    return t;
}

const PadTable kR1000Pads = byPad({{2, 1},   {9, 2},   {13, 1},  {16, 1},  {17, 1},  {18, 1},
                                   {20, 0},  {24, 1},  {32, 2},  {39, 0},  {40, 0},  {68, 0},
                                   {84, 1},  {85, 1},  {86, 1},  {91, 1},  {115, 1}, {116, 1},
                                   {120, 1}, {121, 1}, {131, 3}, {132, 2}});
const PadTable kV3000Pads = byPad({{2, 1},  {9, 0},  {16, 0},  {18, 0},   {20, 1},   {23, 1},  {32, 0},  {38, 1},
                                   {39, 1}, {40, 1}, {70, 1},  {91, 2},   {115, 1},  {116, 1}, {131, 3}, {132, 3}});
const PadTable kBoardSpecificPads = byPad({{2, 1},  {9, 0},  {20, 2},  {23, 0},  {24, 1},  {40, 0},
                                          {64, 0}, {65, 0}, {68, 0},  {69, 0},  {70, 0},  {71, 0},
                                          {72, 0}, {84, 1}, {85, 1},  {86, 1},  {91, 1},  {116, 1}});

}  // namespace

const char* chipName(Chip chip) {
    switch (chip) {
        case Chip::sb820: return "SB820";
        case Chip::fchGpio: return "FCH GPIO";
        case Chip::caveCreek: return "Cave Creek";
        case Chip::cedarFork: return "Cedar Fork";
        case Chip::plxPex8600: return "PEX 8600";
        case Chip::plxPex8700: return "PEX 8700";
        case Chip::pericomGen3: return "Pericom Gen3";
        case Chip::intelGbe: return "GbE";
    }
    return "?";
}

std::vector<Wiring> wiringsOf(const std::string& device) {
    std::vector<Wiring> out;
    for (const Entry& e : table())
        for (const char* n : e.names)
            if (device == n) out.push_back(e.wiring);
    return out;
}

FchPads fchPadsOf(unsigned family, unsigned model) {
    FchPads p;
    p.known = true;
    if (family == 0x16 && model <= 0x0F)
        p.layout = FchLayout::kabini;
    else if (family == 0x16 && model >= 0x30 && model <= 0x3F)
        p.layout = FchLayout::steppeEagle, p.pads = kSteppeEaglePads;
    else if ((family == 0x15 && model >= 0x60 && model <= 0xFF) || (family == 0x17 && model == 0x01))
        p.pads = kBoardSpecificPads;
    else if (family == 0x17 && model >= 0x10 && model <= 0x2F)
        p.pads = kR1000Pads;
    else if (family == 0x19 && model == 0x44)
        p.pads = kV3000Pads;
    else
        p.known = false;
    return p;
}

std::map<U32, U8> gpioFunctions(const FchPads& pads) {
    std::map<U32, U8> f;
    for (auto& p : pads.pads) f[p.second.first] = p.second.second;
    return f;
}

bool resolveFch(Wiring& w, const FchPads& pads) {
    if (!pads.known) return false;
    if (pads.layout == FchLayout::kabini) return true;
    auto pad = [&](U32& pin) {
        auto it = pads.pads.find(pin);
        if (it == pads.pads.end()) return false;
        pin = it->second.first;
        return true;
    };
    bool ok = pad(w.tck) && pad(w.tdi) && pad(w.tms) && pad(w.tdo);
    for (RoutePin& r : w.route) ok = ok && pad(r.pin);
    return ok;
}

}  // namespace sim
