// Opening a backend's register window on a sysfs resource file of its PCI
// function ("/sys/bus/pci/devices/dddd:bb:dd.f/<resource>"), base 0 and
// size 0 (the whole resource).
#pragma once
#include "ham/Ham.h"

namespace Hal {

// The sysfs path of a resource file of a PCI function.
String sysfsPath(const char* resource, U16 domain, U8 bus, U8 device, U8 function);

// With honourTestMode, traces the path at level 1 ("Ham fname is ...") and,
// in test mode, maps /tmp/xilinxTestMemMapFile instead (also traced), and
// traces "Ham created" once the window exists. Without it, maps the sysfs
// file silently. tag says what the window is onto (HamDesc::tag).
Ptr<Ham> sysfsWindow(const char* hamName, const char* resource, U16 domain, U8 bus, U8 device, U8 function,
                     bool honourTestMode, const char* tag = "");

}  // namespace Hal
