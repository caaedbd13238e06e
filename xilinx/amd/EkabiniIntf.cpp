#include "xilinx/amd/EkabiniIntf.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "os/Os.h"
#include "xilinx/amd/AmdGpio.h"

namespace {

using AuxPin = EkabiniIntf::AuxPin;
using Wiring = EkabiniIntf::Wiring;

constexpr AuxPin kNone{amd::kNoPin, false};
constexpr bool kHigh = true;
constexpr bool kLow = false;

// The devices whose JTAG port hangs off SoC GPIOs: TCK, TDI, TMS, TDO, then
// auxiliary pins 0 to 3 with the level select drives on them. Numbers are
// in the numbering of the board's SoC: the first five rows Kabini (Steppe
// Eagle boards map them through their table), the rows with TCK 116 and
// TDI 64, "gogosScd" and those with TCK 9 the mosavo boards, the rows with
// TCK 116 and TDI 115 V3000 (the "mupene" and "tabukccpu" ones R1000), the
// rows with TCK 18 R1000.
struct Device {
    const char* names[8];  // ends at the first null
    Wiring wiring;
};
constexpr Device kDevices[] = {
    {{"fodak", "komefi", "nodun", "tibekscd"}, {168, 57, 49, 61, {kNone, {60, kHigh}, {32, kLow}, {50, kLow}}}},
    {{"komipe_scd"}, {168, 57, 49, 61, {kNone, {60, kLow}, {32, kLow}, {50, kLow}}}},
    {{"pabev_standby"}, {56, 174, 62, 64, {{50, kLow}, kNone, kNone, kNone}}},
    {{"pabev_misc"}, {58, 57, 49, 61, {{70, kLow}, kNone, kNone, kNone}}},
    {{"vadekuScd", "mafulScd"}, {64, 57, 51, 58, {kNone, kNone, kNone, kNone}}},
    {{"dizufCpld"}, {116, 64, 68, 65, {{69, kLow}, {71, kHigh}, kNone, kNone}}},
    {{"debusScd"}, {116, 64, 68, 65, {{69, kHigh}, {71, kLow}, kNone, kNone}}},
    {{"dizufScd"}, {116, 64, 68, 65, {{69, kLow}, {71, kLow}, kNone, kNone}}},
    {{"gogosScd"}, {85, 72, 86, 84, {kNone, {91, kHigh}, kNone, kNone}}},
    {{"dubakScd", "vomesT4Scd", "zazaviScd", "mafavo2Scd", "fezubScd", "didonaScd", "fetupSwitchAux"},
     {9, 70, 40, 20, {{23, kLow}, {2, kLow}, kNone, kNone}}},
    {{"fetupSwitchMain", "fetupSwitchScd", "fezubSwitchScd"}, {9, 70, 40, 20, {{23, kLow}, {2, kHigh}, kNone, kNone}}},
    {{"telubSwitchAux", "telubSwitchCpld", "mukomSwitchScd", "mukomSwitchAux", "padudSwitchCpld"},
     {116, 115, 132, 131, {{38, kLow}, {39, kLow}, kNone, kNone}}},
    {{"tabukhcpuSwitchScd", "telubSwitchMain", "telubSwitchScd", "mukomSwitchCpld", "mukomSwitchMain",
      "padudSwitchScd", "mubarPlusScd"},
     {116, 115, 132, 131, {{38, kLow}, {39, kHigh}, kNone, kNone}}},
    {{"tumarScd"}, {116, 115, 132, 131, {kNone, kNone, kNone, kNone}}},
    {{"mupeneSwitchScd"}, {116, 115, 132, 131, {{120, kLow}, {121, kLow}, kNone, kNone}}},
    {{"tabukccpuSwitchScd"}, {116, 115, 132, 131, {{120, kLow}, {121, kHigh}, kNone, kNone}}},
    {{"bamebVadekuScd", "mafulprimeScd"}, {18, 16, 13, 17, {kNone, {24, kHigh}, kNone, kNone}}},
    {{"bugilSwitchScd"}, {18, 16, 13, 17, {kNone, kNone, kNone, kNone}}},
};

// The names the factory takes. select also knows "dizufCpld",
// "telubSwitchCpld", "mukomSwitchAux" and "mukomSwitchMain", for an
// interface obtained under another name.
constexpr const char* kManagedNames[] = {
    "fodak",           "komefi",          "nodun",           "komipe_scd",      "pabev_standby",
    "pabev_misc",      "tibekscd",        "dizufScd",        "fezubScd",        "debusScd",
    "vadekuScd",       "gogosScd",        "dubakScd",        "mafulScd",        "vomesT4Scd",
    "zazaviScd",       "mafavo2Scd",      "bamebVadekuScd",  "mupeneSwitchScd", "didonaScd",
    "mafulprimeScd",   "bugilSwitchScd",  "fezubSwitchScd",  "mukomSwitchScd",  "mukomSwitchCpld",
    "fetupSwitchMain", "fetupSwitchAux",  "fetupSwitchScd",  "telubSwitchScd",  "telubSwitchMain",
    "telubSwitchAux",  "padudSwitchScd",  "padudSwitchCpld", "tabukccpuSwitchScd", "tabukhcpuSwitchScd",
    "mubarPlusScd",    "tumarScd",
};

// The boards whose devices this backend can serve.
constexpr char kServedPlatforms[] =
    "mosavo|gozip|bupul|vadeku|gogos|fezub|maful|bameb|mupene|goneg|fetup|mafulprime|bugil|telub|mukom|tabukccpu|"
    "tabukhcpu|padud|mubarplus";

// True when the kernel command line holds "platform=" followed by one of
// the alternatives (an extended regular expression; a substring match).
bool platformIsOneOf(const char* alternatives) {
    char command[256];
    std::snprintf(command, sizeof command, "/bin/grep -qE \"platform=(%s)\" /proc/cmdline", alternatives);
    return Os::system(command) == 0;
}

// A GPIO that the board's platform class allows, to make the first
// validation (platform and SoC detection, window mapping) happen at once.
U8 probePin() {
    if (platformIsOneOf("mosavo")) return 71;
    if (platformIsOneOf("gogos")) return 72;
    if (platformIsOneOf("vadeku|maful")) return platformIsOneOf("mafulprime") ? 2 : 51;  // the first matches mafulprime too
    if (platformIsOneOf("fezub|goneg|fetup|mupene|bameb|bugil|tabukccpu")) return 2;
    return 60;
}

const Wiring* wiringOf(const char* deviceName) {
    for (const Device& d : kDevices)
        for (const char* const* name = d.names; *name; ++name)
            if (std::strcmp(*name, deviceName) == 0) return &d.wiring;
    return nullptr;
}

}  // namespace

