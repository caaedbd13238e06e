#include "os/Os.h"
#include "os/SignalGate.h"

#include <cpuid.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace Os {

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
    return h;
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
