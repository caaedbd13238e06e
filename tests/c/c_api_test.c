/* The plain-named functions seen from C: the header compiles as C and the
 * unmangled symbols link from the library. A name that no backend serves
 * gives NULL (and touches nothing). */
#include <stdio.h>

#include "xilinx/XilIntfC.h"

int main(void) {
    XilIntf* intf;
    void (*setters[])(XilIntf*, int) = {XilIntf_tdiIs, XilIntf_tmsIs, XilIntf_tckIs, XilIntf_ledIs};
    int (*getter)(XilIntf*) = XilIntf_tdo;
    void (*named[])(XilIntf*, const char*) = {XilIntf_select, XilIntf_cleanup};
    void (*shift)(XilIntf*, uint32_t, const uint8_t*, const uint8_t*, uint8_t*) = XilIntf_shift;
    void (*pins)(XilIntf*, int, int, int) = XilIntf_pinsIs;

    XilIntf_testModeIs(1);
    intf = XilIntf_bySystem("noSuchDevice", 0, 0, 0, 0, 0x14, 0);
    if (intf != NULL || !setters[0] || !getter || !named[0] || !shift || !pins) {
        printf("unexpected interface for an unknown device\n");
        return 1;
    }
    printf("1 passed, 0 failed\n");
    return 0;
}
