// Backend factories and the process-wide registry. Each backend has one
// stateless factory; XilIntf.cpp makes one of each before main, in the
// fixed order in which they must be asked, and XilIntf_bySystem asks them
// in that order: the first whose manages() accepts a name builds it.
#pragma once
#include <vector>

#include "xilinx/XilIntf.h"

// One device name a backend serves: the backend, and when its factory is
// asked at all (the platform condition manages() checks first).
struct XilServedName {
    const char* name;
    const char* backend;
    const char* condition;
};

class XilIntfFactory {
  public:
    virtual bool manages(const char* deviceName) = 0;
    // The names manages() accepts, from the backend's own tables, and the
    // condition it checks first; reads nothing of the board.
    virtual void servedNames(std::vector<XilServedName>* out) { (void)out; }
    virtual XilIntf* newXilIntf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device, U8 function) = 0;

    static void registerFactory(XilIntfFactory* factory);
    static XilIntfFactory* factory(const char* deviceName);

    // The registry in order, and its count. Exposed for tests, which swap
    // in factories of their own.
    static std::vector<XilIntfFactory*>& registry();
    static unsigned count() { return static_cast<unsigned>(registry().size()); }

  protected:
    XilIntfFactory() = default;
    ~XilIntfFactory() = default;  // factories are never destroyed
};
