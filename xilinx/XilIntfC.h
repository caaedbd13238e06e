/* The module's plain-named functions, for JTAG players written in C or
 * C++. An interface is an opaque pointer from XilIntf_bySystem; it is
 * never freed. Calling order: XilIntf_testModeIs (optional, before any
 * interface), XilIntf_bySystem, XilIntf_select, pin operations and
 * XilIntf_ledIs, XilIntf_cleanup. Failures that make further work pointless
 * (lock held, unknown device, unsupported board) end the process with
 * exit status 1; nothing here returns an error. */
#ifndef KELVORN_XILINTF_C_H
#define KELVORN_XILINTF_C_H

#include <stdint.h>

#ifdef __cplusplus
class XilIntf;
extern "C" {
#else
typedef struct XilIntf XilIntf;
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

#ifdef __cplusplus
}
#endif

#endif
