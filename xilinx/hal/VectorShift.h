// The vector path shared by the backends (XilIntf::shift and pinsIs): TCK,
// TMS and TDI driven from an image of the registers that hold them, read
// once at the start of each shift, so that a bit shifted costs writes only.
//
// Per TCK cycle it makes two writes to TCK's register: TCK high with the
// cycle's TMS and TDI, then TCK low, together with the next cycle's TMS and
// TDI where they share TCK's register (they may change on the falling edge:
// the devices sampled them on the rising one). A TMS or TDI in another
// register is written only when its level changes, while TCK is low. TDO is
// read only in the cycles whose TDO is wanted, before the rising edge. Only
// the pins' own level bits change; every other bit is written back as the
// image holds it.
//
// Under a TCK ceiling (VectorControl, set through XilIntf_tckPeriodIs) every
// TCK write waits, where the accesses were faster, until half the period has
// passed on the monotonic clock since the last TCK write was done: no high
// or low phase is shorter than that, and without a ceiling nothing waits
// and no clock is read. A shift may also be told which cycles' TDO it wants
// (XilIntf_shiftMasked): only those cost a read.
//
// A backend describes where its pins are (VectorPins, filled by select
// without any access) and supplies the accesses: a class with
//   U32 read(U32 offset);  void write(U32 offset, U32 value);
// of the width of its registers.
#pragma once
#include "Types.h"
#include "ham/Ham.h"
#include "xilinx/hal/VectorControl.h"

namespace Hal {

struct VectorPins {
    static constexpr unsigned kMaxRegs = 3;
    struct Reg {
        U32 offset;
        U32 image;  // the register as last read or written
    };
    // regs[0] is TCK's register; count is 0 until select has placed the
    // pins, and then every operation does nothing.
    Reg regs[kMaxRegs];
    unsigned count = 0;
    unsigned tmsReg = 0, tdiReg = 0;  // indices into regs
    U32 tckMask = 0, tmsMask = 0, tdiMask = 0;  // 0: no such pin
    U32 tdoOffset = 0, tdoMask = 0;
    // False after select, cleanup and any per-pin operation, which write
    // behind the image's back; pinsIs reads the image afresh then.
    bool valid = false;
    // What the vector path did, for a backend's totals.
    U32 tckWrites = 0, tmsWrites = 0, tdiWrites = 0, tdoReads = 0;

