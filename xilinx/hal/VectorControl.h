// What an interface asks of its vector path (XilIntf_shift, XilIntf_pinsIs)
// beyond the bits: a ceiling on TCK, and for one shift the cycles whose TDO
// is wanted. Every interface has one; the backends' vector path
// (VectorShift.h) and the per-pin base versions both honour it.
#pragma once
#include <cstdint>

#include "Types.h"
#include "os/Os.h"

namespace Hal {

// What the interface asks of its vector path beyond the bits: a TCK
// ceiling, and for one shift the cycles whose TDO is wanted.
struct VectorControl {
    U32 halfPeriodNs = 0;           // 0: no ceiling
    uint64_t lastEdgeNs = 0;        // when the last TCK write was done
    const U8* tdoWanted = nullptr;  // bit i set: cycle i's TDO is read; null: every cycle's

    bool wants(U32 i) const { return !tdoWanted || ((tdoWanted[i / 8] >> (i % 8)) & 1); }
    // Around every write that moves TCK.
    void beforeEdge() const {
        if (halfPeriodNs) Os::waitUntilNs(lastEdgeNs + halfPeriodNs);
    }
    void afterEdge() {
        if (halfPeriodNs) lastEdgeNs = Os::monotonicNs();
    }
};

}  // namespace Hal
