#include "sim/Board.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "os/FakeShell.h"
#include "os/Os.h"
#include "os/SignalGate.h"

namespace sim {

namespace {

// The physical bases of the two /dev/mem windows.
constexpr U32 kFchGpioBase = 0xFED80000;
constexpr U32 kCedarForkBase = 0xfd000000;
constexpr U32 kGbeWindowSize = 0x100000;
constexpr U32 kCaveCreekConfigOffset = 0x48;

// The installed board, finished at exit() when it is still there.
Board*& installedBoard() {
    static Board* board = nullptr;
    return board;
}

void finishInstalled() {
    if (Board* b = installedBoard()) b->finish();
}

// The signals that end a run from a terminal or a supervisor. The records
// of a run (VCD, memory, stats) are written when one of them ends it too:
// after the tool's own clean-up of the pins, which hands the signal on to
// this handler, so the clean-up is in the VCD.
using Os::kEndingSignals;
constexpr size_t kEndingCount = Os::kEndingSignalCount;
struct sigaction beforeBoard[kEndingCount];
bool handledByBoard[kEndingCount];

void finishOnSignal(int sig) {
    if (Os::deferSignal(sig)) return;  // raised again between two register accesses
    finishInstalled();
    struct sigaction dfl = {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    sigaction(sig, &dfl, nullptr);
    raise(sig);  // the end of the process by it, once this handler returns
}

void handleEndingSignals() {
    struct sigaction act = {};
    act.sa_handler = finishOnSignal;
    sigemptyset(&act.sa_mask);
    for (int sig : kEndingSignals) sigaddset(&act.sa_mask, sig);
    for (size_t i = 0; i < kEndingCount; ++i) {
        sigaction(kEndingSignals[i], nullptr, &beforeBoard[i]);
        // A signal the process was started to ignore (nohup) stays ignored.
        handledByBoard[i] = beforeBoard[i].sa_handler != SIG_IGN;
        if (handledByBoard[i]) sigaction(kEndingSignals[i], &act, nullptr);
    }
}

void restoreEndingSignals() {
    for (size_t i = 0; i < kEndingCount; ++i)
        if (handledByBoard[i]) sigaction(kEndingSignals[i], &beforeBoard[i], nullptr);
    std::fill(std::begin(handledByBoard), std::end(handledByBoard), false);
}

// Lock files are nameless files in the temporary directory, so nothing is
// left behind however the process ends, a signal included. The board keeps
// each one open; every lock of that name in this process opens it afresh,
// a file description of its own, so flock refuses a second one as it would
// on the real file, and closing one leaves the file there for the next.
int createLock(std::map<std::string, int>& locks, const char* path, mode_t mode) {
    const char* slash = std::strrchr(path, '/');
    std::string name = slash ? slash + 1 : path;
    auto it = locks.find(name);
    if (it == locks.end()) {
        const char* tmp = std::getenv("TMPDIR");
        int fd = ::open(tmp && *tmp ? tmp : "/tmp", O_TMPFILE | O_WRONLY, mode);
        if (fd < 0) return fd;
        it = locks.emplace(name, fd).first;
    }
    return ::open(("/proc/self/fd/" + std::to_string(it->second)).c_str(), O_RDONLY);
}

U32 vendorWord(const char* four) {
    U32 v;
    std::memcpy(&v, four, 4);
    return v;
}

// CPUID as a processor of this family and model reports it: AMD style
// (base family 0xF plus an extended family) from family 0xF on, Intel
// style (the family in the base field) below.
Os::Cpuid cpuidOf(unsigned family, unsigned model, U32 leaf) {
    Os::Cpuid r;
    bool amd = family >= 0xF;
    if (leaf == 0) {
        r.eax = 0xD;
        r.ebx = vendorWord(amd ? "Auth" : "Genu");
        r.edx = vendorWord(amd ? "enti" : "ineI");
        r.ecx = vendorWord(amd ? "cAMD" : "ntel");
    } else if (leaf == 1) {
        unsigned base = amd ? 0xF : family, extended = amd ? family - 0xF : 0;
        r.eax = (extended & 0xFF) << 20 | ((model >> 4) & 0xF) << 16 | (base & 0xF) << 8 | (model & 0xF) << 4;
    }
    return r;
}

bool endsWith(const std::string& s, const char* tail) {
    size_t n = std::strlen(tail);
    return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

char stateChar(const ChipModel& chip, U32 pin) {
    Drive d = chip.drive(pin);
    return d.driven ? (d.level ? '1' : '0') : 'z';
}

}  // namespace

std::vector<DeviceDesc> defaultChain() { return {{0x0a5c7035, 8}, {0x1b4d2093, 6}}; }

Board::Board(BoardConfig config) : config_(std::move(config)), chain_(config_.chain) {
    chain_.pinsAre(config_.pins);
    chain_.wavesAre(config_.waves);
    chain_.wiresAre(config_.wires);
    std::memcpy(configSpace_ + kCaveCreekConfigOffset, &kCaveCreekGpioBaseRegister, 4);
}

Board::~Board() {
    finish();
    for (const auto& lock : locks_) ::close(lock.second);
    if (installedBoard() == this) {
        installedBoard() = nullptr;
        restoreEndingSignals();
    }
    Ham::providerIs({});
    Os::resetHooks();
}

std::string Board::cmdline() const {
    std::string c = "BOOT_IMAGE=/vmlinuz console=ttyS0,115200";
    if (!config_.platform.empty()) c += " platform=" + config_.platform;
    return c + " quiet";
}

void Board::install() {
    installedBoard() = this;
    static bool registered = false;
    if (!registered) registered = std::atexit(finishInstalled) == 0;
    handleEndingSignals();
    if (!config_.vcd.empty()) {
        if (FILE* f = std::fopen(config_.vcd.c_str(), "w")) {
            vcd_ = std::make_unique<VcdWriter>(f, config_.vcdRealTime ? "1 ns" : "1 us");
        } else {
            written_ = false;
            std::fprintf(stderr, "kelvorn-sim: cannot write %s: %s\n", config_.vcd.c_str(), std::strerror(errno));
        }
    }

    Os::Hooks& h = Os::hooks();
    std::string line = cmdline();
    h.system = [line](const char* command) { return Os::fakeCmdlineShell(command, line) << 8; };
    h.cpuid = [family = config_.family, model = config_.model](U32 leaf) { return cpuidOf(family, model, leaf); };
    h.open = [](const char* path, int) {
        std::fprintf(stderr, "kelvorn-sim: refused to open %s\n", path);
        errno = EACCES;
        return -1;
    };
    h.mmap = [](void*, size_t, int, int, int, off_t) -> void* {
        std::fprintf(stderr, "kelvorn-sim: refused to map memory\n");
        errno = EACCES;
        return MAP_FAILED;
    };
    h.pageSize = [] { return 4096L; };
    h.sleep = [hold = config_.holdSeconds](unsigned) { return hold ? ::sleep(hold) : 0u; };
    h.usleep = [](unsigned) { return 0; };
    h.creat = [this](const char* path, mode_t mode) { return createLock(locks_, path, mode); };
    h.fopen = [this](const char* path, const char* mode) { return openConfig(path, mode); };
    Ham::providerIs([this](const HamDesc& desc) { return Ptr<HamImpl>(modelFor(desc)); });
}

FILE* Board::openConfig(const char* path, const char* mode) {
    if (!endsWith(path, "/config") || std::strpbrk(mode, "wa+")) {
        std::fprintf(stderr, "kelvorn-sim: no file %s\n", path);
        errno = ENOENT;
        return nullptr;
    }
    return ::fmemopen(configSpace_, sizeof configSpace_, "r");
}

Ptr<ChipModel> Board::modelFor(const HamDesc& desc) {
    char base[16];
    std::snprintf(base, sizeof base, "%x", desc.base);
    std::string key = desc.name + "|" + desc.fileName + "|" + base;
    auto it = models_.find(key);
    if (it != models_.end()) return it->second;

    // The chip behind the window, by what the backend says the window is
    // onto; the windows onto /dev/mem only at the chip's own base.
    const std::string& name = desc.name;
    const std::string& tag = desc.tag;
    bool devMem = desc.fileName == "/dev/mem";
    Ptr<ChipModel> m;
    Chip chip = Chip::sb820;
    if (tag == "sb820") {
        m = new Sb820Model(name);
    } else if (tag == "fch-gpio" && devMem && desc.base == kFchGpioBase) {
        FchPads pads = fchPadsOf(config_.family, config_.model);
        m = new FchGpioModel(name, pads.layout, gpioFunctions(pads));
        chip = Chip::fchGpio;
    } else if (tag == "cave-creek-gpio" && desc.type == HamType::ioPort) {
        m = new CaveCreekModel(name, kCaveCreekGpioBaseRegister & 0xff80);
        chip = Chip::caveCreek;
    } else if (tag == "cedar-fork-gpio" && devMem && desc.base == kCedarForkBase) {
        m = new CedarForkModel(name);
        chip = Chip::cedarFork;
    } else if (tag == "pex8600") {
        m = new PlxPex8600Model(name);
        chip = Chip::plxPex8600;
    } else if (tag == "pex8700") {
        m = new PlxPex8700Model(name, kPex8700BlockRegister);
        chip = Chip::plxPex8700;
    } else if (tag == "pericom-gen3") {
        m = new PericomGen3Model(name);
        chip = Chip::pericomGen3;
    } else if (tag == "intel-gbe" && endsWith(desc.fileName, "/resource0") && desc.size == kGbeWindowSize) {
        m = new IntelGbeModel(name);
        chip = Chip::intelGbe;
    } else {
        // Never decline: a declined window would be made for real.
        std::fprintf(stderr, "kelvorn-sim: no model for window %s (%s), plain memory behind it\n", name.c_str(),
                     desc.fileName.empty() ? "I/O ports" : desc.fileName.c_str());
        m = new ChipModel(name);
        models_[key] = m;
        return m;
    }
    ChipModel* raw = m.ptr();
    m->onAccess = [this, raw](const ChipModel::Access& a) { accessed(*raw, a); };
    models_[key] = m;
    if (!wired_) attach(m, chip);
    return m;
}

void Board::attach(const Ptr<ChipModel>& model, Chip chip) {
    for (Wiring w : wiringsOf(config_.device)) {
        if (w.chip != chip) continue;
        Wiring board = w;
        if (chip == Chip::fchGpio && !resolveFch(w, fchPadsOf(config_.family, config_.model))) {
            std::fprintf(stderr, "kelvorn-sim: %s is not wired to this processor's GPIO pads\n",
                         config_.device.c_str());
            return;
        }
        if (config_.rewire) config_.rewire(w);
        auto label = [chip](U32 pin) {
            char s[32];
            if (chip == Chip::cedarFork)
                std::snprintf(s, sizeof s, "pad 0x%x", pin);
            else
                std::snprintf(s, sizeof s, "GPIO%u", pin & 0xff);
            return std::string(s);
        };
        wired_ = model;
        tck_ = {"TCK", w.tck, kAnyLevel};
        tdi_ = {"TDI", w.tdi, kAnyLevel};
        tms_ = {"TMS", w.tms, kAnyLevel};
        tdo_ = {"TDO", w.tdo, kAnyLevel};
        route_.clear();
        for (size_t i = 0; i < w.route.size(); ++i)
            route_.push_back({label(board.route[i].pin), w.route[i].pin, w.route[i].level});
        settle();
        last_ = snapshot();
        recordVcd();
        return;
    }
}

void Board::settle() {
    const ChipModel& c = *wired_;
    bool routed = true;
    for (const Signal& r : route_) {
        Drive d = c.drive(r.pin);
        routed = routed && d.driven && (r.level == kAnyLevel || d.level == (r.level != 0));
    }
    Drive tck = c.drive(tck_.pin), tms = c.drive(tms_.pin), tdi = c.drive(tdi_.pin);
    // Undriven TMS and TDI read high (the device's pull-ups); an undriven TCK makes no edges.
    if (routed && tck.driven) chain_.tckIs(tck.level, !tms.driven || tms.level, !tdi.driven || tdi.level);
    wired_->externalLevelIs(tdo_.pin, config_.tdoStuck >= 0 ? config_.tdoStuck == 1 : !routed || chain_.tdo());
}

std::vector<const Board::Signal*> Board::signals() const {
    std::vector<const Signal*> all{&tck_, &tdi_, &tms_, &tdo_};
    for (const Signal& r : route_) all.push_back(&r);
    return all;
}

// Driven pins as 0 or 1, undriven ones as z; TDO as the level the chip reads.
Board::Snapshot Board::snapshot() const {
    Snapshot s;
    for (const Signal* sig : signals())
        s.states.push_back(sig == &tdo_ ? (wired_->level(tdo_.pin) ? "1" : "0")
                                        : std::string(1, stateChar(*wired_, sig->pin)));
    s.tap = chain_.state();
    return s;
}

std::string Board::pins() const {
    if (!wired_) return "";
    Snapshot now = snapshot();
    std::vector<const Signal*> all = signals();
    std::string out;
    for (size_t i = 0; i < all.size(); ++i) out += (i ? " " : "") + all[i]->label + "=" + now.states[i];
    return out;
}

void Board::recordVcd() {
    if (!vcd_) return;
    // On every access: the four JTAG pins only, without building a snapshot.
    uint64_t time = reads_ + writes_;
    if (config_.vcdRealTime) {
        uint64_t ns = static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
                .count());
        if (!vcdStartNs_) vcdStartNs_ = ns;
        time = ns - vcdStartNs_;
    }
    const ChipModel& c = *wired_;
    vcd_->sample(time, {stateChar(c, tck_.pin), stateChar(c, tms_.pin), stateChar(c, tdi_.pin),
                        c.level(tdo_.pin) ? '1' : '0', chain_.state()});
}

void Board::accessed(ChipModel& model, const ChipModel::Access& a) {
    bool onChain = &model == wired_.ptr();
    if (onChain) {
        ++(a.op == 'W' ? writes_ : reads_);
        if (a.op == 'W') settle();
        recordVcd();
    }
    if (a.op != 'W' || !config_.showWrites) return;
    int digits = a.width / 4;
    std::string line = "sim: " + model.window();
    char buf[96];
    std::snprintf(buf, sizeof buf, " W%d 0x%x: 0x%0*x -> 0x%0*x", a.width, a.offset, digits, a.before, digits, a.value);
    line += buf;
    if (onChain) {
        Snapshot now = snapshot();
        std::vector<const Signal*> all = signals();
        for (size_t i = 0; i < all.size(); ++i)
            if (now.states[i] != last_.states[i])
                line += "  " + all[i]->label + " " + last_.states[i] + "->" + now.states[i];
        if (now.tap != last_.tap)
            line += std::string("  TAP ") + jtag::stateName(last_.tap) + "->" + jtag::stateName(now.tap);
        last_ = now;
    }
    std::fprintf(stderr, "%s\n", line.c_str());
}

bool Board::finish() {
    if (finished_) return written_;
    finished_ = true;
    if (vcd_ && !vcd_->close()) {
        written_ = false;
        std::fprintf(stderr, "kelvorn-sim: cannot write %s: %s\n", config_.vcd.c_str(), std::strerror(errno));
    }
    vcd_.reset();
    if (!config_.dumpMemory.empty() && !writeMemoryDump()) written_ = false;
    if (!config_.dumpPins.empty() && !writePinDump()) written_ = false;
    if (config_.stats)
        std::fprintf(stderr, "sim stats: reads %llu writes %llu tck-cycles %llu contention %llu\n",
                     static_cast<unsigned long long>(reads_), static_cast<unsigned long long>(writes_),
                     static_cast<unsigned long long>(chain_.tckCycles()),
                     static_cast<unsigned long long>(chain_.contention()));
    return written_;
}

// The memory as its bits are numbered: bit i of the dump (bit i % 8 of byte
// i / 8) is bit i % rowBits of row i / rowBits.
bool Board::writeMemoryDump() const {
    const char* path = config_.dumpMemory.c_str();
    const ProgDevice* device = chain_.firstProgrammable();
    if (!device) {
        std::fprintf(stderr, "kelvorn-sim: no device on the chain has memory to write to %s\n", path);
        return false;
    }
    const jtag::BitVector& m = device->memory();
    FILE* f = std::fopen(path, "wb");
    bool written = f && std::fwrite(m.data(), 1, m.byteCount(), f) == m.byteCount();
    if (f) written = std::fclose(f) == 0 && written;
    if (!written) std::fprintf(stderr, "kelvorn-sim: cannot write %s: %s\n", path, std::strerror(errno));
    return written;
}

bool Board::writePinDump() const {
    const char* path = config_.dumpPins.c_str();
    FILE* f = std::fopen(path, "w");
    bool written = f != nullptr;
    for (size_t i = 0; written && i < chain_.size(); ++i)
        if (const BoundaryDevice* d = chain_.boundary(i))
            for (const auto& [port, level] : d->lastDriven())
                written = std::fprintf(f, "%zu.%s %d\n", i, port.c_str(), level) > 0;
    if (f) written = std::fclose(f) == 0 && written;
    if (!written) std::fprintf(stderr, "kelvorn-sim: cannot write %s: %s\n", path, std::strerror(errno));
    return written;
}

}  // namespace sim
