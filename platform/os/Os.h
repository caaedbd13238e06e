// Operating-system calls the module makes outside the register windows.
// Each goes through a replaceable function, the real call by default, so
// that tests and the board simulator can stand in for the shell, the
// processor's CPUID, /dev/mem, the lock directory and the clock without
// touching this machine's own.
#pragma once
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>

#include "Types.h"

namespace Os {

struct Cpuid {
    U32 eax = 0, ebx = 0, ecx = 0, edx = 0;
};

struct Hooks {
    std::function<int(const char* command)> system;
    std::function<Cpuid(U32 leaf)> cpuid;
    std::function<int(const char* path, int flags)> open;
    std::function<void*(void* addr, size_t length, int prot, int flags, int fd, off_t offset)> mmap;
    std::function<long()> pageSize;
    // The size of the regular file open on fd; -1 for anything else (a
    // device file such as /dev/mem) or when it cannot be told.
    std::function<long long(int fd)> fileSize;
    std::function<unsigned(unsigned seconds)> sleep;
    std::function<int(unsigned microseconds)> usleep;
    std::function<int(const char* path, mode_t mode)> creat;
    std::function<FILE*(const char* path, const char* mode)> fopen;
    // Nanoseconds on the monotonic clock, and a wait until it reads at
    // least deadline: the pacing of TCK under a ceiling.
    std::function<uint64_t()> monotonicNs;
    std::function<void(uint64_t deadline)> waitUntilNs;
    // The end of the process after a failure that makes further work
    // pointless (a lock held, an unknown device, a window that cannot be
    // mapped), once its message is out. A program ends; a library that
    // must not end its caller's process throws here instead.
    std::function<void(int status)> exit;
};

// The hooks in force; assign a member to replace one call.
Hooks& hooks();
// Puts every real call back.
void resetHooks();

inline int system(const char* command) { return hooks().system(command); }
inline Cpuid cpuid(U32 leaf) { return hooks().cpuid(leaf); }
inline int open(const char* path, int flags) { return hooks().open(path, flags); }
inline void* mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) {
    return hooks().mmap(addr, length, prot, flags, fd, offset);
}
inline long pageSize() { return hooks().pageSize(); }
inline long long fileSize(int fd) { return hooks().fileSize(fd); }
inline unsigned sleep(unsigned seconds) { return hooks().sleep(seconds); }
inline int usleep(unsigned microseconds) { return hooks().usleep(microseconds); }
inline int creat(const char* path, mode_t mode) { return hooks().creat(path, mode); }
inline FILE* fopen(const char* path, const char* mode) { return hooks().fopen(path, mode); }
inline uint64_t monotonicNs() { return hooks().monotonicNs(); }
inline void waitUntilNs(uint64_t deadline) { hooks().waitUntilNs(deadline); }
// The exit hook, and std::exit should it return.
[[noreturn]] void exit(int status);

}  // namespace Os
