// The C functions of kelvorn/kelvorn.h over the JTAG layer: a handle is a
// device of libxilinx, selected, with a Tap on it, and what discovery found
// on its chain.
//
// Handles. What a caller holds is not a pointer into the library but a
// number (kv_device* is only its type): the handle's id, never given twice
// in a process. Every call looks it up in the registry of open handles, so
// a closed handle, a handle closed twice, or one closed while a call waits
// for it is a status (KV_E_CLOSED), never memory that is gone. The handle
// itself is shared: a call keeps it alive to its end whoever closes it.
//
// One call at a time, in the whole process (apiMutex): the module's hooks,
// its test mode and the simulated board are the process's. The lock is
// recursive so that a progress callback may call on other handles; a call
// on the handle whose call is running on the same thread (its owner) is
// KV_E_REENTRANT. kv_close takes the handle out of the registry and marks
// it closing before it waits for the lock; the running call sees the mark
// at its next look-in (the Tap's hook, every kHookCycles TCK cycles, also
// in one long scan; a play's progress) and ends with KV_E_CLOSED, and the
// close then takes effect.
//
// Answers. A call's message, its JSON and a play's mismatch are kept per
// thread and per handle (Slot), so what one thread was given is never
// overwritten or freed by another: it stays until the same thread's next
// call on the handle, or once the handle is closed, its next call on any.
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
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>

#include "device/PciAddress.h"
#include "device/Session.h"
#include "jtag/ChainAccess.h"
#include "jtag/Discovery.h"
#include "jtag/PlayInput.h"
#include "jtag/Player.h"
#include "jtag/Tap.h"
#include "kelvorn/kelvorn.h"
#include "libkelvorn/Board.h"
#include "os/Os.h"
#include "xilinx/XilIntfC.h"

namespace {

// The progress callback is called when this much time, or this many TCK
// cycles, have passed since its last call. The Tap's hook looks in at
// least every 2 * Tap::kHookCycles, so no more than 3 * 2^18 cycles (and
// fewer bits) go by without a call.
constexpr uint64_t kProgressNs = 100000000;
constexpr uint64_t kProgressCycles = jtag::Tap::kHookCycles;

struct ExitCalled {
    int status;
};
struct Cancelled {};
// Another thread closed the handle during the call.
struct Closed {};

constexpr const char* kNotOpen = "not an open handle: closed, or never given by kv_open";
constexpr const char* kClosedDuring = "the handle was closed by another thread during the call; pins given back";
constexpr const char* kReentrant =
    "a call on the handle from within a call on it (its progress callback): the running call must return first";

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

// What a call leaves for its thread: its message, its JSON, a play's mismatch.
struct Slot {
    std::string message;
    std::string answer;
    bool hasMismatch = false;
    std::string mismatchFile, mismatchStatement, expected, mask, actual;
    jtag::Place mismatchPlace;
    uint32_t mismatchBits = 0;
};

// A call's answer until it returns; then its thread's Slot for the handle.
struct Reply {
    std::string message;
    bool hasAnswer = false;
    std::string answer;
    bool setsMismatch = false;  // a play: the slot's mismatch replaced (by none, or this one)
    Slot mismatch;

    int fail(int status, const std::string& what) {
        message = what;
        return status;
    }
    int ok() {
        message.clear();
        return KV_OK;
    }
};

struct Handle {
    uintptr_t id = 0;
    // Set by kv_close before it waits for the lock; the running call ends at its next look-in.
    std::atomic<bool> closing{false};
    // The thread whose call runs on the handle, while it runs.
    std::atomic<std::thread::id> owner{};
    // During a play: its progress, called from the Tap's hook.
    std::function<void()> onCycles;

    std::string fpga;
    device::PciAddress at;
    bool testMode = false;
    double frequencyHz = 0;
    XilIntf* intf = nullptr;
    bool onBoard = false;  // counted by boardBeforeOpen
    // While the pins are taken; a signal that ends the process gives them
    // back, and one the program takes (Python's Ctrl-C) too: they are then
    // taken again by the next call that needs them.
    std::unique_ptr<device::SelectedDevice> selection;
    std::unique_ptr<jtag::Tap> tap;

