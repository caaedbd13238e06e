// Placeholder until this backend is written: its factory accepts no name.
#pragma once
#include "xilinx/XilIntfFactory.h"

class PericomGen3Factory : public XilIntfFactory {
  public:
    bool manages(const char* deviceName) override;
    XilIntf* newXilIntf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device, U8 function) override;
};