void EkabiniIntf::tdiIs(bool value) {
    vec_.valid = false;
    amd::setBitFn(wiring_.tdi, value);
}
void EkabiniIntf::tmsIs(bool value) {
    vec_.valid = false;
    amd::setBitFn(wiring_.tms, value);
}
void EkabiniIntf::tckIs(bool value) {
    vec_.valid = false;
    amd::setBitFn(wiring_.tck, value);
}
bool EkabiniIntf::tdo() { return amd::getBitFn(wiring_.tdo); }

void EkabiniIntf::eachDrivenPin(void (*operation)(U8 gpio)) const {
    operation(wiring_.tck);
    operation(wiring_.tdi);
    operation(wiring_.tms);
    for (const AuxPin& aux : wiring_.aux) operation(aux.gpio);
}

void EkabiniIntf::select(const char* deviceName) {
    const Wiring* wiring = wiringOf(deviceName);
    if (!wiring) xilUnknownDevice(deviceName);
    wiring_ = *wiring;  // nothing of an earlier selection carries over
    eachDrivenPin(amd::setOutputFn);
    amd::setInputFn(wiring_.tdo);
    amd::setBitFn(wiring_.tck, false);
    amd::setBitFn(wiring_.tdi, false);
    amd::setBitFn(wiring_.tms, false);
    for (const AuxPin& aux : wiring_.aux) amd::setBitFn(aux.gpio, aux.level);
    amd::vectorPinsOf(wiring_.tck, wiring_.tms, wiring_.tdi, wiring_.tdo, &vec_);
}

// The SoC kind's vector path (AmdGpio.cpp); before select, nothing.
void EkabiniIntf::shift(U32 nbits, const U8* tms, const U8* tdi, U8* tdoBits) {
    if (vec_.count == 0) return Hal::shiftNoPins(nbits, tdoBits);
    amd::shiftFn(vec_, vectorControl_, nbits, tms, tdi, tdoBits);
}

void EkabiniIntf::pinsIs(bool tck, bool tms, bool tdi) {
    if (vec_.count) amd::pinsFn(vec_, vectorControl_, tck, tms, tdi);
}

// TDO is an input already; the window stays mapped and the lock held.
void EkabiniIntf::cleanup(const char*) {
    eachDrivenPin(amd::setInputFn);
    vec_.valid = false;
}

void EkabiniIntf::warningIs(bool) {}

bool EkabiniGpioFactory::manages(const char* deviceName) {
    if (!platformIsOneOf(kServedPlatforms)) return false;
    for (const char* name : kManagedNames)
        if (std::strcmp(name, deviceName) == 0) return true;
    return false;
}

XilIntf* EkabiniGpioFactory::newXilIntf(U16, U16, U16 domain, U8 bus, U8 device, U8) {
    char lockName[256];
    xilLockName(lockName, domain, bus, device);
    // Owned here until the probe pin passes: a refusal that does not end
    // the process (the library's exit hook) must not keep the lock.
    std::unique_ptr<EkabiniIntf> intf(new EkabiniIntf(lockName));
    amd::validateGpio(probePin());
    return intf.release();
}

void EkabiniGpioFactory::servedNames(std::vector<XilServedName>* out) {
    static const std::string condition = std::string("kernel command line has platform=(") + kServedPlatforms + ")";
    for (const char* name : kManagedNames) out->push_back({name, "AMD embedded SoC GPIO (/dev/mem)", condition.c_str()});
}
