#include "xilinx/backends/PericomGen3Intf.h"

bool PericomGen3Factory::manages(const char*) { return false; }

XilIntf* PericomGen3Factory::newXilIntf(U16, U16, U16, U8, U8, U8) { return nullptr; }
