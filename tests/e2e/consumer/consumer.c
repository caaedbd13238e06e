/* A program outside the source tree that links the installed library: in
 * test mode (lock /tmp/xilinxTestLockFile, registers in
 * /tmp/xilinxTestMemMapFile) it selects the PEX 8600 device "rotanMotub" at
 * 0000:03:00.0, raises TCK, reads TDO and releases the pins. Prints
 * "tdo <level>"; status 2 when no backend serves the name. */
#include <kelvorn/XilIntfC.h>
#include <stdio.h>

static const char kDevice[] = "rotanMotub";

int main(void) {
    XilIntf* intf;
    int tdo;

    XilIntf_testModeIs(1);
    intf = XilIntf_bySystem(kDevice, 0, 0, 0x0000, 0x03, 0x00, 0);
    if (intf == NULL) {
        fprintf(stderr, "consumer: no backend serves %s\n", kDevice);
        return 2;
    }
    XilIntf_select(intf, kDevice);
    XilIntf_tckIs(intf, 1);
    tdo = XilIntf_tdo(intf);
    XilIntf_cleanup(intf, kDevice);
    printf("tdo %d\n", tdo);
    return 0;
}
