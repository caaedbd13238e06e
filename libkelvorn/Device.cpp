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
#include <set>
#include <string>
#include <thread>
#include <unordered_map>

#include "device/PciAddress.h"
#include "device/Session.h"
#include "jtag/ChainAccess.h"
#include "jtag/CheckedPlay.h"
#include "jtag/Commands.h"
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
    bool iKnowTheBoard = false;  // KV_I_KNOW_THE_BOARD: drive and connect on any device
    double frequencyHz = 0;
    XilIntf* intf = nullptr;
    bool onBoard = false;  // counted by boardBeforeOpen
    // While the pins are taken; a signal that ends the process gives them
    // back, and one the program takes (Python's Ctrl-C) too: they are then
    // taken again by the next call that needs them.
    std::unique_ptr<device::SelectedDevice> selection;
    std::unique_ptr<jtag::Tap> tap;

    jtag::BsdlCatalogue catalogue;  // kv_add_bsdl's files and directories, in order
    std::set<const void*> given;    // the files kv_add_bsdl named: drive and connect may use them
    std::optional<std::string> bsdlPath;  // kv_bsdl_path's directories; none: the default path
    // A drive holds the pins of a device in EXTEST until kv_release, kv_close
    // or the next call that moves the chain.
    bool driving = false;
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

// The Tap's look-in during a call: a close from another thread ends the
// call; a play's progress goes on.
void lookIn(void* context) {
    Handle* h = static_cast<Handle*>(context);
    if (h->closing.load(std::memory_order_relaxed)) throw Closed{};
    if (h->onCycles) h->onCycles();
}

// A drive's end: every device back at its function (Test-Logic-Reset),
// with no look-in that could end the reset half done.
void endDrive(Handle* d) {
    if (!d->driving) return;
    d->driving = false;
    if (!d->selection || d->selection->released()) return;  // the pins were given back: nothing more moves
    d->tap->hookIs(nullptr, nullptr);
    try {
        d->tap->reset();
    } catch (const ExitCalled&) {
    }
    d->tap->hookIs(lookIn, d);
}

