#include "TestSupport.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "jtag/Xsvf.h"
#include "os/FakeShell.h"
#include "xilinx/XilTrace.h"

namespace {
constexpr int kDevMemFd = 1000;  // the descriptor the fake open hands out
}

FakeBoard::FakeBoard() {
    char tmpl[] = "/tmp/kelvorn-test-XXXXXX";
    lockDir = ::mkdtemp(tmpl);
    Os::Hooks& h = Os::hooks();
    h.system = [this](const char* c) {
        events.push_back(std::string("shell ") + c);
        int status = Os::fakeCmdlineShell(c, cmdline);
        return status << 8;  // as system(3) reports an exit status
    };
    h.cpuid = [this](U32 leaf) { return leaf == 0 ? leaf0 : leaf == 1 ? leaf1 : Os::Cpuid{}; };
    h.open = [this](const char* p, int) {
        events.push_back(std::string("open ") + p);
        if (std::string(p) != "/dev/mem" || devMemOpenErrno) {
            errno = devMemOpenErrno ? devMemOpenErrno : ENOENT;
            return -1;
        }
        return kDevMemFd;
    };
    h.mmap = [this](void*, size_t len, int, int, int fd, off_t off) -> void* {
        char buf[64];
        std::snprintf(buf, sizeof buf, "mmap 0x%zx 0x%llx", len, static_cast<unsigned long long>(off));
        events.push_back(buf);
        if (fd != kDevMemFd) {
            errno = EBADF;
            return MAP_FAILED;
        }
        if (devMem.size() < len) devMem.resize(len);
        return devMem.data();
    };
    h.pageSize = [] { return 4096L; };
    h.sleep = [this](unsigned s) {
        events.push_back("sleep " + std::to_string(s));
        return 0u;
    };
    h.usleep = [this](unsigned us) {
        events.push_back("usleep " + std::to_string(us));
        return 0;
    };
    h.creat = [this](const char* p, mode_t m) {
        events.push_back(std::string("lock ") + p);
        std::string name(p);
        return ::creat((lockDir + "/" + name.substr(name.rfind('/') + 1)).c_str(), m);
    };
    h.fopen = [this](const char* p, const char* mode) -> FILE* {
        events.push_back(std::string("fopen ") + p);
        for (auto& f : files_)
            if (f.first == p) return std::fopen(f.second.c_str(), mode);
        errno = ENOENT;
        return nullptr;
    };
    hams.onOpen = [this](const HamDesc& s) { events.push_back("window " + s.name + " " + s.fileName); };
}

FakeBoard::~FakeBoard() {
    Os::resetHooks();
    XilIntf_testModeIs(0);
    std::string cmd = "rm -rf '" + lockDir + "'";
    int ignored = std::system(cmd.c_str());
    (void)ignored;
}

void FakeBoard::cpuIs(unsigned family, unsigned model) {
    unsigned ext = family - 0xF;
    leaf1.eax = (ext << 20) | ((model >> 4) << 16) | (0xFu << 8) | ((model & 0xF) << 4);
}

std::vector<std::string> FakeBoard::eventsStartingWith(const std::string& prefix) const {
    std::vector<std::string> out;
    for (auto& e : events)
        if (e.compare(0, prefix.size(), prefix) == 0) out.push_back(e);
    return out;
}

void FakeBoard::fileIs(const std::string& path, const std::string& contents) {
    std::string real = lockDir + "/file" + std::to_string(files_.size());
    std::ofstream(real, std::ios::binary) << contents;
    files_.emplace_back(path, real);
}

TraceLevels::TraceLevels(unsigned mask) : saved_(_defaultTraceHandle().levelMask()) {
    _defaultTraceHandle().levelMaskIs(mask);
    ::testing::internal::CaptureStderr();
}
TraceLevels::~TraceLevels() { _defaultTraceHandle().levelMaskIs(saved_); }
std::string TraceLevels::text() { return ::testing::internal::GetCapturedStderr(); }

Accesses& Accesses::read(U32 offset, U32 value, int width) {
    push_back(FakeHamImpl::Access{'R', width ? width : width_, offset, value}.str());
    return *this;
}

Accesses& Accesses::write(U32 offset, U32 value, int width) {
    push_back(FakeHamImpl::Access{'W', width ? width : width_, offset, value}.str());
    return *this;
}

Accesses& Accesses::rmw(U32 offset, std::initializer_list<U32> values) {
    for (auto v = values.begin(); v + 1 < values.end(); ++v) read(offset, v[0]).write(offset, v[1]);
    return *this;
}

void expectTdoFollows(FakeHamImpl& regs, XilIntf* intf, U32 offset, U32 bit, int width) {
    regs.poke(offset, bit, width);
    EXPECT_EQ(XilIntf_tdo(intf), 1) << "TDO's bit set";
    regs.poke(offset, ~bit, width);
    EXPECT_EQ(XilIntf_tdo(intf), 0) << "TDO's bit clear";
}

std::vector<std::string> traceLines(const std::string& err) {
    std::vector<std::string> lines;
    std::istringstream in(err);
    for (std::string line; std::getline(in, line);) {
        size_t from = line.find(' '), to = line.find(' ', from + 1);
        lines.push_back(line.erase(from, to - from));
    }
    return lines;
}

MemoryReader::MemoryReader(const std::string& file, bool xsvf, size_t maxBits)
    // fmemopen takes no empty buffer.
    : file_(file.empty() ? std::tmpfile() : fmemopen(const_cast<char*>(file.data()), file.size(), "rb")) {
    if (xsvf)
        reader_.reset(new jtag::XsvfReader(file_, maxBits));
    else
        reader_.reset(new jtag::SvfReader(file_, maxBits));
}

MemoryReader::~MemoryReader() { std::fclose(file_); }

const std::string kBsdlData = std::string(KELVORN_SOURCE_DIR) + "/tests/data/bsdl/";

jtag::bsdl::Device bsdlData(const char* name) {
    jtag::bsdl::Device d;
    jtag::bsdl::Error e;
    EXPECT_TRUE(jtag::bsdl::readFile(kBsdlData + name, &d, &e)) << e.text();
    return d;
}
