// The scan that kelvorn-sim runs: select a device through the plain-named
// functions, reset its chain, read the IDCODEs, clean up.
#pragma once
#include <cstdio>

#include "device/Status.h"

namespace sim {

constexpr int kScanFound = 0;
constexpr int kScanUsage = ::device::kUsage;          // not a PCI address
constexpr int kScanNoBackend = ::device::kNoBackend;  // no backend serves the name
constexpr int kScanNoDevice = 4;                      // all ones or all zeros on TDO, as kelvorn-chain's dead chain

// Prints each IDCODE as 0x%08x on its own line of out, the device nearest
// TDO first; failures go to stderr. Returns one of the statuses above.
int scan(const char* device, const char* pciAddress, FILE* out);

}  // namespace sim
