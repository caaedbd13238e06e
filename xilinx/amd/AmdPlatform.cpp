#include "xilinx/amd/AmdPlatform.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "os/Os.h"
#include "xilinx/amd/AmdGpio.h"

namespace {

// The platforms in the order they are tested; the first match decides.
// "mafulprime" comes before "maful" because the test is a substring match.
// A class is one bit so that a pin table row can allow several classes.
struct Platform {
    const char* name;
    int platformClass;
};

// What the register window is onto, for a provider that stands in for it (HamDesc::tag).
constexpr char kWindowTag[] = "fch-gpio";

constexpr Platform kPlatforms[] = {
    {"gozip",      0x01},
    {"lubug",      0x02},
    {"bupul",      0x04},
    {"pizagu",     0x08},
    {"mosavo",     0x10},
    {"fezub",      0x20},
    {"goneg",      0x20},
    {"fetup",      0x20},
    {"vadeku",     0x02},
    {"gogos",      0x10},
    {"mafulprime", 0x04},
    {"maful",      0x02},
    {"sozemo",     0x02},
    {"nusak",      0x01},
    {"mupene",     0x02},
    {"bameb",      0x04},
    {"bugil",      0x04},
    {"telub",      0x01},
    {"mukom",      0x01},
    {"tabukhcpu",  0x01},
    {"padud",      0x01},
    {"tumar",      0x01},
    {"tabukccpu",  0x02},
    {"mubarplus",  0x01},
};

// The SoC kinds by CPUID family and model range (both included), with the
// length of their FCH register window.
struct Soc {
    int family;
    int firstModel, lastModel;
    amd::SocKind kind;
    U32 windowLength;
};
constexpr Soc kSocs[] = {
    {0x16, 0x00, 0x0F, amd::SocKind::kabini, 0x1000},
    {0x16, 0x30, 0x3F, amd::SocKind::steppeEagle, 0x2000},
    {0x15, 0x60, 0xFF, amd::SocKind::mosavo, 0x2000},
    {0x17, 0x01, 0x01, amd::SocKind::mosavo, 0x2000},
    {0x17, 0x10, 0x2F, amd::SocKind::r1000, 0x2000},
    {0x19, 0x44, 0x44, amd::SocKind::v3000, 0x2000},
};

// The fusion controller hub's memory-mapped registers.
constexpr U32 kFchBase = 0xFED80000;
constexpr const char* kDevMem = "/dev/mem";

// CPUID leaf 1 EAX.
constexpr U32 kExtendedFamilyShift = 20;  // bits 27:20
constexpr U32 kExtendedModelShift = 16;   // bits 19:16
constexpr U32 kBaseFamilyShift = 8;       // bits 11:8
constexpr U32 kBaseModelShift = 4;        // bits 7:4
constexpr int kExtendedFamilies = 0xF;    // base family that has an extended family

constexpr char kUnsupportedSoc[] = "Unsupported family %d model %d\n";

int platformClass;

// The SoC of this processor, or the end of the process.
const Soc& identifySoc() {
    if (Os::cpuid(0).eax == 0) amd::fatal(kUnsupportedSoc, 0, 0);  // no standard leaves
    U32 eax = Os::cpuid(1).eax;
    int family = static_cast<int>((eax >> kBaseFamilyShift) & 0xF);
    int model = static_cast<int>((eax >> kBaseModelShift) & 0xF);
    if (family != kExtendedFamilies) amd::fatal(kUnsupportedSoc, family, model);
    family += static_cast<int>((eax >> kExtendedFamilyShift) & 0xFF);
    model += static_cast<int>(((eax >> kExtendedModelShift) & 0xF) << 4);
    for (const Soc& soc : kSocs)
        if (soc.family == family && soc.firstModel <= model && model <= soc.lastModel) return soc;
    amd::fatal(kUnsupportedSoc, family, model);
}

// Maps the window read-write and shared; the descriptor and the mapping
// stay until the process ends. A /dev/mem that is a file too short for the
// window is refused before anything is mapped: its pages past the end
// would kill the process at the first access.
volatile U8* mapDevMem(const HamDesc& desc) {
    int fd = Os::open(kDevMem, O_RDWR);
    if (fd < 0) amd::fatal("Could not open gpio device, errno %d", errno);
    long long bytes = Os::fileSize(fd);
    if (bytes >= 0 && static_cast<U64>(bytes) < U64(desc.base) + desc.size)
        hamTooSmall(desc, U64(desc.base) + desc.size, static_cast<U64>(bytes));
    void* p = Os::mmap(nullptr, desc.size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, desc.base);
    if (p == MAP_FAILED) amd::fatal("Could not mmap gpio device, errno %d", errno);
    return static_cast<volatile U8*>(p);
}

}  // namespace

namespace amd {

void fatal(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
    Os::exit(1);
}

bool isPlatform(const char* name) {
    char command[256];
    std::snprintf(command, sizeof command, "fgrep -q 'platform=%s' /proc/cmdline", name);
    return Os::system(command) == 0;
}

int validatePlatform() {
    if (platformClass) return platformClass;
    for (const Platform& p : kPlatforms) {
        if (isPlatform(p.name)) {
            platformClass = p.platformClass;
            break;
        }
    }
    if (!platformClass) fatal("Unsupported platform\n");

    const Soc& soc = identifySoc();
    // A provider (a test, the board simulator) may stand in for the window;
    // then every access goes through it, otherwise straight to the mapping.
    HamDesc desc;
    desc.name = "gpioWindow";
    desc.type = HamType::mappedFile;
    desc.base = kFchBase;
    desc.size = soc.windowLength;
    desc.fileName = kDevMem;
    desc.tag = kWindowTag;
    if (Ptr<HamImpl> substitute = Ham::provided(desc))
        useSoc(soc.kind, nullptr, substitute);
    else
        useSoc(soc.kind, mapDevMem(desc), nullptr);
    return platformClass;
}

void resetForTests() {
    platformClass = 0;
    useSoc(SocKind::none, nullptr, nullptr);
}

}  // namespace amd
