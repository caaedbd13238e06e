#include "xilinx/XilIntf.h"

#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <unordered_set>

#include "os/Os.h"
#include "xilinx/XilIntfFactory.h"
#include "xilinx/XilTrace.h"
#include "xilinx/amd/EkabiniIntf.h"
#include "xilinx/backends/CaveCreekPCHIntf.h"
#include "xilinx/backends/CedarForkPCHIntf.h"
#include "xilinx/backends/IntelGbeControllerIntf.h"
#include "xilinx/backends/PericomGen3Intf.h"
#include "xilinx/backends/PlxPex8600Intf.h"
#include "xilinx/backends/PlxPex8700Intf.h"
#include "xilinx/backends/Sb820Intf.h"

bool XilIntf::testMode = false;

static const char kLockedMessage[] = XILINTF_LOCKED_MESSAGE;  // 39 bytes, no newline

namespace {

// Every interface not deleted. The programs never delete one (its lock is
// the process's until it ends), so this list is what holds them then: the
// leak check of a sanitized run finds them held, as they are by design.
struct Interfaces {
    std::mutex mutex;
    std::unordered_set<const XilIntf*> all;
};
Interfaces& interfaces() {
    static Interfaces* list = new Interfaces;  // kept through exit(), like the interfaces
    return *list;
}

}  // namespace

// The lock file of a lock name: under /var/lock, or the test mode's one.
static std::string lockPath(const char* lockName) {
    std::string path = std::string("/var/lock/") + lockName;
    XTRACE(1, "lockfile is " << path);
    if (!XilIntf::testMode) return path;
    XTRACE(1, "Using test lock file " << XilIntf::testLockFile << " instead");
    return XilIntf::testLockFile;
}

XilIntf::XilIntf(const char* lockName) {
    {
        std::lock_guard<std::mutex> lock(interfaces().mutex);
        interfaces().all.insert(this);
    }
    std::string path = lockPath(lockName);
    const char* file = path.c_str();
    // errno is kept from the failed call: flushing stdout first may fail
    // too (a full disk, a closed pipe) and set errno of its own.
    int fd = Os::creat(file, 0400);
    if (fd < 0) {
        int error = errno;
        std::fflush(stdout);
        errno = error;
        std::perror("Failed to create lock file");
        Os::exit(1);
    }
    // The descriptor stays open for the life of the interface: that is the lock.
    lockFd_ = fd;
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        int error = errno;
        ::close(fd);  // the exit hook may throw: this constructor's destructor would not run
        lockFd_ = -1;
        std::fflush(stdout);
        if (error == EWOULDBLOCK) {
            std::fwrite(kLockedMessage, 1, sizeof kLockedMessage - 1, stderr);
            Os::exit(1);
        }
        errno = error;
        std::perror("Error locking lock file");
        Os::exit(1);
    }
}

XilIntf::~XilIntf() {
    if (lockFd_ >= 0) ::close(lockFd_);
    std::lock_guard<std::mutex> lock(interfaces().mutex);
    interfaces().all.erase(this);
}

// One pin at a time: TMS and TDI while TCK is low, TDO (where wanted)
// before the rising edge, then both edges, each paced under a ceiling.
// Without knowing TCK's level, the first cycle drives it low once.
void XilIntf::shift(U32 nbits, const U8* tms, const U8* tdi, U8* tdoBits) {
    if (nbits == 0) return;
    tckIs(false);
    U8 byte = 0;
    for (U32 i = 0; i < nbits; ++i) {
        U32 bit = i % 8;
        tmsIs((tms[i / 8] >> bit) & 1);
        tdiIs((tdi[i / 8] >> bit) & 1);
        if (tdoBits) {
            if (vectorControl_.wants(i)) byte = static_cast<U8>(byte | static_cast<U8>(tdo() ? 1u << bit : 0u));
            if (bit == 7 || i + 1 == nbits) {
                tdoBits[i / 8] = byte;
                byte = 0;
            }
        }
        pacedTckIs(true);
        pacedTckIs(false);
    }
}

void XilIntf::pinsIs(bool tck, bool tms, bool tdi) {
    if (!tck) pacedTckIs(false);
    tmsIs(tms);
    tdiIs(tdi);
    if (tck) pacedTckIs(true);
}

void XilIntf::pacedTckIs(bool level) {
    vectorControl_.beforeEdge();
    tckIs(level);
    vectorControl_.afterEdge();
}

void xilLockName(char (&buf)[256], U16 domain, U8 bus, U8 device) {
    std::snprintf(buf, sizeof buf, "%d_%d_%d_jtag", domain, bus, device);
}