    // Places a pin's register: the index of offset in regs, added if new.
    unsigned regOf(U32 offset) {
        for (unsigned k = 0; k < count; ++k)
            if (regs[k].offset == offset) return k;
        regs[count] = {offset, 0};
        return count++;
    }
    void clear() { count = 0, tmsReg = tdiReg = 0, tckMask = tmsMask = tdiMask = tdoMask = 0, valid = false; }
};

// 32-bit registers through a window's implementation.
struct Registers32 {
    HamImpl* impl;
    U32 read(U32 offset) {
        U32 value = 0;
        impl->read32(offset, &value);
        return value;
    }
    void write(U32 offset, U32 value) { impl->write32(offset, value); }
};

inline U32 levelIn(U32 value, U32 mask, bool level) { return level ? value | mask : value & ~mask; }
inline bool bitAt(const U8* bits, U32 i) { return (bits[i / 8] >> (i % 8)) & 1; }

template <class A>
void refresh(A& a, VectorPins& p) {
    for (unsigned k = 0; k < p.count; ++k) p.regs[k].image = a.read(p.regs[k].offset);
    p.valid = p.count > 0;
}

// TMS and TDI in registers other than TCK's, written where they change.
template <class A>
inline void otherLevelsIs(A& a, VectorPins& p, bool tms, bool tdi) {
    for (unsigned k = 1; k < p.count; ++k) {
        VectorPins::Reg& r = p.regs[k];
        U32 v = r.image;
        if (p.tmsReg == k) v = levelIn(v, p.tmsMask, tms);
        if (p.tdiReg == k) v = levelIn(v, p.tdiMask, tdi);
        if (v == r.image) continue;
        p.tmsWrites += (v ^ r.image) & p.tmsMask ? 1 : 0;
        p.tdiWrites += (v ^ r.image) & p.tdiMask ? 1 : 0;
        r.image = v;
        a.write(r.offset, v);
    }
}

// TCK's register with TCK at tck and, where they share it, TMS and TDI.
inline U32 tckRegWith(const VectorPins& p, U32 v, bool tck, bool tms, bool tdi) {
    v = levelIn(v, p.tckMask, tck);
    if (p.tmsReg == 0) v = levelIn(v, p.tmsMask, tms);
    if (p.tdiReg == 0) v = levelIn(v, p.tdiMask, tdi);
    return v;
}

// A shift before select: no pin, no register, TDO all 0.
inline void shiftNoPins(U32 nbits, U8* tdo) {
    if (tdo)
        for (U32 i = 0; i < (nbits + 7) / 8; ++i) tdo[i] = 0;
}

template <class A>
void shiftVector(A& a, VectorPins& p, VectorControl& c, U32 nbits, const U8* tms, const U8* tdi, U8* tdo) {
    if (p.count == 0) return shiftNoPins(nbits, tdo);
    refresh(a, p);
    if (nbits == 0) return;
    VectorPins::Reg& ck = p.regs[0];
    // TCK low (if it was not) with the first cycle's levels in its register.
    U32 v = tckRegWith(p, ck.image, false, bitAt(tms, 0), bitAt(tdi, 0));
    if (v != ck.image) {
        bool falls = (v ^ ck.image) & p.tckMask;
        ck.image = v;
        if (falls) c.beforeEdge();
        a.write(ck.offset, v);
        if (falls) c.afterEdge();
        ++p.tckWrites;
    }
    U8 byte = 0;
    U32 reads = 0;
    for (U32 i = 0; i < nbits; ++i) {
        otherLevelsIs(a, p, bitAt(tms, i), bitAt(tdi, i));
        if (tdo) {
            if (p.tdoMask && c.wants(i)) {
                ++reads;
                if (a.read(p.tdoOffset) & p.tdoMask) byte = static_cast<U8>(byte | 1u << (i % 8));
            }
            if (i % 8 == 7 || i + 1 == nbits) {
                tdo[i / 8] = byte;
                byte = 0;
            }
        }
        c.beforeEdge();
        a.write(ck.offset, ck.image | p.tckMask);
        c.afterEdge();
        bool last = i + 1 == nbits;
        v = tckRegWith(p, ck.image, false, last ? bitAt(tms, i) : bitAt(tms, i + 1),
                       last ? bitAt(tdi, i) : bitAt(tdi, i + 1));
        ck.image = v;
        c.beforeEdge();
        a.write(ck.offset, v);
        c.afterEdge();
    }
    p.tckWrites += 2 * nbits;
    p.tdoReads += reads;
    if (p.tmsReg == 0) p.tmsWrites += nbits;  // carried by the TCK writes
    if (p.tdiReg == 0) p.tdiWrites += nbits;
}

template <class A>
void pinsVector(A& a, VectorPins& p, VectorControl& c, bool tck, bool tms, bool tdi) {
    if (p.count == 0) return;
    if (!p.valid) refresh(a, p);
    VectorPins::Reg& ck = p.regs[0];
    bool rising = tck && !(ck.image & p.tckMask);
    U32 v = tckRegWith(p, ck.image, tck, tms, tdi);
    if (rising) {
        // TMS and TDI settle before the edge, also where they share TCK's register.
        otherLevelsIs(a, p, tms, tdi);
        U32 data = levelIn(v, p.tckMask, false);
        if (data != ck.image) {
            ck.image = data;
            a.write(ck.offset, data);
        }
    }
    if (v != ck.image) {
        bool edge = (v ^ ck.image) & p.tckMask;
        ck.image = v;
        if (edge) c.beforeEdge();
        a.write(ck.offset, v);
        if (edge) c.afterEdge();
        ++p.tckWrites;
    }
    if (!rising) otherLevelsIs(a, p, tms, tdi);
}

}  // namespace Hal