// Gives the pins back: inputs again, routing undone; a drive ended first.
void release(Handle* d) {
    if (!d->selection) return;
    endDrive(d);
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
    d->tap->ceilingHzIs(d->frequencyHz);
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

// Every call that moves the chain: the device open, a drive ended.
int needDevice(Handle* d, Reply& r) {
    if (!d->intf) return r.fail(KV_E_ARGUMENT, "the device did not open");
    endDrive(d);
    return KV_OK;
}

// A chain command's status as the library's.
int kvStatus(int chain) {
    switch (chain) {
        case jtag::kChainOk: return KV_OK;
        case jtag::kChainDead: return KV_E_DEAD_CHAIN;
        case jtag::kChainBadBsdl: return KV_E_BSDL;
        case jtag::kChainDriveRefused: return KV_E_DRIVE_REFUSED;
        case jtag::kChainNotConnected: return KV_E_NOT_CONNECTED;
        case jtag::kChainFaultFound: return KV_E_FAULT_FOUND;
        case jtag::kChainBadNetlist: return KV_E_NETLIST;
        default: return KV_E_ARGUMENT;
    }
}

int failed(Reply& r, const jtag::CommandResult& c) { return r.fail(kvStatus(c.status), c.error); }

// Discovery, when it has not run: the lengths the shifts need.
int discover(Handle* d, Reply& r) {
    takePins(d);
    // The files and directories added first, then the search path.
    jtag::BsdlCatalogue catalogue = d->catalogue;
    catalogue.addPath(d->bsdlPath ? *d->bsdlPath : jtag::defaultBsdlPath());
    jtag::Discovery found = jtag::discover(*d->tap, catalogue, d->discoveryOptions);
    auto [problem, why] = jtag::discoveryProblem(found, d->discoveryOptions.maxDevices);
    if (problem != jtag::kChainOk) return r.fail(kvStatus(problem), why);
    d->discovery = std::move(found);
    std::vector<unsigned> lengths;
    for (const jtag::DeviceFacts& f : d->discovery->devices) lengths.push_back(f.irLength);
    d->access = std::make_unique<jtag::ChainAccess>(*d->tap, lengths);
    return r.ok();
}

// The pins taken and the chain discovered (once).
int chainReady(Handle* d, Reply& r) {
    if (int status = needDevice(d, r)) return status;
    takePins(d);
    if (!d->discovery) return discover(d, r);
    return KV_OK;
}

int discovered(Handle* d, Reply& r, unsigned position) {
    if (int status = chainReady(d, r)) return status;
    size_t n = d->discovery->devices.size();
    if (position >= n)
        return r.fail(KV_E_ARGUMENT, "no device at position " + std::to_string(position) + " (the chain has " +
                                         std::to_string(n) + ")");
    return KV_OK;
}

// The chain commands over the handle's discovery.
jtag::ChainCommands commandsOn(Handle* d) {
    jtag::CommandHints hints;
    hints.bsdl = "kv_add_bsdl";
    hints.give = "kv_add_bsdl (a file, not a directory), or open with KV_I_KNOW_THE_BOARD";
    return jtag::ChainCommands(*d->tap, *d->discovery, d->given, d->iKnowTheBoard, hints);
}

// The chain ready and DEV (a position or an entity name) found on it.
int resolved(Handle* d, Reply& r, const char* device, unsigned* position) {
    if (!device) return r.fail(KV_E_ARGUMENT, "no device named");
    if (int status = chainReady(d, r)) return status;
    return failed(r, commandsOn(d).resolve(device, position));
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

int playStatus(jtag::PlayOutcome::End end) {
    switch (end) {
        case jtag::PlayOutcome::played: return KV_OK;
        case jtag::PlayOutcome::mismatch: return KV_E_MISMATCH;
        case jtag::PlayOutcome::unreadable:
        case jtag::PlayOutcome::changed: return KV_E_UNREADABLE;
        case jtag::PlayOutcome::syntax: return KV_E_SYNTAX;
        case jtag::PlayOutcome::unsupported: return KV_E_UNSUPPORTED;
        case jtag::PlayOutcome::memory: return KV_E_MEMORY;
    }
    return KV_E_UNSUPPORTED;
}

// The whole file checked (no pin moves), then played; the pins given back
// at the end however it ends.
int play(Handle* d, Reply& r, FILE* f, uint64_t size, const std::string& name, int format, kv_progress_fn progress,
         void* user, kv_play_result* result, PlayInput* input) {
    if (result) *result = kv_play_result{};
    if (format != KV_FORMAT_AUTO && format != KV_FORMAT_SVF && format != KV_FORMAT_XSVF)
        return r.fail(KV_E_ARGUMENT, "format " + std::to_string(format) + " is none of KV_FORMAT_AUTO, _SVF, _XSVF");
    jtag::VectorFormat fmt = format == KV_FORMAT_SVF    ? jtag::VectorFormat::svf
                             : format == KV_FORMAT_XSVF ? jtag::VectorFormat::xsvf
                                                        : jtag::sniffFormat(f);
    jtag::CheckedPlay checked(f, fmt, name, input, d->frequencyHz);
    jtag::PlayOutcome outcome = checked.check();
    if (!outcome.ok()) return r.fail(playStatus(outcome.end), outcome.message);
    if (!checked.unchanged(&outcome)) return r.fail(playStatus(outcome.end), outcome.message);

    takePins(d);
    uint64_t start = jtag::systemClock().now(), shown = start, shownCycles = d->tap->cycles();
    // After each statement (the player) and inside long ones (the Tap's hook).
    checked.onProgress = d->onCycles = [&] {
        if (d->closing.load(std::memory_order_relaxed)) throw Closed{};
        if (!progress) return;
        uint64_t now = jtag::systemClock().now(), cycles = d->tap->cycles();
        if (now - shown < kProgressNs && cycles - shownCycles < kProgressCycles) return;
        shown = now;
        shownCycles = cycles;
        if (progress(user, std::min(checked.reader().bytesRead(), size), size, checked.stats().bits))
            throw Cancelled{};
    };
    // The first mismatch stops the play; kv_mismatch tells where.
    checked.onMismatch = [&](const jtag::Action& a, const std::string&) {
        Slot& m = r.mismatch;
        m.hasMismatch = true;
        m.mismatchFile = name;
        m.mismatchPlace = a.place;
        m.mismatchStatement = a.statement;
        m.mismatchBits = static_cast<uint32_t>(a.tdi.size());
        m.expected = a.tdo.hex();
        m.mask = a.mask.hex();
        m.actual = checked.player().tdo().hex();
        return false;
    };
    int status = KV_OK;
    try {
        outcome = checked.play(*d->tap);
        if (!outcome.ok())
            status = r.fail(playStatus(outcome.end), outcome.message);
        else if (progress && progress(user, size, size, checked.stats().bits))
            throw Cancelled{};
    } catch (const Closed&) {
        status = r.fail(KV_E_CLOSED, kClosedDuring);
    } catch (const Cancelled&) {
        status = r.fail(KV_E_CANCELLED, name + ": cancelled by the progress callback after " +
                                            std::to_string(checked.stats().bits) + " bits; pins given back");
    } catch (...) {
        d->onCycles = nullptr;
        release(d);
        throw;
    }
    d->onCycles = nullptr;
    release(d);
    if (result) {
        result->statements = checked.reader().statements();
        result->scans = checked.stats().scans;
        result->bits = checked.stats().bits;
        result->tck_cycles = checked.stats().cycles;
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
    if (status == KV_OK || r.hasAnswer) after(slot);  // an answer also with a status: kv_connect's
    return status;
}

// The after-part of a call that hands out its JSON document.
auto handsOut(const char** json) {
    return [json](Slot& s) {
        if (json) *json = s.answer.c_str();
    };
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
                                        "closed",     "drive refused", "not connected", "fault found", "netlist"};
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
        d->iKnowTheBoard = (flags & KV_I_KNOW_THE_BOARD) != 0;
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
            auto file = std::make_shared<jtag::bsdl::Device>();
            jtag::bsdl::Error error;
            if (!jtag::bsdl::readFile(path, file.get(), &error)) return r.fail(KV_E_BSDL, error.text());
            d->given.insert(file.get());  // named by the user: drive and connect may use it
            d->catalogue.add(std::move(file));
        }
        d->discovery.reset();  // found again with the files
        return r.ok();
    });
}

