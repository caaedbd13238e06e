#include "ham/Ham.h"

#include <fcntl.h>
#include <sys/io.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "os/Os.h"

namespace {

HamProvider& provider() {
    static HamProvider p;
    return p;
}

[[noreturn]] void windowFailed(const HamDesc& desc, const char* what, int err) {
    std::fflush(stdout);
    std::fprintf(stderr, "register window %s: %s %s: %s\n", desc.name.c_str(), what,
                 desc.fileName.empty() ? "I/O ports" : desc.fileName.c_str(), std::strerror(err));
    Os::exit(1);
}

// The size of a regular file, or kUnknownExtent for anything else (a device
// file such as /dev/mem says 0).
U64 regularFileBytes(int fd) {
    struct stat st;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return kUnknownExtent;
    return static_cast<U64>(st.st_size);
}

// A file mapped read-write and shared; the mapping lives until the process
// ends. Accessing a mapped page past the end of a file kills the process
// with SIGBUS, and past the mapping with SIGSEGV, so every access is checked
// against what the file holds: one compare beside an access that costs
// 100 ns or more on a bus.
class MappedFileHamImpl : public MemoryHamImpl {
  public:
    static Ptr<HamImpl> make(const HamDesc& desc) {
        int fd = ::open(desc.fileName.c_str(), O_RDWR | O_SYNC);
        if (fd < 0) windowFailed(desc, "cannot open", errno);
        U64 fileBytes = regularFileBytes(fd);
        U64 behind = fileBytes == kUnknownExtent ? kUnknownExtent : fileBytes > desc.base ? fileBytes - desc.base : 0;
        U64 size = desc.size;
        if (size == 0) {
            // The whole file; a file that cannot say its size cannot be mapped whole.
            if (behind == kUnknownExtent) windowFailed(desc, "cannot map the whole of", EINVAL);
            size = behind;
        }
        U64 extent = behind < size ? behind : size;
        void* p = nullptr;
        if (size > 0) {
            p = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, desc.base);
            if (p == MAP_FAILED) windowFailed(desc, "cannot map", errno);
        }
        ::close(fd);  // the mapping keeps the file
        return new MappedFileHamImpl(desc, static_cast<volatile U8*>(p), extent, fileBytes);
    }

    int read32(U32 offset, U32* out) override {
        within(offset, 4);
        return MemoryHamImpl::read32(offset, out);
    }
    int write32(U32 offset, U32 value) override {
        within(offset, 4);
        return MemoryHamImpl::write32(offset, value);
    }
    int read16(U32 offset, U16* out) override {
        within(offset, 2);
        return MemoryHamImpl::read16(offset, out);
    }
    int read8(U32 offset, U8* out) override {
        within(offset, 1);
        return MemoryHamImpl::read8(offset, out);
    }
    int write8(U32 offset, U8 value) override {
        within(offset, 1);
        return MemoryHamImpl::write8(offset, value);
    }
    U64 extent() const override { return extent_; }

  private:
    MappedFileHamImpl(const HamDesc& desc, volatile U8* base, U64 extent, U64 fileBytes)
        : MemoryHamImpl(base), desc_(desc), extent_(extent), fileBytes_(fileBytes) {}

    void within(U32 offset, U32 width) const {
        if (__builtin_expect(U64(offset) + width > extent_, 0)) outside(offset, width);
    }
    [[noreturn]] __attribute__((noinline, cold)) void outside(U32 offset, U32 width) const {
        hamTooSmall(desc_, desc_.base + U64(offset) + width, fileBytes_);
    }

    HamDesc desc_;
    U64 extent_;
    U64 fileBytes_;  // kUnknownExtent for a device file
};

// Processor I/O ports. Permission for all ports is taken on the first
// access, so a window that is never used never asks for it.
class IoPortHamImpl : public HamImpl {
  public:
    explicit IoPortHamImpl(const HamDesc& desc) : desc_(desc) {}

    int read32(U32 port, U32* out) override {
        permit();
        *out = inl(static_cast<unsigned short>(port));
        return 0;
    }
    int write32(U32 port, U32 value) override {
        permit();
        outl(value, static_cast<unsigned short>(port));
        return 0;
    }
    int read16(U32 port, U16* out) override {
        permit();
        *out = inw(static_cast<unsigned short>(port));
        return 0;
    }
    int read8(U32 port, U8* out) override {
        permit();
        *out = inb(static_cast<unsigned short>(port));
        return 0;
    }
    int write8(U32 port, U8 value) override {
        permit();
        outb(value, static_cast<unsigned short>(port));
        return 0;
    }

  private:
    void permit() {
        if (permitted_) return;
        if (::iopl(3) != 0) windowFailed(desc_, "cannot get permission for", errno);
        permitted_ = true;
    }

    HamDesc desc_;
    bool permitted_ = false;
};

}  // namespace

Ham::Ham(String name, HamType type, Ptr<Ham>, U32 base, U32 size, String fileName, String tag) {
    desc_.tag = std::move(tag);
    desc_.name = std::move(name);
    desc_.type = type;
    desc_.base = base;
    desc_.size = size;
    desc_.fileName = std::move(fileName);
    make();
}

Ham::Ham(const HamDesc& desc) : desc_(desc) { make(); }

Ptr<HamImpl> Ham::provided(const HamDesc& desc) { return provider() ? provider()(desc) : nullptr; }

void Ham::make() {
    impl_ = provided(desc_);
    if (impl_) return;
    if (desc_.type == HamType::ioPort)
        impl_ = new IoPortHamImpl(desc_);
    else
        impl_ = MappedFileHamImpl::make(desc_);
}

void Ham::providerIs(HamProvider p) { provider() = std::move(p); }

void Ham::reaches(U64 end) const {
    U64 extent = impl_->extent();
    if (extent == kUnknownExtent || end <= extent) return;
    struct stat st;
    U64 holds = ::stat(desc_.fileName.c_str(), &st) == 0 ? static_cast<U64>(st.st_size) : kUnknownExtent;
    hamTooSmall(desc_, desc_.base + end, holds);
}

void hamTooSmall(const HamDesc& desc, U64 needed, U64 holds) {
    std::fflush(stdout);
    if (holds == kUnknownExtent)
        std::fprintf(stderr, "register window %s: %s ends before 0x%llx, which its registers need\n",
                     desc.name.c_str(), desc.fileName.c_str(), static_cast<unsigned long long>(needed));
    else
        std::fprintf(stderr, "register window %s: %s holds 0x%llx bytes, its registers need 0x%llx\n",
                     desc.name.c_str(), desc.fileName.c_str(), static_cast<unsigned long long>(holds),
                     static_cast<unsigned long long>(needed));
    Os::exit(1);
}

String PciHam::resourcePath(const PciAddress& a, const String& resource) {
    char path[256];
    std::snprintf(path, sizeof path, "/sys/bus/pci/devices/%04x:%02x:%02x.%x/%s", a.domain, a.bus,
                  a.device, a.function, resource.c_str());
    return String(path);
}

static HamDesc pciDesc(const String& name, U32 base, U32 size, const PciAddress& a,
                       const String& resource, const String& tag) {
    HamDesc s;
    s.tag = tag;
    s.name = name;
    s.type = HamType::mappedFile;
    s.base = base;
    s.size = size;
    s.fileName = PciHam::resourcePath(a, resource);
    return s;
}

PciHam::PciHam(String name, U32 base, U32 size, String resource, String, String, PciAddress address,
               PciId, bool, String tag)
    : Ham(pciDesc(name, base, size, address, resource, tag)) {}
