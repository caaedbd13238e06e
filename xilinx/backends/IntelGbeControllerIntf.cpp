#include "xilinx/backends/IntelGbeControllerIntf.h"

bool IntelGbeControllerFactory::manages(const char*) { return false; }

XilIntf* IntelGbeControllerFactory::newXilIntf(U16, U16, U16, U8, U8, U8) { return nullptr; }