    jtag::BsdlCatalogue catalogue;
    jtag::DiscoveryOptions discoveryOptions;
    std::optional<jtag::Discovery> discovery;
    std::unique_ptr<jtag::ChainAccess> access;
};

// The open handles by id, and the next id. Kept for the life of the
// process, usable in exit().
struct Registry {
    std::mutex mutex;
    std::unordered_map<uintptr_t, std::shared_ptr<Handle>> live;
    uintptr_t next = 1;
};
Registry& registry() {
    static Registry* r = new Registry;
    return *r;
}

// This thread's slots, by handle id.
thread_local std::unordered_map<uintptr_t, Slot> slots;

uintptr_t idOf(const kv_device* device) { return reinterpret_cast<uintptr_t>(device); }
kv_device* tokenOf(uintptr_t id) { return reinterpret_cast<kv_device*>(id); }

// The open handle with this id, or null. This thread's slots of handles
// closed since are dropped (but for the one asked for: its KV_E_CLOSED
// message goes there).
std::shared_ptr<Handle> lookUp(uintptr_t id) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    for (auto it = slots.begin(); it != slots.end();)
        it = it->first != id && !r.live.count(it->first) ? slots.erase(it) : std::next(it);
    auto it = r.live.find(id);
    return it == r.live.end() ? nullptr : it->second;
}

bool isOwner(const Handle& h) { return h.owner.load() == std::this_thread::get_id(); }

// The call's answer into this thread's slot for the handle.
Slot& leave(uintptr_t id, Reply& r) {
    Slot& s = slots[id];
    s.message = std::move(r.message);
    if (r.hasAnswer) s.answer = std::move(r.answer);
    if (r.setsMismatch) {
        Slot& m = r.mismatch;
        s.hasMismatch = m.hasMismatch;
        s.mismatchFile = std::move(m.mismatchFile);
        s.mismatchStatement = std::move(m.mismatchStatement);
        s.expected = std::move(m.expected);
        s.mask = std::move(m.mask);
        s.actual = std::move(m.actual);
        s.mismatchPlace = m.mismatchPlace;
        s.mismatchBits = m.mismatchBits;
    }
    return s;
}

uint32_t periodNs(double hz) { return hz > 0 && hz < 1e9 ? static_cast<uint32_t>(std::ceil(1e9 / hz)) : 0; }

// The Tap's look-in during a call: a close from another thread ends the
// call; a play's progress goes on.
void lookIn(void* context) {
    Handle* h = static_cast<Handle*>(context);
    if (h->closing.load(std::memory_order_relaxed)) throw Closed{};
    if (h->onCycles) h->onCycles();
}

// Gives the pins back: inputs again, routing undone.
void release(Handle* d) {
    if (!d->selection) return;
    d->tap.reset();
    d->access.reset();
    try {
        d->selection->cleanup();
    } catch (const ExitCalled&) {
    }
    d->selection.reset();
}

// The pins taken (again, after a play or a signal gave them back): a fresh
// Tap, the chain reset, the handle's ceiling.
void takePins(Handle* d) {
    if (d->selection && !d->selection->released()) return;
    release(d);
    d->selection = std::make_unique<device::SelectedDevice>(d->intf, d->fpga);
    d->tap = std::make_unique<jtag::Tap>(d->intf);
    d->tap->hookIs(lookIn, d);
    d->tap->ceilingIs(periodNs(d->frequencyHz));
    d->tap->reset();
    if (d->discovery) {
        std::vector<unsigned> lengths;
        for (const jtag::DeviceFacts& f : d->discovery->devices) lengths.push_back(f.irLength);
        d->access = std::make_unique<jtag::ChainAccess>(*d->tap, lengths);
    }
}

// Under the lock.
void closeDevice(Handle* d) {
    if (d->intf) {
        release(d);
        XilIntf_close(d->intf);  // drops the lock
        d->intf = nullptr;
    }
    if (d->onBoard) kv::boardAfterClose();
    d->onBoard = false;
}

// A process that ends without closing its devices: their pins are given
// back all the same. A call still running in another thread is told to
// end first.
void closeAtExit() {
    std::unordered_map<uintptr_t, std::shared_ptr<Handle>> open;
    {
        std::lock_guard<std::mutex> lock(registry().mutex);
        open.swap(registry().live);
    }
    for (auto& entry : open) entry.second->closing = true;
    std::lock_guard<std::recursive_mutex> lock(apiMutex());
    ExitThrows exitThrows;
    for (auto& entry : open) closeDevice(entry.second.get());
}

int refused(Handle* d, Reply& r) {
    return r.fail(KV_E_REFUSED, "the " + d->fpga + " backend refused this board (it printed why)");
}

int needDevice(Handle* d, Reply& r) {
    if (!d->intf) return r.fail(KV_E_ARGUMENT, "the device did not open");
    return KV_OK;
}

