#include "xilinx/amd/EkabiniIntf.h"

bool EkabiniGpioFactory::manages(const char*) { return false; }

XilIntf* EkabiniGpioFactory::newXilIntf(U16, U16, U16, U8, U8, U8) { return nullptr; }
