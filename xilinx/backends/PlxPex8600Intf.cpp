#include "xilinx/backends/PlxPex8600Intf.h"

bool PlxPex8600Factory::manages(const char*) { return false; }

XilIntf* PlxPex8600Factory::newXilIntf(U16, U16, U16, U8, U8, U8) { return nullptr; }
