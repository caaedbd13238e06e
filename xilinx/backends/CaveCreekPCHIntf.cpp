#include "xilinx/backends/CaveCreekPCHIntf.h"

bool CaveCreekPCHFactory::manages(const char*) { return false; }

XilIntf* CaveCreekPCHFactory::newXilIntf(U16, U16, U16, U8, U8, U8) { return nullptr; }