// Discovery, when it has not run: the lengths the shifts need.
int discover(Handle* d, Reply& r) {
    takePins(d);
    jtag::Discovery found = jtag::discover(*d->tap, d->catalogue, d->discoveryOptions);
    if (found.scan.fault != jtag::ChainScan::Fault::none)
        return r.fail(KV_E_DEAD_CHAIN, found.scan.fault == jtag::ChainScan::Fault::inconsistent
                                           ? "the chain answers inconsistently: " + found.scan.detail
                                           : jtag::describe(found.scan.fault, d->discoveryOptions.maxDevices));
    if (!found.irProblem.empty()) return r.fail(KV_E_DEAD_CHAIN, found.irProblem);
    d->discovery = std::move(found);
    std::vector<unsigned> lengths;
    for (const jtag::DeviceFacts& f : d->discovery->devices) lengths.push_back(f.irLength);
    d->access = std::make_unique<jtag::ChainAccess>(*d->tap, lengths);
    return r.ok();
}

int discovered(Handle* d, Reply& r, unsigned position) {
    if (int status = needDevice(d, r)) return status;
    takePins(d);
    if (!d->discovery) {
        int status = discover(d, r);
        if (status != KV_OK) return status;
    }
    size_t n = d->discovery->devices.size();
    if (position >= n)
        return r.fail(KV_E_ARGUMENT, "no device at position " + std::to_string(position) + " (the chain has " +
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
int play(Handle* d, Reply& r, FILE* f, uint64_t size, const std::string& name, int format, kv_progress_fn progress,
         void* user, kv_play_result* result, const PlayInput* input) {
    if (result) *result = kv_play_result{};
    if (format != KV_FORMAT_AUTO && format != KV_FORMAT_SVF && format != KV_FORMAT_XSVF)
        return r.fail(KV_E_ARGUMENT, "format " + std::to_string(format) + " is none of KV_FORMAT_AUTO, _SVF, _XSVF");
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
        return r.fail(playStatus(e.kind), e.place.in(name) + ": " +
                                              (e.kind == jtag::FormatError::unreadable ? "cannot read: " : "") + e.what());
    }
    if (input && !input->unchanged())
        return r.fail(KV_E_UNREADABLE, name + ": changed since it was checked (size or modification time); nothing played");
    std::rewind(f);

    takePins(d);
    std::unique_ptr<jtag::Reader> reader = jtag::readerFor(fmt, f);
    jtag::Player player(d->tap.get(), jtag::systemClock());
    player.capIs(d->frequencyHz);
    uint64_t start = jtag::systemClock().now(), shown = start, shownCycles = d->tap->cycles();
    // After each statement (the player) and inside long ones (the Tap's hook).
    player.onProgress = d->onCycles = [&] {
        if (d->closing.load(std::memory_order_relaxed)) throw Closed{};
        if (!progress) return;
        uint64_t now = jtag::systemClock().now(), cycles = d->tap->cycles();
        if (now - shown < kProgressNs && cycles - shownCycles < kProgressCycles) return;
        shown = now;
        shownCycles = cycles;
        if (progress(user, std::min(reader->bytesRead(), size), size, player.stats().bits)) throw Cancelled{};
    };
    int status = KV_OK;
    try {
        player.start(counter.stats().lowestHz);
        while (status == KV_OK && reader->next(&a)) {
            if (player.play(a)) continue;
            Slot& m = r.mismatch;
            m.hasMismatch = true;
            m.mismatchFile = name;
            m.mismatchPlace = a.place;
            m.mismatchStatement = a.statement;
            m.mismatchBits = static_cast<uint32_t>(a.tdi.size());
            m.expected = a.tdo.hex();
            m.mask = a.mask.hex();
            m.actual = player.tdo().hex();
            status = r.fail(KV_E_MISMATCH, a.place.in(name) + ": " + a.statement + " of " + std::to_string(a.tdi.size()) +
                                               " bits: " + player.mismatch());
        }
        if (status == KV_OK && progress && progress(user, size, size, player.stats().bits)) throw Cancelled{};
    } catch (const Closed&) {
        status = r.fail(KV_E_CLOSED, kClosedDuring);
    } catch (const Cancelled&) {
        status = r.fail(KV_E_CANCELLED, name + ": cancelled by the progress callback after " +
                                            std::to_string(player.stats().bits) + " bits; pins given back");
    } catch (const jtag::FormatError& e) {
        status = r.fail(playStatus(e.kind), e.place.in(name) + ": " + e.what());
    } catch (const std::bad_alloc&) {
        status = r.fail(KV_E_MEMORY, name + ": not enough memory for the statement after " + a.place.in(name));
    } catch (...) {
        d->onCycles = nullptr;
        release(d);
        throw;
    }
    d->onCycles = nullptr;
    release(d);
    if (result) {
        result->statements = reader->statements();
        result->scans = player.stats().scans;
        result->bits = player.stats().bits;
        result->tck_cycles = player.stats().cycles;
        result->seconds = static_cast<double>(jtag::systemClock().now() - start) * 1e-9;
    }
    return status == KV_OK ? r.ok() : status;
}

// One call on a handle: looked up, refused when closed or when it comes
// from inside a call on the same handle, else run under the lock as its
// owner; a board's refusal, memory that runs out, a close from another
// thread become statuses. Then the reply goes into this thread's slot,
// which after(slot) may hand out.
template <typename Body, typename After>
int onHandle(const kv_device* device, Body body, After after) {
    uintptr_t id = idOf(device);
    std::shared_ptr<Handle> h = lookUp(id);
    Reply r;
    int status;
    if (!h) {
        status = r.fail(KV_E_CLOSED, kNotOpen);
    } else if (isOwner(*h)) {
        status = r.fail(KV_E_REENTRANT, kReentrant);
    } else {
        Call call;
        if (h->closing) {
            status = r.fail(KV_E_CLOSED, kNotOpen);
        } else {
            h->owner = std::this_thread::get_id();
            try {
                status = body(h.get(), r);
            } catch (const ExitCalled&) {
                status = refused(h.get(), r);
            } catch (const Closed&) {
                status = r.fail(KV_E_CLOSED, kClosedDuring);
            } catch (const std::bad_alloc&) {
                status = r.fail(KV_E_MEMORY, "out of memory");
            } catch (const std::exception& e) {  // nothing may leave a C function
                status = r.fail(KV_E_REFUSED, e.what());
            }
            h->owner = std::thread::id();
        }
    }
    Slot& slot = leave(id, r);
    if (status == KV_OK) after(slot);
    return status;
}

template <typename Body>
int onHandle(const kv_device* device, Body body) {
    return onHandle(device, body, [](Slot&) {});
}

}  // namespace