int kv_bsdl_path(kv_device* device, const char* dirs) {
    return onHandle(device, [&](Handle* d, Reply& r) {
        if (dirs)
            d->bsdlPath = dirs;
        else
            d->bsdlPath.reset();
        d->discovery.reset();
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
        handsOut(json));
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

// SAMPLE on a device already found on the chain.
int sampleAt(Handle* d, Reply& r, unsigned position) {
    jtag::SampleResult sample = commandsOn(d).sample(position);
    if (!sample.ok()) return failed(r, sample);
    r.answer = jtag::sampleJson(sample);
    r.hasAnswer = true;
    return r.ok();
}

int kv_sample(kv_device* device, unsigned position, const char** json) {
    return onHandle(
        device,
        [&](Handle* d, Reply& r) {
            if (int status = discovered(d, r, position)) return status;
            return sampleAt(d, r, position);
        },
        handsOut(json));
}

int kv_sample_device(kv_device* device, const char* name, const char** json) {
    return onHandle(
        device,
        [&](Handle* d, Reply& r) {
            unsigned position;
            if (int status = resolved(d, r, name, &position)) return status;
            return sampleAt(d, r, position);
        },
        handsOut(json));
}

int kv_usercode(kv_device* device, const char* name, const char** json) {
    return onHandle(
        device,
        [&](Handle* d, Reply& r) {
            unsigned position;
            if (int status = resolved(d, r, name, &position)) return status;
            jtag::UsercodeResult code = commandsOn(d).usercode(position);
            if (!code.ok()) return failed(r, code);
            r.answer = jtag::usercodeJson(code);
            r.hasAnswer = true;
            return r.ok();
        },
        handsOut(json));
}

int kv_drive(kv_device* device, const char* name, const char* const* port_levels, size_t n, double hold_s,
             const char** json) {
    return onHandle(
        device,
        [&](Handle* d, Reply& r) {
            if (!port_levels && n) return r.fail(KV_E_ARGUMENT, "no port levels");
            if (!(hold_s < 0 || hold_s <= 86400))  // a NaN too
                return r.fail(KV_E_ARGUMENT, "a hold of " + std::to_string(hold_s) + " s (0 to 86400, or < 0: until kv_release)");
            std::vector<std::string> words;
            for (size_t i = 0; i < n; ++i) {
                if (!port_levels[i]) return r.fail(KV_E_ARGUMENT, "port level " + std::to_string(i) + " is NULL");
                words.push_back(port_levels[i]);
            }
            if (words.empty()) return r.fail(KV_E_ARGUMENT, "no port levels");
            unsigned position;
            if (int status = resolved(d, r, name, &position)) return status;
            jtag::ChainCommands commands = commandsOn(d);
            jtag::DrivePlan plan = commands.planDrive(position, words);
            if (!plan.ok()) return failed(r, plan);
            d->driving = true;  // from the first bit shifted: whatever ends the call resets the chain
            jtag::DriveResult driven = commands.applyDrive(plan);
            r.answer = jtag::driveJson(driven, hold_s < 0 ? -1 : hold_s);
            r.hasAnswer = true;
            if (hold_s >= 0) {
                // Held in slices, so that a close from another thread ends it soon.
                uint64_t end = jtag::systemClock().now() + static_cast<uint64_t>(std::llround(hold_s * 1e9));
                for (uint64_t now; (now = jtag::systemClock().now()) < end;) {
                    if (d->closing.load()) throw Closed{};
                    jtag::systemClock().sleep(std::min<uint64_t>(end - now, 10000000));
                }
                endDrive(d);
            }
            return r.ok();
        },
        handsOut(json));
}

int kv_release(kv_device* device) {
    return onHandle(device, [&](Handle* d, Reply& r) {
        endDrive(d);
        return r.ok();
    });
}

int kv_connect(kv_device* device, const char* from, const char* to, const char** json) {
    return onHandle(
        device,
        [&](Handle* d, Reply& r) {
            if (!from || !to) return r.fail(KV_E_ARGUMENT, "no DEV.PORT to connect");
            if (int status = chainReady(d, r)) return status;
            jtag::ChainCommands commands = commandsOn(d);
            d->driving = true;  // the chain is reset whatever ends the call
            jtag::ConnectResult c = commands.connect(from, to);
            d->driving = false;  // connect ends in Test-Logic-Reset
            if (c.result.empty()) return failed(r, c);
            r.answer = jtag::connectJson(c);
            r.hasAnswer = true;
            return c.ok() ? r.ok() : failed(r, jtag::CommandResult{c.status, c.from + " -> " + c.to + ": " + c.result});
        },
        handsOut(json));
}

int kv_test_netlist(kv_device* device, const kv_test_request* request, const char** json) {
    return onHandle(
        device,
        [&](Handle* d, Reply& r) {
            if (!request || !request->netlist) return r.fail(KV_E_ARGUMENT, "no netlist");
            jtag::TestRequest q;
            q.netlist = request->netlist;
            auto words = [&](const char* const* items, size_t n, std::vector<std::string>* out) {
                for (size_t i = 0; i < n; ++i) {
                    if (!items || !items[i]) return false;
                    out->push_back(items[i]);
                }
                return true;
            };
            if (!words(request->parts, request->n_parts, &q.parts) ||
                !words(request->packages, request->n_packages, &q.packages) ||
                !words(request->pulls, request->n_pulls, &q.pulls) || !words(request->power, request->n_power, &q.power))
                return r.fail(KV_E_ARGUMENT, "a null string among the test's parts, packages, pulls or power nets");
            if (int status = chainReady(d, r)) return status;
            jtag::ChainCommands commands = commandsOn(d);
            d->driving = true;  // the chain is reset whatever ends the call
            jtag::TestResult t = commands.test(q);
            d->driving = false;  // the test ends in Test-Logic-Reset
            if (!t.ok() && t.status != jtag::kChainFaultFound) return failed(r, t);
            if (request->junit) {
                std::string xml = jtag::interconnect::junit(t.report, q.netlist);
                FILE* f = std::fopen(request->junit, "w");
                bool written = f && std::fwrite(xml.data(), 1, xml.size(), f) == xml.size();
                if (f && std::fclose(f) != 0) written = false;
                if (!written) return r.fail(KV_E_UNREADABLE, std::string("cannot write ") + request->junit);
            }
            r.answer = jtag::testJson(t);
            r.hasAnswer = true;
            return t.ok() ? r.ok() : failed(r, t);
        },
        handsOut(json));
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