void xilUnknownDevice(const char* deviceName) {
    std::fflush(stdout);
    std::fprintf(stderr, "Unknown device: %s\n", deviceName);
    Os::exit(1);
}

// ---- registry ----

std::vector<XilIntfFactory*>& XilIntfFactory::registry() {
    static std::vector<XilIntfFactory*> list;
    return list;
}

void XilIntfFactory::registerFactory(XilIntfFactory* factory) { registry().push_back(factory); }

XilIntfFactory* XilIntfFactory::factory(const char* deviceName) {
    for (XilIntfFactory* f : registry())
        if (f->manages(deviceName)) return f;
    return nullptr;
}

namespace {

// The one place that makes the factories. The order decides which backend
// wins a name that two of them accept on a board ("fodak" and "komefi":
// the SB820 first, the SoC GPIO on the boards the SB820 factory rejects).
// Being in the same file as XilIntf_bySystem, it is linked whenever the
// lookup is, also from a static library.
struct Registration {
    Registration() {
        XilIntfFactory::registerFactory(new Sb820Factory);
        XilIntfFactory::registerFactory(new EkabiniGpioFactory);
        XilIntfFactory::registerFactory(new CaveCreekPCHFactory);
        XilIntfFactory::registerFactory(new PlxPex8600Factory);
        XilIntfFactory::registerFactory(new PlxPex8700Factory);
        XilIntfFactory::registerFactory(new IntelGbeControllerFactory);
        XilIntfFactory::registerFactory(new CedarForkPCHFactory);
        XilIntfFactory::registerFactory(new PericomGen3Factory);
    }
} registration;

}  // namespace

// ---- plain-named functions ----

extern "C" {

XilIntf* XilIntf_bySystem(const char* deviceName, U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device,
                          U8 function) {
    XilIntfFactory* f = XilIntfFactory::factory(deviceName);
    return f ? f->newXilIntf(pciVendor, pciDevice, domain, bus, device, function) : nullptr;
}

void XilIntf_select(XilIntf* intf, const char* deviceName) { intf->select(deviceName); }
void XilIntf_tdiIs(XilIntf* intf, int value) { intf->tdiIs(value != 0); }
void XilIntf_tmsIs(XilIntf* intf, int value) { intf->tmsIs(value != 0); }
void XilIntf_tckIs(XilIntf* intf, int value) { intf->tckIs(value != 0); }
int XilIntf_tdo(XilIntf* intf) { return static_cast<U8>(intf->tdo()); }
void XilIntf_cleanup(XilIntf* intf, const char* deviceName) { intf->cleanup(deviceName); }
void XilIntf_ledIs(XilIntf* intf, int on) { intf->warningIs(on != 0); }
void XilIntf_testModeIs(int on) { XilIntf::testMode = on != 0; }
void XilIntf_close(XilIntf* intf) { delete intf; }
int XilIntf_served(const char* deviceName) { return XilIntfFactory::factory(deviceName) != nullptr; }
int XilIntf_lockHeld(uint16_t domain, uint8_t bus, uint8_t device) {
    char name[256];
    xilLockName(name, domain, bus, device);
    int fd = Os::creat(lockPath(name).c_str(), 0400);
    if (fd < 0) return 0;  // the interface says why, when it tries
    bool held = ::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    ::close(fd);
    return held;
}
size_t XilIntf_servedNames(XilIntf_servedName* names, size_t max) {
    std::vector<XilServedName> all;
    for (XilIntfFactory* f : XilIntfFactory::registry()) f->servedNames(&all);
    for (size_t i = 0; i < all.size() && i < max; ++i) names[i] = {all[i].name, all[i].backend, all[i].condition};
    return all.size();
}
void XilIntf_shift(XilIntf* intf, uint32_t nbits, const uint8_t* tms, const uint8_t* tdi, uint8_t* tdo) {
    intf->shift(nbits, tms, tdi, tdo);
}
void XilIntf_pinsIs(XilIntf* intf, int tck, int tms, int tdi) { intf->pinsIs(tck != 0, tms != 0, tdi != 0); }
void XilIntf_shiftMasked(XilIntf* intf, uint32_t nbits, const uint8_t* tms, const uint8_t* tdi, uint8_t* tdo,
                         const uint8_t* tdoWanted) {
    Hal::VectorControl& c = intf->vectorControl();
    c.tdoWanted = tdoWanted;
    intf->shift(nbits, tms, tdi, tdo);
    c.tdoWanted = nullptr;
}
void XilIntf_tckPeriodIs(XilIntf* intf, uint32_t periodNs) {
    intf->vectorControl().halfPeriodNs = periodNs / 2 + periodNs % 2;
}

}  // extern "C"
