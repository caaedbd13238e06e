/* The module's plain-named functions, for JTAG players written in C or
 * C++. An interface is an opaque pointer from XilIntf_bySystem; it is
 * never freed. Calling order: XilIntf_testModeIs (optional, before any
 * interface), XilIntf_bySystem, XilIntf_select, pin operations and
 * XilIntf_ledIs, XilIntf_cleanup. Failures that make further work pointless
 * (lock held, unknown device, unsupported board) end the process with
 * exit status 1; nothing here returns an error. */
#ifndef KELVORN_XILINTF_C_H
#define KELVORN_XILINTF_C_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
class XilIntf;
extern "C" {
#else
typedef struct XilIntf XilIntf;
#endif

/* These are what the shared library exports; it is built with everything
 * else hidden. */
#ifdef __GNUC__
#pragma GCC visibility push(default)
#endif

/* The interface for deviceName on the PCI function domain:bus:device.function,
 * or NULL when no backend serves that name on this board. */
XilIntf* XilIntf_bySystem(const char* deviceName, uint16_t pciVendor, uint16_t pciDevice, uint16_t domain,
                          uint8_t bus, uint8_t device, uint8_t function);
void XilIntf_select(XilIntf* intf, const char* deviceName);
void XilIntf_tdiIs(XilIntf* intf, int value);
void XilIntf_tmsIs(XilIntf* intf, int value);
void XilIntf_tckIs(XilIntf* intf, int value);
int XilIntf_tdo(XilIntf* intf);
void XilIntf_cleanup(XilIntf* intf, const char* deviceName);
void XilIntf_ledIs(XilIntf* intf, int on);
void XilIntf_testModeIs(int on);

/* Clocks nbits TCK cycles. Bit i of tms and tdi (byte i / 8, bit i % 8,
 * least significant first) is what TMS and TDI hold in cycle i, set while
 * TCK is low; then TCK rises and falls. When tdo is not NULL, bit i of tdo
 * receives TDO as sampled in cycle i before the rising edge (the bits of
 * the last byte past nbits are 0); when it is NULL, TDO is not read at all.
 * TCK is driven low first if it is high, and ends low. With nbits 0 nothing
 * is driven: the backend only reads its register image afresh, as every
 * call does first, so bits of shared registers that other agents own are
 * current again. tms and tdi must not be NULL. */
void XilIntf_shift(XilIntf* intf, uint32_t nbits, const uint8_t* tms, const uint8_t* tdi, uint8_t* tdo);
/* Sets TCK, TMS and TDI together, each high for a non-zero value: what a
 * remote bit-bang client sends as one symbol. Pins whose level does not
 * change are not written; when TCK rises, TMS and TDI settle first, when
 * it falls, they change after it. */
void XilIntf_pinsIs(XilIntf* intf, int tck, int tms, int tdi);
/* XilIntf_shift that reads TDO only in the cycles whose bit is set in
 * tdoWanted (laid out as tms); the other bits of tdo are 0. A cycle whose
 * TDO is not wanted costs no register read. tdoWanted NULL: every cycle's. */
void XilIntf_shiftMasked(XilIntf* intf, uint32_t nbits, const uint8_t* tms, const uint8_t* tdi, uint8_t* tdo,
                         const uint8_t* tdoWanted);
/* A ceiling on TCK for XilIntf_shift, XilIntf_shiftMasked and
 * XilIntf_pinsIs from now on: no TCK high or low phase shorter than half of
 * periodNs (rounded up), from the end of one TCK write to the start of the
 * next, on the monotonic clock. Only where the register accesses are faster
 * than that is there a wait. 0: no ceiling, nothing waits (the default).
 * The per-pin functions are never paced. */
void XilIntf_tckPeriodIs(XilIntf* intf, uint32_t periodNs);

/* 1 when a backend serves deviceName on this board (the backends are asked
 * as XilIntf_bySystem asks them), else 0. Builds nothing, takes no lock. */
int XilIntf_served(const char* deviceName);

/* Ends an interface of a caller that goes on without it (the library's
 * kv_close): the backend's window unmapped, its lock dropped. The pins
 * must have been given back (XilIntf_cleanup) first. */
void XilIntf_close(XilIntf* intf);

/* What the module writes on stderr (no newline) when another process holds
 * a device's lock, before it ends the process with status 1. */
#define XILINTF_LOCKED_MESSAGE "Lock file is locked by another process."

/* 1 when another open file holds the lock XilIntf_bySystem would take for
 * the PCI device domain:bus:device (the test mode's lock file in test
 * mode), else 0: a caller that must not end on a refusal asks first. */
int XilIntf_lockHeld(uint16_t domain, uint8_t bus, uint8_t device);

/* One device name a backend serves: the backend, and the platform
 * condition under which that backend is asked ("always" when none). */
typedef struct XilIntf_servedName {
    const char* name;
    const char* backend;
    const char* condition;
} XilIntf_servedName;

/* The device names the backends serve, in the order XilIntf_bySystem asks
 * them (a name served by two backends appears twice: the first whose
 * condition holds serves it). Fills at most max entries of names and
 * returns how many there are. Reads nothing of the board or the system. */
size_t XilIntf_servedNames(XilIntf_servedName* names, size_t max);

#ifdef __GNUC__
#pragma GCC visibility pop
#endif

#ifdef __cplusplus
}
#endif

#endif
