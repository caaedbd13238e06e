#include "sim/Vectors.h"

#include <numeric>

#include "jtag/Xsvf.h"
#include "sim/ProgDevice.h"

namespace sim {

using jtag::BitVector;

namespace {

using namespace jtag::xsvf;

// The encodings the XSVF commands take.
constexpr uint8_t kXstateReset = 0x00;
constexpr uint8_t kXstateIdle = 0x01;
constexpr uint8_t kXendIdle = 0x00;  // XENDIR/XENDDR: Run-Test/Idle (1 would be the Pause state)
constexpr unsigned kXsirMaxLength = 255;
constexpr unsigned kIdcodeBits = 32;
constexpr uint32_t kIdcodeVersionMask = 0xf0000000;  // bits 31..28: the part's revision, not compared

// One scan of the target device, and the cycles in Run-Test/Idle after it.
struct Scan {
    bool ir;
    BitVector tdi;
    BitVector tdo;  // expected; empty: not compared
    uint32_t wait;
};

std::vector<Scan> plan(const VectorTarget& t, const std::vector<BitVector>& rows) {
    unsigned irLength = t.irLengths[t.device];
    auto ir = [&](uint32_t code, uint32_t wait = 0) { return Scan{true, BitVector::fromValue(code, irLength), {}, wait}; };
    Scan address0{false, BitVector(kAddressBits), {}, 0};
    std::vector<Scan> scans{ir(kEraseInstruction, t.eraseCycles), ir(kAddressInstruction), address0,
                            ir(kProgramInstruction)};
    for (const BitVector& row : rows) scans.push_back({false, row, {}, t.programCycles});
    scans.insert(scans.end(), {ir(kAddressInstruction), address0, ir(kReadInstruction)});
    for (const BitVector& row : rows) scans.push_back({false, BitVector(t.rowBits), row, 0});
    return scans;
}

// Bits of the devices nearer TDO (shifted first) and nearer TDI around the target's.
struct Padding {
    size_t before, after;
};
Padding irPadding(const VectorTarget& t) {
    const std::vector<unsigned>& l = t.irLengths;
    return {std::accumulate(l.begin(), l.begin() + t.device, size_t{0}),
            std::accumulate(l.begin() + t.device + 1, l.end(), size_t{0})};
}
Padding drPadding(const VectorTarget& t) { return {t.device, t.irLengths.size() - t.device - 1}; }

BitVector padded(const BitVector& bits, Padding p, bool fill) {
    BitVector v(p.before, fill);
    v.append(bits);
    v.resize(v.size() + p.after, fill);
    return v;
}

// What the chain's data registers hold after a reset, nearest TDO first,
// and which of those bits are compared: each IDCODE but its version, and
// each BYPASS bit (0).
struct IdcodeCheck {
    BitVector expected, mask;
};
IdcodeCheck idcodeCheck(const VectorTarget& t) {
    IdcodeCheck c;
    for (uint32_t id : t.idcodes) {
        if (id == 0) {
            c.expected.append(false);
            c.mask.append(true);
            continue;
        }
        c.expected.append(BitVector::fromValue(id, kIdcodeBits));
        c.mask.append(BitVector::fromValue(~kIdcodeVersionMask, kIdcodeBits));
    }
    return c;
}

// ---- SVF ----

std::string svfValue(const BitVector& v) { return "(" + v.hex() + ")"; }

// A header or trailer command: the bypassed devices' bits, or none.
std::string svfPad(const char* command, size_t bits, bool fill) {
    std::string s = std::string(command) + " " + std::to_string(bits);
    if (bits) s += " TDI " + svfValue(BitVector(bits, fill));
    return s + ";\n";
}

// ---- XSVF ----

class Xsvf {
  public:
    std::vector<uint8_t> bytes;