extern "C" {

const char* kv_status_name(int status) {
    static const char* const names[] = {"ok",         "argument", "no backend", "locked",   "refused",
                                        "unreadable", "syntax",   "unsupported", "mismatch", "cancelled",
                                        "dead chain", "bsdl",     "sim",        "memory",   "reentrant",
                                        "closed"};
    return status >= 0 && status < static_cast<int>(sizeof names / sizeof names[0]) ? names[status] : "unknown";
}

int kv_open(const char* fpga, const char* pci_address, unsigned flags, double frequency_hz, kv_device** device) {
    if (!device) return KV_E_ARGUMENT;
    *device = nullptr;
    std::shared_ptr<Handle> h;
    try {
        h = std::make_shared<Handle>();
        Registry& r = registry();
        std::lock_guard<std::mutex> lock(r.mutex);
        h->id = r.next++;
        r.live.emplace(h->id, h);
    } catch (const std::bad_alloc&) {
        return KV_E_MEMORY;
    }
    *device = tokenOf(h->id);
    return onHandle(*device, [&](Handle* d, Reply& r) {
        if (!fpga || !pci_address) return r.fail(KV_E_ARGUMENT, "no device name or no PCI address");
        d->fpga = fpga;
        if (!device::parsePciAddress(pci_address, &d->at)) return r.fail(KV_E_ARGUMENT, device::notAPciAddress(pci_address));
        if (!(frequency_hz == 0 || (frequency_hz >= jtag::Player::kMinHz && frequency_hz <= 1e12)))
            return r.fail(KV_E_ARGUMENT, "a TCK ceiling of " + std::to_string(frequency_hz) + " Hz (0, or 1 Hz to 1 THz)");
        d->testMode = (flags & KV_TEST_MODE) != 0;
        d->frequencyHz = frequency_hz;
        std::string why;
        if (!kv::boardBeforeOpen(d->fpga, &why)) return r.fail(KV_E_SIM, why);
        d->onBoard = true;
        static bool atExit = std::atexit(closeAtExit) == 0;
        (void)atExit;
        try {
            device::Refusal why;
            d->intf = device::findDevice(d->fpga, d->at, d->testMode, true, &why);
            if (!d->intf) {
                closeDevice(d);
                return why == device::Refusal::lockHeld ? r.fail(KV_E_LOCKED, XILINTF_LOCKED_MESSAGE)
                                                        : r.fail(KV_E_NO_BACKEND, device::noBackend(d->fpga));
            }
            takePins(d);
        } catch (const ExitCalled&) {
            closeDevice(d);
            return refused(d, r);
        } catch (...) {
            closeDevice(d);  // the lock dropped, the board's count right, whatever ended the open
            throw;
        }
        return r.ok();
    });
}

int kv_close(kv_device* device) {
    if (!device) return KV_OK;
    uintptr_t id = idOf(device);
    std::shared_ptr<Handle> h;
    bool reentrant = false;
    {
        Registry& r = registry();
        std::lock_guard<std::mutex> lock(r.mutex);
        auto it = r.live.find(id);
        if (it != r.live.end()) {
            reentrant = isOwner(*it->second);
            if (!reentrant) {
                h = std::move(it->second);
                r.live.erase(it);
            }
        }
    }
    if (!h) {  // the status, and its message for kv_message
        Reply r;
        int status = reentrant ? r.fail(KV_E_REENTRANT, kReentrant) : r.fail(KV_E_CLOSED, kNotOpen);
        leave(id, r);
        return status;
    }
    h->closing = true;  // a call running in another thread ends at its next look-in
    {
        Call call;
        closeDevice(h.get());
    }
    slots.erase(id);
    return KV_OK;
}

const char* kv_message(const kv_device* device) {
    if (!device) return "no device";
    auto it = slots.find(idOf(device));
    if (it != slots.end()) return it->second.message.c_str();
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    return r.live.count(idOf(device)) ? "" : kNotOpen;
}

int kv_add_bsdl(kv_device* device, const char* path) {
    return onHandle(device, [&](Handle* d, Reply& r) {
        if (!path) return r.fail(KV_E_ARGUMENT, "no BSDL path");
        struct stat st;
        if (::stat(path, &st) != 0) return r.fail(KV_E_BSDL, std::string(path) + ": " + std::strerror(errno));
        if (S_ISDIR(st.st_mode)) {
            d->catalogue.addDirectory(path);
        } else {
            jtag::bsdl::Error error;
            if (!d->catalogue.addFile(path, &error)) return r.fail(KV_E_BSDL, error.text());
        }
        d->discovery.reset();  // found again with the files
        return r.ok();
    });
}

int kv_irlen_is(kv_device* device, unsigned position, unsigned length) {
    return onHandle(device, [&](Handle* d, Reply& r) {
        if (position >= d->discoveryOptions.maxDevices)
            return r.fail(KV_E_ARGUMENT, "position " + std::to_string(position) + " is past any chain (at most " +
                                             std::to_string(d->discoveryOptions.maxDevices) + " devices)");
        if (length < 2 || length > 999)
            return r.fail(KV_E_ARGUMENT, "an IR length of " + std::to_string(length) + " bits (2 to 999)");
        d->discoveryOptions.irLength[position] = length;
        d->discovery.reset();
        return r.ok();
    });
}

int kv_discover(kv_device* device, const char** json) {
    return onHandle(
        device,
        [&](Handle* d, Reply& r) {
            if (int status = needDevice(d, r)) return status;
            int status = discover(d, r);
            if (status != KV_OK) return status;
            r.answer = jtag::discoveryJson(*d->discovery);
            r.hasAnswer = true;
            return r.ok();
        },
        [&](Slot& s) {
            if (json) *json = s.answer.c_str();
        });
}

int kv_shift_ir(kv_device* device, unsigned position, uint32_t nbits, const uint8_t* in, uint8_t* out) {
    return onHandle(device, [&](Handle* d, Reply& r) {
        if (int status = discovered(d, r, position)) return status;
        unsigned length = d->discovery->devices[position].irLength;
        if (nbits != length)
            return r.fail(KV_E_ARGUMENT, "device " + std::to_string(position) + "'s instruction register has " +
                                             std::to_string(length) + " bits, not " + std::to_string(nbits));
        auto captured = d->access->instructions({{position, bitsFrom(in, nbits)}}, out != nullptr);
        if (out) bitsTo(captured[position], out);
        return r.ok();
    });
}

int kv_shift_dr(kv_device* device, unsigned position, uint32_t nbits, const uint8_t* in, uint8_t* out) {
    return onHandle(device, [&](Handle* d, Reply& r) {
        if (nbits == 0 || nbits > KV_MAX_BITS)
            return r.fail(KV_E_ARGUMENT, "a data register of " + std::to_string(nbits) + " bits (1 to " +
                                             std::to_string(KV_MAX_BITS) + ")");
        if (int status = discovered(d, r, position)) return status;
        auto captured = d->access->data({{position, bitsFrom(in, nbits)}});
        bitsTo(captured[position], out);
        return r.ok();
    });
}

int kv_sample(kv_device* device, unsigned position, const char** json) {
    return onHandle(
        device,
        [&](Handle* d, Reply& r) {
            if (int status = discovered(d, r, position)) return status;
            const jtag::DeviceFacts& f = d->discovery->devices[position];
            std::string p = std::to_string(position);
            if (!f.bsdl) return r.fail(KV_E_BSDL, "device " + p + " has no BSDL file (kv_add_bsdl)");
            jtag::BitVector sample = jtag::bsdlOpcode(*f.bsdl, {"SAMPLE", "PRELOAD"});
            if (f.bsdl->boundaryLength == 0 || sample.empty())
                return r.fail(KV_E_BSDL, "device " + p + " (" + f.bsdl->entity + ") has no boundary register");
            d->access->instructions({{position, sample}});
            auto captured = d->access->data({{position, jtag::BitVector(f.bsdl->boundaryLength)}});
            d->tap->reset();  // back to the device's own function
            r.answer = jtag::sampleJson(position, *f.bsdl, jtag::portLevels(*f.bsdl, captured[position]));
            r.hasAnswer = true;
            return r.ok();
        },
        [&](Slot& s) {
            if (json) *json = s.answer.c_str();
        });
}

int kv_play(kv_device* device, const char* path, int format, kv_progress_fn progress, void* user,
            kv_play_result* result) {
    return onHandle(device, [&](Handle* d, Reply& r) {
        r.setsMismatch = true;
        if (int status = needDevice(d, r)) return status;
        if (!path) return r.fail(KV_E_ARGUMENT, "no file");
        PlayInput input;
        std::string why;
        if (!input.open(path, &why)) return r.fail(KV_E_UNREADABLE, std::string(path) + ": " + why);
        return play(d, r, input.file(), input.size(), path, format, progress, user, result, &input);
    });
}

int kv_play_buffer(kv_device* device, const void* data, size_t size, const char* name, int format,
                   kv_progress_fn progress, void* user, kv_play_result* result) {
    return onHandle(device, [&](Handle* d, Reply& r) {
        r.setsMismatch = true;
        if (int status = needDevice(d, r)) return status;
        if (!data && size) return r.fail(KV_E_ARGUMENT, "no buffer");
        std::string label = name ? name : "buffer";
        // fmemopen takes no empty buffer; an empty temporary file is the same input.
        FILE* f = size ? ::fmemopen(const_cast<void*>(data), size, "r") : std::tmpfile();
        if (!f) return r.fail(KV_E_MEMORY, label + ": " + std::strerror(errno));
        std::unique_ptr<FILE, int (*)(FILE*)> closer(f, std::fclose);
        return play(d, r, f, size, label, format, progress, user, result, nullptr);
    });
}

int kv_mismatch(kv_device* device, kv_mismatch_info* info) {
    bool had = false;
    int status = onHandle(
        device,
        [&](Handle*, Reply& r) {
            if (!info) return r.fail(KV_E_ARGUMENT, "no kv_mismatch_info");
            return r.ok();
        },
        [&](Slot& s) {
            had = s.hasMismatch;
            if (!had) return;
            info->file = s.mismatchFile.c_str();
            info->byte_offset = s.mismatchPlace.byte ? 1 : 0;
            info->where = s.mismatchPlace.at;
            info->statement = s.mismatchStatement.c_str();
            info->nbits = s.mismatchBits;
            info->expected = s.expected.c_str();
            info->mask = s.mask.c_str();
            info->actual = s.actual.c_str();
        });
    if (status != KV_OK || had) return status;
    slots[idOf(device)].message = "the last play on the handle from this thread had no TDO mismatch";
    return KV_E_ARGUMENT;
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
    return onHandle(device, [&](Handle*, Reply& r) {
        if (!text && size) return r.fail(KV_E_ARGUMENT, "no text buffer");
        std::string pins, why;
        if (!kv::boardPins(&pins, &why)) return r.fail(KV_E_SIM, why);
        if (size) std::snprintf(text, size, "%s", pins.c_str());
        return r.ok();
    });
}

}  // extern "C"
