// The JTAG pin interface: TCK, TMS and TDI driven, TDO read, through the
// GPIO pins of whatever chip on the board carries them. One backend per
// kind of GPIO block derives from XilIntf; a factory per backend decides
// which device names it serves (XilIntfFactory.h).
//
// Interfaces are never destroyed: each holds an exclusive lock file for its
// PCI device (domain, bus and device; not the function) until the process
// ends, so a second process for the same device is refused.
#pragma once
#include "Types.h"
#include "xilinx/hal/VectorControl.h"

class XilIntf {
  public:
    // Takes the lock "/var/lock/<lockName>" (in test mode
    // "/tmp/xilinxTestLockFile"), or ends the process with status 1.
    explicit XilIntf(const char* lockName);

    virtual void tdiIs(bool value) = 0;
    virtual void tmsIs(bool value) = 0;
    virtual void tckIs(bool value) = 0;
    virtual bool tdo() = 0;
    virtual void select(const char* deviceName) = 0;
    virtual void cleanup(const char* deviceName) = 0;
    virtual void warningIs(bool on) = 0;

    // Vector operations (XilIntf_shift, XilIntf_pinsIs in XilIntfC.h). The
    // base versions drive the pins one at a time through the operations
    // above; a backend overrides them with a path that writes pins sharing
    // a register together and reads only the TDO bits that are wanted.
    virtual void shift(U32 nbits, const U8* tms, const U8* tdi, U8* tdoBits);
    virtual void pinsIs(bool tck, bool tms, bool tdi);
    // The TCK ceiling and the wanted TDO bits both paths honour
    // (XilIntf_tckPeriodIs, XilIntf_shiftMasked).
    Hal::VectorControl& vectorControl() { return vectorControl_; }

    // Moves the lock file, and the register file of the backends that
    // honour it, to fixed files under /tmp. Set through XilIntf_testModeIs.
    static bool testMode;

    static constexpr const char* testLockFile = "/tmp/xilinxTestLockFile";
    static constexpr const char* testMemMapFile = "/tmp/xilinxTestMemMapFile";

    // The programs never delete an interface: its lock is held until the
    // process ends. A library that closes a device deletes it, which drops
    // the lock and unmaps its register windows.
    virtual ~XilIntf();

  protected:
    Hal::VectorControl vectorControl_;
    // tckIs, waiting first under a ceiling: the base vector operations' edges.
    void pacedTckIs(bool level);

    XilIntf(const XilIntf&) = delete;
    XilIntf& operator=(const XilIntf&) = delete;

  private:
    int lockFd_ = -1;  // flock()ed: the lock on the device
};

// Formats the lock name "<domain>_<bus>_<device>_jtag" (decimal) into buf.
void xilLockName(char (&buf)[256], U16 domain, U8 bus, U8 device);

// A backend's select() given a name it has no pins for: writes
// "Unknown device: <name>" and a newline to stderr and ends the process
// with status 1, before any pin is touched.
[[noreturn]] void xilUnknownDevice(const char* deviceName);

#include "xilinx/XilIntfC.h"