    void command(uint8_t c) { bytes.push_back(c); }
    void u8(uint8_t v) { bytes.push_back(v); }
    void u16(uint16_t v) { u8(static_cast<uint8_t>(v >> 8)), u8(static_cast<uint8_t>(v)); }
    void u32(uint32_t v) { u16(static_cast<uint16_t>(v >> 16)), u16(static_cast<uint16_t>(v)); }
    // The bits as a number in ceil(size / 8) bytes, most significant first:
    // the last byte holds bit 0, the first bit shifted.
    void bits(const BitVector& v) {
        for (size_t i = v.byteCount(); i-- > 0;) u8(v.data()[i]);
    }
};

}  // namespace

std::vector<BitVector> imageRows(const BitVector& image, unsigned rowBits) {
    std::vector<BitVector> rows;
    for (size_t at = 0; at < image.size(); at += rowBits) {
        BitVector row;
        row.append(image, at, rowBits);
        row.resize(rowBits, true);
        rows.push_back(std::move(row));
    }
    return rows;
}

std::string svfFor(const VectorTarget& t, const std::vector<BitVector>& rows) {
    Padding ir = irPadding(t), dr = drPadding(t);
    std::string s = "! Erase, program and verify " + std::to_string(rows.size()) + " rows of " +
                    std::to_string(t.rowBits) + " bits on device " + std::to_string(t.device) +
                    " of the chain (0: nearest TDO)\n";
    s += "ENDIR IDLE;\nENDDR IDLE;\n";
    // After the reset every device holds IDCODE (or BYPASS) until the first SIR.
    std::string reset = "STATE RESET;\n";
    if (!t.idcodes.empty()) {
        IdcodeCheck c = idcodeCheck(t);
        s += "! The chain's IDCODEs (versions aside), before anything is erased\n" + reset;
        s += "SDR " + std::to_string(c.expected.size()) + " TDI " + svfValue(BitVector(c.expected.size())) + " TDO " +
             svfValue(c.expected) + " MASK " + svfValue(c.mask) + ";\n";
        reset.clear();
    }
    s += svfPad("HIR", ir.before, true) + svfPad("TIR", ir.after, true) + svfPad("HDR", dr.before, false) +
         svfPad("TDR", dr.after, false);
    s += reset + "STATE IDLE;\n";
    for (const Scan& scan : plan(t, rows)) {
        s += std::string(scan.ir ? "SIR " : "SDR ") + std::to_string(scan.tdi.size()) + " TDI " + svfValue(scan.tdi);
        if (!scan.tdo.empty())
            s += " TDO " + svfValue(scan.tdo) + " MASK " + svfValue(BitVector(scan.tdo.size(), true));
        s += ";\n";
        if (scan.wait) s += "RUNTEST " + std::to_string(scan.wait) + " TCK;\n";
    }
    return s;
}

std::vector<uint8_t> xsvfFor(const VectorTarget& t, const std::vector<BitVector>& rows) {
    Padding ir = irPadding(t), dr = drPadding(t);
    Xsvf x;
    // No retries: a row that reads back wrong is a failure.
    x.command(kXrepeat), x.u8(0);
    x.command(kXendir), x.u8(kXendIdle);
    x.command(kXenddr), x.u8(kXendIdle);
    x.command(kXstate), x.u8(kXstateReset);
    if (!t.idcodes.empty()) {
        // The chain's IDCODEs (versions aside), before anything is erased.
        IdcodeCheck c = idcodeCheck(t);
        x.command(kXsdrsize), x.u32(static_cast<uint32_t>(c.expected.size()));
        x.command(kXtdomask), x.bits(c.mask);
        x.command(kXsdrtdo), x.bits(BitVector(c.expected.size())), x.bits(c.expected);
    }
    x.command(kXstate), x.u8(kXstateIdle);
    bool first = true;
    uint32_t runtest = 0;
    BitVector mask;  // the last XTDOMASK; its size is the last XSDRSIZE
    for (const Scan& scan : plan(t, rows)) {
        // XRUNTEST holds for every scan after it: after each, at least that
        // many TCK cycles (and microseconds) in Run-Test/Idle.
        if (first || scan.wait != runtest) x.command(kXruntest), x.u32(scan.wait);
        first = false;
        runtest = scan.wait;
        if (scan.ir) {
            BitVector bits = padded(scan.tdi, ir, true);
            if (bits.size() <= kXsirMaxLength)
                x.command(kXsir), x.u8(static_cast<uint8_t>(bits.size()));
            else
                x.command(kXsir2), x.u16(static_cast<uint16_t>(bits.size()));
            x.bits(bits);
            continue;
        }
        BitVector tdi = padded(scan.tdi, dr, false);
        BitVector scanMask = padded(BitVector(scan.tdi.size(), !scan.tdo.empty()), dr, false);
        if (scanMask.size() != mask.size()) x.command(kXsdrsize), x.u32(static_cast<uint32_t>(tdi.size()));
        if (scanMask != mask) x.command(kXtdomask), x.bits(scanMask);
        mask = scanMask;
        if (scan.tdo.empty()) {
            x.command(kXsdr), x.bits(tdi);  // compares nothing: the mask is all zeros
        } else {
            x.command(kXsdrtdo), x.bits(tdi), x.bits(padded(scan.tdo, dr, false));
        }
    }
    x.command(kXcomplete);
    return x.bytes;
}

}  // namespace sim
