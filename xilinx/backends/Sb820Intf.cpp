#include "xilinx/backends/Sb820Intf.h"

bool Sb820Factory::manages(const char*) { return false; }

XilIntf* Sb820Factory::newXilIntf(U16, U16, U16, U8, U8, U8) { return nullptr; }
