// The C functions of kelvorn/kelvorn.h over the JTAG layer: a handle is a
// device of libxilinx, selected, with a Tap on it, what discovery found on
// its chain, and the text of its last answer.
//
// libxilinx ends the process when a board refuses (a lock held, an unknown
// device, a window that cannot be mapped); a library must not. While a call
// is in the module, its exit hook throws ExitCalled instead, and the call
// returns KV_E_REFUSED (or KV_E_LOCKED: the lock is tried first, so that
// case has its own status and message).
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <set>
#include <string>

#include "device/PciAddress.h"
#include "jtag/ChainAccess.h"
#include "jtag/Discovery.h"
#include "jtag/PlayInput.h"
#include "jtag/Player.h"
#include "jtag/Tap.h"
#include "kelvorn/kelvorn.h"
#include "libkelvorn/Board.h"
#include "os/Os.h"
#include "xilinx/XilIntf.h"
#include "xilinx/XilIntfFactory.h"

namespace {

// The progress callback is called at most this often.
constexpr uint64_t kProgressNs = 100000000;
// What libxilinx writes on stderr when the lock is held; the same words here.
constexpr const char* kLockedMessage = "Lock file is locked by another process.";

struct ExitCalled {
    int status;
};
struct Cancelled {};

// One call at a time in the whole process: the module's hooks, its test
// mode and the simulated board are the process's.
std::recursive_mutex& apiMutex() {
    static std::recursive_mutex* m = new std::recursive_mutex;  // usable in exit()
    return *m;
}

// For the length of a call: the module's exit throws instead of ending the process.
class ExitThrows {
  public:
    ExitThrows() : saved_(Os::hooks().exit) {
        Os::hooks().exit = [](int status) { throw ExitCalled{status}; };
    }
    ~ExitThrows() { Os::hooks().exit = saved_; }
    ExitThrows(const ExitThrows&) = delete;
    ExitThrows& operator=(const ExitThrows&) = delete;

  private:
    std::function<void(int)> saved_;
};

struct Call {
    std::lock_guard<std::recursive_mutex> lock{apiMutex()};
    ExitThrows exitThrows;
};

}  // namespace

struct kv_device {
    std::string fpga;
    device::PciAddress at;
    bool testMode = false;
    double frequencyHz = 0;
    XilIntf* intf = nullptr;
    bool onBoard = false;  // counted by boardBeforeOpen
    bool selected = false;
    std::unique_ptr<jtag::Tap> tap;

    jtag::BsdlCatalogue catalogue;
    jtag::DiscoveryOptions discoveryOptions;
    std::optional<jtag::Discovery> discovery;
    std::unique_ptr<jtag::ChainAccess> access;

    std::string message;
    std::string answer;  // the JSON of kv_discover and kv_sample

    bool hasMismatch = false;
    std::string mismatchFile, mismatchStatement, expected, mask, actual;
    jtag::Place mismatchPlace;
    uint32_t mismatchBits = 0;

    int fail(int status, const std::string& what) {
        message = what;
        return status;
    }
    int ok() {
        message.clear();
        return KV_OK;
    }
};

