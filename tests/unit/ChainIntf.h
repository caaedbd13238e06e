// A pin interface wired straight to a simulated chain, for tests that drive
// the chain through the JTAG layer (jtag::Tap) or the player without a
// board: no registers in between, TCK cycles counted, TMS kept for each
// edge, TDO optionally stuck or scripted; and a clock for the player that
// runs only as the chain's TCK cycles and sleeps make it.
#pragma once
#include <functional>
#include <vector>

#include "jtag/Player.h"
#include "os/Os.h"
#include "sim/JtagChain.h"
#include "xilinx/XilIntf.h"

// A pin interface whose pins are the chain's, counting TCK cycles.
struct ChainIntf : XilIntf {
    ChainIntf(const char* lock, sim::JtagChain* chain) : XilIntf(lock), chain(chain) {}
    void tdiIs(bool v) override { tdi = v; }
    void tmsIs(bool v) override { tms = v; }
    void tckIs(bool v) override {
        if (v == tck) return;  // no edge
        tck = v;
        cycles += v;
        tmsTrail.push_back(tms);
        chain->tckIs(v, tms, tdi);
    }
    bool tdo() override {
        ++tdoReads;
        if (scripted < script.size()) return script[scripted++];
        return stuck < 0 ? chain->tdo() : stuck;
    }
    void select(const char*) override {}
    void cleanup(const char*) override {}
    void warningIs(bool) override {}

    sim::JtagChain* chain;
    bool tck = false, tms = false, tdi = false;
    int stuck = -1;  // 0 or 1: TDO stuck at that level
    std::vector<bool> script;  // TDO levels for the first reads, before the chain's
    size_t scripted = 0;
    unsigned tdoReads = 0;
    unsigned cycles = 0;
    std::vector<bool> tmsTrail;  // TMS at each TCK edge
};

// Time is what the cycles took, at nsPerCycle each, plus what was slept.
struct ChainClock : jtag::Clock {
    std::function<uint64_t()> realNow;
    std::function<void(uint64_t)> realWait;
    // Also the monotonic clock of the TCK ceiling (Os hooks): its waits
    // are time slept too, recorded in edgeWaits.
    explicit ChainClock(const ChainIntf* intf)
        : realNow(Os::hooks().monotonicNs), realWait(Os::hooks().waitUntilNs), intf(intf) {
        Os::hooks().monotonicNs = [this] { return now(); };
        Os::hooks().waitUntilNs = [this](uint64_t deadline) {
            uint64_t t = now();
            if (deadline <= t) return;
            slept += deadline - t;
            edgeWaits.push_back(deadline - t);
        };
    }
    ~ChainClock() override {
        Os::hooks().monotonicNs = realNow;
        Os::hooks().waitUntilNs = realWait;
    }
    uint64_t now() override { return intf->cycles * nsPerCycle + slept; }
    void sleep(uint64_t ns) override {
        slept += ns;
        sleptAt.push_back(intf->cycles);
    }
    std::vector<uint64_t> edgeWaits;
    const ChainIntf* intf;
    uint64_t nsPerCycle = 100;
    uint64_t slept = 0;
    std::vector<unsigned> sleptAt;  // the cycle count at each sleep
};
