#include "os/Os.h"
#include "os/SignalGate.h"

#include <cpuid.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>

namespace Os {

// A wait longer than kSleepAbove sleeps until kSpinBelow before its end.
constexpr uint64_t kSleepAbove = 200000, kSpinBelow = 100000;

static uint64_t monotonic() {
    timespec t;
    ::clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000000000u + static_cast<uint64_t>(t.tv_nsec);
}

static Hooks realHooks() {
    Hooks h;
    h.system = [](const char* c) { return std::system(c); };
    h.cpuid = [](U32 leaf) {
        Cpuid r;
        __cpuid(leaf, r.eax, r.ebx, r.ecx, r.edx);
        return r;
    };
    h.open = [](const char* p, int f) { return ::open(p, f); };
    h.mmap = [](void* a, size_t l, int p, int f, int fd, off_t o) { return ::mmap(a, l, p, f, fd, o); };
    h.pageSize = [] { return ::sysconf(_SC_PAGESIZE); };
    h.fileSize = [](int fd) -> long long {
        struct stat st;
        return ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) ? static_cast<long long>(st.st_size) : -1;
    };
    h.sleep = [](unsigned s) { return ::sleep(s); };
    h.usleep = [](unsigned us) { return ::usleep(us); };
    h.creat = [](const char* p, mode_t m) { return ::creat(p, m); };
    h.fopen = [](const char* p, const char* m) { return std::fopen(p, m); };
    h.monotonicNs = monotonic;
    h.waitUntilNs = [](uint64_t deadline) {
        // Sleeping wakes late by the timer slack (50 us by default), so a
        // sleep stops short of the deadline by that much and the rest is spun.
        for (uint64_t now; (now = monotonic()) < deadline;) {
            if (deadline - now > kSleepAbove) {
                uint64_t ns = deadline - now - kSpinBelow;
                timespec t{static_cast<time_t>(ns / 1000000000u), static_cast<long>(ns % 1000000000u)};
                ::nanosleep(&t, nullptr);
            }
        }
    };
    h.exit = [](int status) { std::exit(status); };
    return h;
}

void exit(int status) {
    hooks().exit(status);
    std::exit(status);
}

Hooks& hooks() {
    static Hooks h = realHooks();
    return h;
}

void resetHooks() { hooks() = realHooks(); }

}  // namespace Os

namespace Os {

SignalGate& signalGate() {
    static SignalGate gate;
    return gate;
}

}  // namespace Os