namespace {

std::set<kv_device*>& openDevices() {
    static std::set<kv_device*>* s = new std::set<kv_device*>;
    return *s;
}

uint32_t periodNs(double hz) { return hz > 0 && hz < 1e9 ? static_cast<uint32_t>(std::ceil(1e9 / hz)) : 0; }

// Gives the pins back: inputs again, routing undone.
void release(kv_device* d) {
    if (!d->selected) return;
    d->selected = false;
    d->tap.reset();
    d->access.reset();
    try {
        XilIntf_cleanup(d->intf, d->fpga.c_str());
    } catch (const ExitCalled&) {
    }
}

// The pins taken (again, after a play gave them back): a fresh Tap, the
// chain reset, the handle's ceiling.
void takePins(kv_device* d) {
    if (d->selected) return;
    XilIntf_select(d->intf, d->fpga.c_str());
    d->selected = true;
    d->tap = std::make_unique<jtag::Tap>(d->intf);
    d->tap->ceilingIs(periodNs(d->frequencyHz));
    d->tap->reset();
    if (d->discovery) {
        std::vector<unsigned> lengths;
        for (const jtag::DeviceFacts& f : d->discovery->devices) lengths.push_back(f.irLength);
        d->access = std::make_unique<jtag::ChainAccess>(*d->tap, lengths);
    }
}

void closeDevice(kv_device* d) {
    if (d->intf) {
        release(d);
        delete d->intf;  // drops the lock
        d->intf = nullptr;
    }
    if (d->onBoard) kv::boardAfterClose();
    d->onBoard = false;
    openDevices().erase(d);
}

// A process that ends without closing its devices: their pins are given
// back all the same.
void closeAtExit() {
    std::lock_guard<std::recursive_mutex> lock(apiMutex());
    ExitThrows exitThrows;
    while (!openDevices().empty()) {
        kv_device* d = *openDevices().begin();
        closeDevice(d);
    }
}

// Whether another file description holds the device's lock (the one
// libxilinx takes: the same file, the same flock).
bool lockHeld(const kv_device* d) {
    char name[256];
    xilLockName(name, d->at.domain, d->at.bus, d->at.device);
    std::string path = d->testMode ? XilIntf::testLockFile : std::string("/var/lock/") + name;
    int fd = Os::creat(path.c_str(), 0400);
    if (fd < 0) return false;  // the interface says why, when it tries
    bool held = ::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    ::close(fd);
    return held;
}

int refused(kv_device* d, const ExitCalled&) {
    return d->fail(KV_E_REFUSED, "the " + d->fpga + " backend refused this board (it printed why)");
}

int needDevice(kv_device* d) {
    if (!d->intf) return d->fail(KV_E_ARGUMENT, "the device did not open");
    return KV_OK;
}

// Discovery, when it has not run: the lengths the shifts need.
int discover(kv_device* d) {
    takePins(d);
    jtag::Discovery found = jtag::discover(*d->tap, d->catalogue, d->discoveryOptions);
    if (found.scan.fault != jtag::ChainScan::Fault::none)
        return d->fail(KV_E_DEAD_CHAIN, found.scan.fault == jtag::ChainScan::Fault::inconsistent
                                            ? "the chain answers inconsistently: " + found.scan.detail
                                            : jtag::describe(found.scan.fault, d->discoveryOptions.maxDevices));
    if (!found.irProblem.empty()) return d->fail(KV_E_DEAD_CHAIN, found.irProblem);
    d->discovery = std::move(found);
    std::vector<unsigned> lengths;
    for (const jtag::DeviceFacts& f : d->discovery->devices) lengths.push_back(f.irLength);
    d->access = std::make_unique<jtag::ChainAccess>(*d->tap, lengths);
    return d->ok();
}

int discovered(kv_device* d, unsigned position) {
    takePins(d);
    if (!d->discovery) {
        int status = discover(d);
        if (status != KV_OK) return status;
    }
    size_t n = d->discovery->devices.size();
    if (position >= n)
        return d->fail(KV_E_ARGUMENT, "no device at position " + std::to_string(position) + " (the chain has " +
                                          std::to_string(n) + ")");
    return KV_OK;
}

jtag::BitVector bitsFrom(const uint8_t* in, uint32_t nbits) {
    jtag::BitVector v(nbits);
    if (in)
        for (uint32_t i = 0; i < nbits; ++i) v.set(i, (in[i / 8] >> (i % 8)) & 1);
    return v;
}

void bitsTo(const jtag::BitVector& v, uint8_t* out) {
    if (!out) return;
    std::memset(out, 0, v.byteCount());
    for (size_t i = 0; i < v.size(); ++i)
        if (v[i]) out[i / 8] = static_cast<uint8_t>(out[i / 8] | 1u << (i % 8));
}

int playStatus(jtag::FormatError::Kind kind) {
    return kind == jtag::FormatError::unreadable ? KV_E_UNREADABLE
           : kind == jtag::FormatError::syntax   ? KV_E_SYNTAX
                                                 : KV_E_UNSUPPORTED;
}

// The whole file checked (no pin moves), then played; the pins given back
// at the end however it ends.
int play(kv_device* d, FILE* f, uint64_t size, const std::string& name, int format, kv_progress_fn progress,
         void* user, kv_play_result* result, const PlayInput* input) {
    if (result) *result = kv_play_result{};
    if (format != KV_FORMAT_AUTO && format != KV_FORMAT_SVF && format != KV_FORMAT_XSVF)
        return d->fail(KV_E_ARGUMENT, "format " + std::to_string(format) + " is none of KV_FORMAT_AUTO, _SVF, _XSVF");
    jtag::VectorFormat fmt = format == KV_FORMAT_SVF    ? jtag::VectorFormat::svf
                             : format == KV_FORMAT_XSVF ? jtag::VectorFormat::xsvf
                                                        : jtag::sniffFormat(f);
    jtag::Action a;
    jtag::Player counter(nullptr, jtag::systemClock());
    counter.capIs(d->frequencyHz);
    try {
        std::unique_ptr<jtag::Reader> check = jtag::readerFor(fmt, f);
        while (check->next(&a)) counter.play(a);
    } catch (const jtag::FormatError& e) {
        return d->fail(playStatus(e.kind), e.place.in(name) + ": " +
                                               (e.kind == jtag::FormatError::unreadable ? "cannot read: " : "") + e.what());
    }
    if (input && !input->unchanged())
        return d->fail(KV_E_UNREADABLE, name + ": changed since it was checked (size or modification time); nothing played");
    std::rewind(f);

    takePins(d);
    std::unique_ptr<jtag::Reader> reader = jtag::readerFor(fmt, f);
    jtag::Player player(d->tap.get(), jtag::systemClock());
    player.capIs(d->frequencyHz);
    uint64_t start = jtag::systemClock().now(), shown = start;
    player.onProgress = [&] {
        if (!progress) return;
        uint64_t now = jtag::systemClock().now();
        if (now - shown < kProgressNs) return;
        shown = now;
        if (progress(user, std::min(reader->bytesRead(), size), size, player.stats().bits)) throw Cancelled{};
    };
    int status = KV_OK;
    try {
        player.start(counter.stats().lowestHz);
        while (status == KV_OK && reader->next(&a)) {
            if (player.play(a)) continue;
            d->hasMismatch = true;
            d->mismatchFile = name;
            d->mismatchPlace = a.place;
            d->mismatchStatement = a.statement;
            d->mismatchBits = static_cast<uint32_t>(a.tdi.size());
            d->expected = a.tdo.hex();
            d->mask = a.mask.hex();
            d->actual = player.tdo().hex();
            status = d->fail(KV_E_MISMATCH, a.place.in(name) + ": " + a.statement + " of " + std::to_string(a.tdi.size()) +
                                                 " bits: " + player.mismatch());
        }
        if (status == KV_OK && progress && progress(user, size, size, player.stats().bits)) throw Cancelled{};
    } catch (const Cancelled&) {
        status = d->fail(KV_E_CANCELLED, name + ": cancelled by the progress callback after " +
                                             std::to_string(player.stats().bits) + " bits; pins given back");
    } catch (const jtag::FormatError& e) {
        status = d->fail(playStatus(e.kind), e.place.in(name) + ": " + e.what());
    } catch (const std::bad_alloc&) {
        status = d->fail(KV_E_MEMORY, name + ": not enough memory for the statement after " + a.place.in(name));
    } catch (...) {
        release(d);
        throw;
    }
    release(d);
    if (result) {
        result->statements = reader->statements();
        result->scans = player.stats().scans;
        result->bits = player.stats().bits;
        result->tck_cycles = player.stats().cycles;
        result->seconds = static_cast<double>(jtag::systemClock().now() - start) * 1e-9;
    }
    return status == KV_OK ? d->ok() : status;
}

// Runs a call's body: a board's refusal, and memory that runs out, become statuses.
template <typename Body>
int guarded(kv_device* d, Body body) {
    try {
        return body();
    } catch (const ExitCalled& e) {
        return refused(d, e);
    } catch (const std::bad_alloc&) {
        return d->fail(KV_E_MEMORY, "out of memory");
    } catch (const std::exception& e) {  // nothing may leave a C function
        return d->fail(KV_E_REFUSED, e.what());
    }
}

}  // namespace

