#include "xilinx/backends/PlxPex8700Intf.h"

bool PlxPex8700Factory::manages(const char*) { return false; }

XilIntf* PlxPex8700Factory::newXilIntf(U16, U16, U16, U8, U8, U8) { return nullptr; }
