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

namespace {

HamProvider& provider() {
    static HamProvider p;
    return p;
}

[[noreturn]] void windowFailed(const HamDesc& desc, const char* what, int err) {
    std::fflush(stdout);
    std::fprintf(stderr, "register window %s: %s %s: %s\n", desc.name.c_str(), what,
                 desc.fileName.empty() ? "I/O ports" : desc.fileName.c_str(), std::strerror(err));
    std::exit(1);
}

// A file mapped read-write and shared; the mapping lives until the process ends.
class MappedFileHamImpl : public MemoryHamImpl {
  public:
    using MemoryHamImpl::MemoryHamImpl;

    static Ptr<HamImpl> make(const HamDesc& desc) {
        int fd = ::open(desc.fileName.c_str(), O_RDWR | O_SYNC);
        if (fd < 0) windowFailed(desc, "cannot open", errno);
        size_t size = desc.size;
        if (size == 0) {
            struct stat st;
            if (::fstat(fd, &st) != 0) windowFailed(desc, "cannot stat", errno);
            if (st.st_size <= static_cast<off_t>(desc.base)) windowFailed(desc, "cannot map", EINVAL);
            size = static_cast<size_t>(st.st_size) - desc.base;
        }
        void* p = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, desc.base);
        if (p == MAP_FAILED) windowFailed(desc, "cannot map", errno);
        ::close(fd);  // the mapping keeps the file
        return new MappedFileHamImpl(static_cast<volatile U8*>(p));
    }
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

Ham::Ham(String name, HamType type, Ptr<Ham>, U32 base, U32 size, String fileName) {
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

String PciHam::resourcePath(const PciAddress& a, const String& resource) {
    char path[256];
    std::snprintf(path, sizeof path, "/sys/bus/pci/devices/%04x:%02x:%02x.%x/%s", a.domain, a.bus,
                  a.device, a.function, resource.c_str());
    return String(path);
}

static HamDesc pciDesc(const String& name, U32 base, U32 size, const PciAddress& a,
                       const String& resource) {
    HamDesc s;
    s.name = name;
    s.type = HamType::mappedFile;
    s.base = base;
    s.size = size;
    s.fileName = PciHam::resourcePath(a, resource);
    return s;
}

PciHam::PciHam(String name, U32 base, U32 size, String resource, String, String, PciAddress address,
               PciId, bool)
    : Ham(pciDesc(name, base, size, address, resource)) {}
