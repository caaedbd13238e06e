#include "tool/Kelvorn.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "os/Os.h"
#include "device/CleanupOnSignal.h"
#include "device/PciAddress.h"
#include "xilinx/XilIntfC.h"

namespace {

// Exit statuses (as returned by main; the shell sees them modulo 256).
constexpr int kUnknownCommand = -1;   // 255
constexpr int kBadPciAddress = -2;    // 254
constexpr int kNoInterface = -3;      // 253
constexpr int kTooFewArguments = -4;  // 252
constexpr int kMissingValue = -5;     // 251

constexpr unsigned kHoldSeconds = 10;  // a driven pin keeps its level this long

XilIntf* theIntf;  // the run's one interface; never freed

}  // namespace

void printUsage() {
    std::printf("USAGE:  kelvorn <fpga> <pci address> { tck | tms | tdi | tdo } [ 0 | 1 ]\n");
    std::printf("sets the tck,tms,tdi jtag pin, reads tdo, returns value\n");
    std::printf("EXAMPLE:  kelvorn fodak 0000:00:14.0 tck 1\n");
}

int kelvornMain(int argc, char** argv) {
    std::printf("Kelvorn\n");
    if (argc < 4) {
        std::printf("missing argument\n");
        printUsage();
        return kTooFewArguments;
    }
    const char* fpga = argv[1];
    device::PciAddress at;
    if (!device::parsePciAddressLeniently(argv[2], &at)) {
        std::printf("internal error parsing pciAddr\n");
        return kBadPciAddress;
    }
    std::fflush(stdout);  // keep the banner ahead of what the backends print
    theIntf = XilIntf_bySystem(fpga, 0, 0, at.domain, at.bus, at.device, at.function);
    if (!theIntf) {
        std::printf("internal error setting up interfaces\n");
        return kNoInterface;
    }
    XilIntf_select(theIntf, fpga);
    XilIntf_ledIs(theIntf, 0);

    const char* command = argv[3];
    int result;
    bool cleanedUp = false;
    void (*set)(XilIntf*, int) = nullptr;
    if (std::strcmp(command, "tck") == 0)
        set = XilIntf_tckIs;
    else if (std::strcmp(command, "tms") == 0)
        set = XilIntf_tmsIs;
    else if (std::strcmp(command, "tdi") == 0)
        set = XilIntf_tdiIs;

    if (set) {
        if (argc == 4) {
            std::printf("missing argument\n");
            printUsage();
            result = kMissingValue;
        } else {
            int value = static_cast<int>(std::strtol(argv[4], nullptr, 10));
            set(theIntf, value);
            std::fflush(stdout);
            // A signal during the hold cleans up and ends the process by that signal.
            CleanupOnSignal guard(theIntf, fpga);
            Os::sleep(kHoldSeconds);
            guard.cleanup();
            cleanedUp = true;
            result = value;
        }
    } else if (std::strcmp(command, "tdo") == 0) {
        result = XilIntf_tdo(theIntf);
        std::printf("tdo result is %d\n", result);
    } else {
        std::printf("not understood: %s\n", command);
        printUsage();
        result = kUnknownCommand;
    }
    std::fflush(stdout);
    if (!cleanedUp) XilIntf_cleanup(theIntf, fpga);
    return result;
}
