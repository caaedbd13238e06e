#include "xilinx/backends/CedarForkPCHIntf.h"

bool CedarForkPCHFactory::manages(const char*) { return false; }

XilIntf* CedarForkPCHFactory::newXilIntf(U16, U16, U16, U8, U8, U8) { return nullptr; }