extern "C" {

const char* kv_status_name(int status) {
    static const char* const names[] = {"ok",       "argument",  "no backend", "locked", "refused",
                                        "unreadable", "syntax",  "unsupported", "mismatch", "cancelled",
                                        "dead chain", "bsdl",    "sim",        "memory"};
    return status >= 0 && status < static_cast<int>(sizeof names / sizeof names[0]) ? names[status] : "unknown";
}

int kv_open(const char* fpga, const char* pci_address, unsigned flags, double frequency_hz, kv_device** device) {
    if (!device) return KV_E_ARGUMENT;
    kv_device* d = new (std::nothrow) kv_device;
    *device = d;
    if (!d) return KV_E_MEMORY;
    Call call;
    return guarded(d, [&] {
        if (!fpga || !pci_address) return d->fail(KV_E_ARGUMENT, "no device name or no PCI address");
        d->fpga = fpga;
        if (!device::parsePciAddress(pci_address, &d->at)) return d->fail(KV_E_ARGUMENT, device::notAPciAddress(pci_address));
        if (!(frequency_hz == 0 || (frequency_hz >= jtag::Player::kMinHz && frequency_hz <= 1e12)))
            return d->fail(KV_E_ARGUMENT, "a TCK ceiling of " + std::to_string(frequency_hz) + " Hz (0, or 1 Hz to 1 THz)");
        d->testMode = (flags & KV_TEST_MODE) != 0;
        d->frequencyHz = frequency_hz;
        std::string why;
        if (!kv::boardBeforeOpen(d->fpga, &why)) return d->fail(KV_E_SIM, why);
        d->onBoard = true;
        static bool atExit = std::atexit(closeAtExit) == 0;
        (void)atExit;
        openDevices().insert(d);
        if (!XilIntfFactory::factory(fpga)) {
            closeDevice(d);
            return d->fail(KV_E_NO_BACKEND, "no backend serves " + d->fpga + " on this board");
        }
        if (lockHeld(d)) {
            closeDevice(d);
            return d->fail(KV_E_LOCKED, kLockedMessage);
        }
        bool wasTestMode = XilIntf::testMode;
        XilIntf::testMode = d->testMode;
        try {
            std::fflush(stdout);  // what the backends print comes after what the program printed
            d->intf = XilIntf_bySystem(fpga, 0, 0, d->at.domain, d->at.bus, d->at.device, d->at.function);
            XilIntf::testMode = wasTestMode;
            if (!d->intf) {
                closeDevice(d);
                return d->fail(KV_E_NO_BACKEND, "no backend serves " + d->fpga + " on this board");
            }
            takePins(d);
            std::fflush(stdout);
        } catch (const ExitCalled& e) {
            XilIntf::testMode = wasTestMode;
            closeDevice(d);
            return refused(d, e);
        }
        return d->ok();
    });
}

int kv_close(kv_device* device) {
    if (!device) return KV_OK;
    {
        Call call;
        closeDevice(device);
    }
    delete device;
    return KV_OK;
}

const char* kv_message(const kv_device* device) { return device ? device->message.c_str() : "no device"; }

int kv_add_bsdl(kv_device* device, const char* path) {
    if (!device) return KV_E_ARGUMENT;
    Call call;
    return guarded(device, [&] {
        if (!path) return device->fail(KV_E_ARGUMENT, "no BSDL path");
        struct stat st;
        if (::stat(path, &st) != 0) return device->fail(KV_E_BSDL, std::string(path) + ": " + std::strerror(errno));
        if (S_ISDIR(st.st_mode)) {
            device->catalogue.addDirectory(path);
        } else {
            jtag::bsdl::Error error;
            if (!device->catalogue.addFile(path, &error)) return device->fail(KV_E_BSDL, error.text());
        }
        device->discovery.reset();  // found again with the files
        return device->ok();
    });
}

int kv_irlen_is(kv_device* device, unsigned position, unsigned length) {
    if (!device) return KV_E_ARGUMENT;
    Call call;
    return guarded(device, [&] {
        if (length < 2 || length > 999)
            return device->fail(KV_E_ARGUMENT, "an IR length of " + std::to_string(length) + " bits (2 to 999)");
        device->discoveryOptions.irLength[position] = length;
        device->discovery.reset();
        return device->ok();
    });
}

int kv_discover(kv_device* device, const char** json) {
    if (!device) return KV_E_ARGUMENT;
    Call call;
    if (int status = needDevice(device)) return status;
    return guarded(device, [&] {
        int status = discover(device);
        if (status != KV_OK) return status;
        device->answer = jtag::discoveryJson(*device->discovery);
        if (json) *json = device->answer.c_str();
        return device->ok();
    });
}

int kv_shift_ir(kv_device* device, unsigned position, uint32_t nbits, const uint8_t* in, uint8_t* out) {
    if (!device) return KV_E_ARGUMENT;
    Call call;
    if (int status = needDevice(device)) return status;
    return guarded(device, [&] {
        if (int status = discovered(device, position)) return status;
        unsigned length = device->discovery->devices[position].irLength;
        if (nbits != length)
            return device->fail(KV_E_ARGUMENT, "device " + std::to_string(position) + "'s instruction register has " +
                                                   std::to_string(length) + " bits, not " + std::to_string(nbits));
        auto captured = device->access->instructions({{position, bitsFrom(in, nbits)}}, out != nullptr);
        if (out) bitsTo(captured[position], out);
        return device->ok();
    });
}

int kv_shift_dr(kv_device* device, unsigned position, uint32_t nbits, const uint8_t* in, uint8_t* out) {
    if (!device) return KV_E_ARGUMENT;
    Call call;
    if (int status = needDevice(device)) return status;
    return guarded(device, [&] {
        if (int status = discovered(device, position)) return status;
        if (nbits == 0) return device->fail(KV_E_ARGUMENT, "a data register of 0 bits");
        auto captured = device->access->data({{position, bitsFrom(in, nbits)}});
        bitsTo(captured[position], out);
        return device->ok();
    });
}

int kv_sample(kv_device* device, unsigned position, const char** json) {
    if (!device) return KV_E_ARGUMENT;
    Call call;
    if (int status = needDevice(device)) return status;
    return guarded(device, [&] {
        if (int status = discovered(device, position)) return status;
        const jtag::DeviceFacts& f = device->discovery->devices[position];
        std::string p = std::to_string(position);
        if (!f.bsdl) return device->fail(KV_E_BSDL, "device " + p + " has no BSDL file (kv_add_bsdl)");
        jtag::BitVector sample = jtag::bsdlOpcode(*f.bsdl, {"SAMPLE", "PRELOAD"});
        if (f.bsdl->boundaryLength == 0 || sample.empty())
            return device->fail(KV_E_BSDL, "device " + p + " (" + f.bsdl->entity + ") has no boundary register");
        device->access->instructions({{position, sample}});
        auto captured = device->access->data({{position, jtag::BitVector(f.bsdl->boundaryLength)}});
        device->tap->reset();  // back to the device's own function
        device->answer = jtag::sampleJson(position, *f.bsdl, jtag::portLevels(*f.bsdl, captured[position]));
        if (json) *json = device->answer.c_str();
        return device->ok();
    });
}

int kv_play(kv_device* device, const char* path, int format, kv_progress_fn progress, void* user,
            kv_play_result* result) {
    if (!device) return KV_E_ARGUMENT;
    Call call;
    if (int status = needDevice(device)) return status;
    return guarded(device, [&] {
        device->hasMismatch = false;
        if (!path) return device->fail(KV_E_ARGUMENT, "no file");
        PlayInput input;
        std::string why;
        if (!input.open(path, &why)) return device->fail(KV_E_UNREADABLE, std::string(path) + ": " + why);
        return play(device, input.file(), input.size(), path, format, progress, user, result, &input);
    });
}

int kv_play_buffer(kv_device* device, const void* data, size_t size, const char* name, int format,
                   kv_progress_fn progress, void* user, kv_play_result* result) {
    if (!device) return KV_E_ARGUMENT;
    Call call;
    if (int status = needDevice(device)) return status;
    return guarded(device, [&] {
        device->hasMismatch = false;
        if (!data && size) return device->fail(KV_E_ARGUMENT, "no buffer");
        std::string label = name ? name : "buffer";
        // fmemopen takes no empty buffer; an empty temporary file is the same input.
        FILE* f = size ? ::fmemopen(const_cast<void*>(data), size, "r") : std::tmpfile();
        if (!f) return device->fail(KV_E_MEMORY, label + ": " + std::strerror(errno));
        std::unique_ptr<FILE, int (*)(FILE*)> closer(f, std::fclose);
        return play(device, f, size, label, format, progress, user, result, nullptr);
    });
}

int kv_mismatch(kv_device* device, kv_mismatch_info* info) {
    if (!device || !info) return KV_E_ARGUMENT;
    Call call;
    if (!device->hasMismatch) return device->fail(KV_E_ARGUMENT, "the last play had no TDO mismatch");
    info->file = device->mismatchFile.c_str();
    info->byte_offset = device->mismatchPlace.byte ? 1 : 0;
    info->where = device->mismatchPlace.at;
    info->statement = device->mismatchStatement.c_str();
    info->nbits = device->mismatchBits;
    info->expected = device->expected.c_str();
    info->mask = device->mask.c_str();
    info->actual = device->actual.c_str();
    return device->ok();
}

int kv_sim_configure(const char* options, char* why, size_t why_size) {
    Call call;
    std::string reason;
    try {
        if (kv::boardConfigure(options, &reason)) return KV_OK;
    } catch (const std::exception& e) {
        reason = e.what();
    }
    if (why && why_size) std::snprintf(why, why_size, "%s", reason.c_str());
    return KV_E_SIM;
}

int kv_sim_pins(kv_device* device, char* text, size_t size) {
    if (!device || (!text && size)) return KV_E_ARGUMENT;
    Call call;
    return guarded(device, [&] {
        std::string pins, why;
        if (!kv::boardPins(&pins, &why)) return device->fail(KV_E_SIM, why);
        if (size) std::snprintf(text, size, "%s", pins.c_str());
        return device->ok();
    });
}

}  // extern "C"
