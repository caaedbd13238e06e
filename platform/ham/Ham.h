// Register windows. A Ham names a window onto a chip's registers: either a
// file mapped into memory (a sysfs PCI resource file, or /dev/mem at a
// physical base) or the processor's I/O port space. Its implementation
// object carries the accesses; callers keep a Ptr to it and call it directly.
//
// Substitution: a provider installed with Ham::providerIs() is asked first
// for the implementation of every window made afterwards; when it returns
// null the real window is made. Tests and the board simulator use this to
// put in-memory registers behind any window, chosen by file name or type.
#pragma once
#include <functional>

#include "Types.h"
#include "ham/Ptr.h"
#include "ham/String.h"

enum class HamType : int {
    mappedFile = 3,  // a file mapped into memory; offsets are byte offsets
    ioPort = 6,      // processor I/O ports; offsets are port numbers
};

struct PciAddress {
    U16 domain = 0;
    U16 bus = 0;
    U8 device = 0;
    U8 function = 0;
};

struct PciId {
    U32 value = 0;  // 0: none given
    PciId(U32 v = 0) : value(v) {}
};

// What extent() gives when nothing says how far a window reaches: a device
// file such as /dev/mem has no size, and a substitute has none unless it
// says so.
constexpr U64 kUnknownExtent = ~U64(0);

// The access operations. Results are 0 on success; nothing in the module
// looks at them.
class HamImpl : public RefCounted {
  public:
    virtual int read32(U32 offset, U32* out) = 0;
    virtual int write32(U32 offset, U32 value) = 0;
    virtual int read16(U32 offset, U16* out) = 0;
    virtual int read8(U32 offset, U8* out) = 0;
    virtual int write8(U32 offset, U8 value) = 0;

    // How many bytes from offset 0 the file behind the window holds.
    virtual U64 extent() const { return kUnknownExtent; }
};

// Everything that describes a window, as handed to a provider.
struct HamDesc {
    String name;
    HamType type = HamType::mappedFile;
    U32 base = 0;
    U32 size = 0;      // 0: the whole file
    String fileName;   // empty for I/O ports
    // What the window is onto, as the backend that makes it says
    // ("sb820", "pex8600", ...): how a provider such as the board simulator
    // knows which chip to put behind it. Empty: not said.
    String tag;
};

using HamProvider = std::function<Ptr<HamImpl>(const HamDesc&)>;

class Ham : public RefCounted {
  public:
    // Makes the window at once. A window that cannot be made ends the
    // process with one line on stderr and exit status 1.
    Ham(String name, HamType type, Ptr<Ham> parent, U32 base, U32 size, String fileName, String tag = String());

    Ptr<HamImpl> hamImpl() const { return impl_; }
    const HamDesc& desc() const { return desc_; }

    // Returns when the file behind the window holds registers up to offset
    // end (not included), or when nothing says how far it reaches;
    // otherwise ends the process with one line on stderr naming the window,
    // the file, what the registers need and what the file holds, status 1.
    // A backend calls it before its first access, so a mistyped PCI
    // address or a short file touches nothing.
    void reaches(U64 end) const;

    // Installs (or, with an empty function, removes) the provider.
    static void providerIs(HamProvider provider);
    // What the provider puts behind a window of this description; null when
    // there is no provider or it declines. For code that maps a window by
    // itself but must still be open to substitution.
    static Ptr<HamImpl> provided(const HamDesc& desc);

  protected:
    explicit Ham(const HamDesc& desc);

  private:
    void make();

    HamDesc desc_;
    Ptr<HamImpl> impl_;
};

// The end of the process for a window whose file is too short: needed and
// holds count from the start of the file.
[[noreturn]] void hamTooSmall(const HamDesc& desc, U64 needed, U64 holds);

// A window onto a memory resource ("resource0", ...) of a PCI function,
// found by its address under /sys/bus/pci/devices.
class PciHam : public Ham {
  public:
    PciHam(String name, U32 base, U32 size, String resource, String driver, String options,
           PciAddress address, PciId id, bool writable, String tag = String());

    static String resourcePath(const PciAddress& address, const String& resource);
};

// A window onto memory the process already has: the real mapped-file
// window uses it over its mapping, benchmarks and simulators over a buffer.
class MemoryHamImpl : public HamImpl {
  public:
    explicit MemoryHamImpl(volatile U8* base) : base_(base) {}

    int read32(U32 offset, U32* out) override {
        *out = *reinterpret_cast<volatile U32*>(base_ + offset);
        return 0;
    }
    int write32(U32 offset, U32 value) override {
        *reinterpret_cast<volatile U32*>(base_ + offset) = value;
        return 0;
    }
    int read16(U32 offset, U16* out) override {
        *out = *reinterpret_cast<volatile U16*>(base_ + offset);
        return 0;
    }
    int read8(U32 offset, U8* out) override {
        *out = base_[offset];
        return 0;
    }
    int write8(U32 offset, U8 value) override {
        base_[offset] = value;
        return 0;
    }

  private:
    volatile U8* base_;
};
