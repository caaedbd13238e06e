// The fake surroundings of one test: every OS call and register window of
// the module goes to in-memory stand-ins, and what the module did is kept
// in order, so that tests assert exact sequences. Nothing here reaches this
// machine's /proc/cmdline, CPU, /dev/mem, /var/lock or I/O ports.
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "ham/FakeHam.h"
#include "jtag/Bsdl.h"
#include "jtag/Svf.h"
#include "os/Os.h"
#include "xilinx/XilIntfC.h"

// The assertions that guard the constant pin tables are compiled out under
// NDEBUG (Release builds), where the call they stop would read past a
// table: a test of one is skipped there instead of run.
#ifdef NDEBUG
#define SKIP_WITHOUT_ASSERTIONS() GTEST_SKIP() << "assertions are compiled out (NDEBUG)"
#else
#define SKIP_WITHOUT_ASSERTIONS() static_cast<void>(0)
#endif

class FakeBoard {
  public:
    FakeBoard();
    ~FakeBoard();
    FakeBoard(const FakeBoard&) = delete;
    FakeBoard& operator=(const FakeBoard&) = delete;

    // The kernel command line the fake shell's grep commands see.
    std::string cmdline;
    // What CPUID leaves 0 and 1 report.
    Os::Cpuid leaf0{1, 0, 0, 0};
    Os::Cpuid leaf1{};
    // Sets leaf 1 for an AMD-style family (>= 0xF) and model.
    void cpuIs(unsigned family, unsigned model);

    // Memory that an mmap of /dev/mem returns (sized on demand), and the
    // errno that open("/dev/mem") fails with instead, when non-zero.
    std::vector<unsigned char> devMem;
    int devMemOpenErrno = 0;

    // Register windows.
    FakeHams hams;

    // In order: "lock <path>", "window <name> <file>", "shell <command>",
    // "open <path>", "mmap <length> <offset>", "sleep <s>", "usleep <us>",
    // "fopen <path>".
    std::vector<std::string> events;
    std::vector<std::string> eventsStartingWith(const std::string& prefix) const;

    // Lock files land in this private directory, under the requested path's
    // last component.
    std::string lockDir;

    // Files that fopen() is sent to instead: requested path -> real path.
    // Unlisted paths fail with ENOENT.
    void fileIs(const std::string& path, const std::string& contents);

  private:
    std::vector<std::pair<std::string, std::string>> files_;
};

// The trace mask of the module's handle for the life of a scope, with
// stderr captured from the start until text() takes it.
class TraceLevels {
  public:
    explicit TraceLevels(unsigned mask);
    ~TraceLevels();
    std::string text();

  private:
    unsigned saved_;
};

// An expected FakeHamImpl::log(), built in order: Accesses().read(0x640, 8)
// .rmw(0x62c, {a, b, c}) is "R32 0x640=0x8", "R32 0x62c=a", "W32 0x62c=b",
// "R32 0x62c=b", "W32 0x62c=c".
class Accesses : public std::vector<std::string> {
  public:
    explicit Accesses(int width = 32) : width_(width) {}
    Accesses& read(U32 offset, U32 value, int width = 0);  // 0: the builder's width
    Accesses& write(U32 offset, U32 value, int width = 0);
    // Read-modify-writes of one register, each reading what the one before wrote.
    Accesses& rmw(U32 offset, std::initializer_list<U32> values);

  private:
    int width_;
};

// TDO read through the interface twice: with `bit` of the register at `offset` set, then with
// every other bit set, so a read of the wrong bit or register is caught.
void expectTdoFollows(FakeHamImpl& regs, XilIntf* intf, U32 offset, U32 bit, int width = 32);

// The trace lines in captured stderr without their file and line:
// "Xilinx/3 tckIs: tckIs true".
std::vector<std::string> traceLines(const std::string& err);

// A 32-bit number as four bytes, least significant first (XVC's lengths and periods).
inline std::string le(uint32_t v) {
    return {static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16), static_cast<char>(v >> 24)};
}

// The bytes of a binary file (XSVF) written as numbers.
inline std::string bytes(std::initializer_list<int> b) { return std::string(b.begin(), b.end()); }

// The project's BSDL files (tests/data/bsdl): the directory, and one read (a fault fails the test).
extern const std::string kBsdlData;
jtag::bsdl::Device bsdlData(const char* name);

// A reader of SVF text or XSVF bytes held in memory.
// Reads file in place: file must outlive the reader.
class MemoryReader {
  public:
    MemoryReader(const std::string& file, bool xsvf, size_t maxBits = jtag::kMaxScanBits);
    ~MemoryReader();
    MemoryReader(const MemoryReader&) = delete;
    MemoryReader& operator=(const MemoryReader&) = delete;
    jtag::Reader* operator->() { return reader_.get(); }

  private:
    FILE* file_;
    std::unique_ptr<jtag::Reader> reader_;
};
