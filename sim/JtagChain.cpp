#include "sim/JtagChain.h"

#include <time.h>

#include <cassert>
#include <cctype>

namespace sim {

using jtag::BitVector;
using jtag::TapState;

namespace {

constexpr unsigned kIdcodeBits = 32;

uint64_t monotonicNs() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000000000u + static_cast<uint64_t>(t.tv_nsec);
}

std::string upper(std::string s) {
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

}  // namespace

bool PinRef::operator<(const PinRef& o) const {
    return position != o.position ? position < o.position : upper(port) < upper(o.port);
}
bool PinRef::operator==(const PinRef& o) const { return position == o.position && upper(port) == upper(o.port); }

int Wires::netOf(const PinRef& pin) const {
    for (size_t i = 0; i < nets.size(); ++i)
        for (const PinRef& p : nets[i].pins)
            if (p == pin) return static_cast<int>(i);
    return -1;
}

int Wires::named(const std::string& name) const {
    for (size_t i = 0; i < nets.size(); ++i)
        if (upper(nets[i].name) == upper(name)) return static_cast<int>(i);
    return -1;
}

void Wires::join(const PinRef& a, const PinRef& b) {
    int na = netOf(a), nb = netOf(b);
    if (na < 0 && nb < 0) {
        nets.push_back({std::to_string(a.position) + "." + a.port, {a, b}});
    } else if (na < 0) {
        nets[static_cast<size_t>(nb)].pins.push_back(a);
    } else if (nb < 0) {
        nets[static_cast<size_t>(na)].pins.push_back(b);
    } else if (na != nb) {
        std::vector<PinRef>& into = nets[static_cast<size_t>(na)].pins;
        into.insert(into.end(), nets[static_cast<size_t>(nb)].pins.begin(), nets[static_cast<size_t>(nb)].pins.end());
        nets.erase(nets.begin() + nb);
    }
}

BitVector JtagChain::ShiftRegister::contents() const {
    BitVector v;
    v.append(bits_, head_);
    v.append(bits_, 0, head_);
    return v;
}

JtagChain::Device::Device(const DeviceDesc& d) : desc(d) {
    if (d.boundary.bsdl) {
        bsd.emplace(d.boundary);
        desc.irLength = d.boundary.bsdl->irLength;
        desc.idcode = bsd->idcode() ? bsd->idcode() : kNoIdcode;
        instruction = bsd->resetInstruction();
    }
    assert(desc.irLength >= 2 && desc.irLength <= 32);
    if (d.memory.rows) {
        assert(d.irLength >= kProgIrMinLength);
        prog.emplace(d.memory);
    }
    loopback.reload().assign(kLoopbackBits, false);
}

JtagChain::JtagChain(std::vector<DeviceDesc> devices) {
    assert(!devices.empty());
    devices_.reserve(devices.size());
    for (const DeviceDesc& d : devices) devices_.emplace_back(d);
    rebuild();
    startNs_ = monotonicNs();
}

const ProgDevice* JtagChain::firstProgrammable() const {
    for (size_t i = 0; i < devices_.size(); ++i)
        if (const ProgDevice* p = programmable(i)) return p;
    return nullptr;
}

void JtagChain::Device::capture(const JtagChain& chain, size_t position) {
    if (bsd) {
        BitVector& bits = dr.reload();
        switch (bsd->selected()) {
            case BoundaryDevice::Register::idcode:
                bits = BitVector::fromValue(bsd->idcode(), kIdcodeBits);
                break;
            case BoundaryDevice::Register::usercode:
                bits = BitVector::fromValue(desc.boundary.usercode, kIdcodeBits);
                break;
            case BoundaryDevice::Register::boundary:
                bsd->captureBoundary(&bits, [&](unsigned cell) {
                    int pin = chain.cellPins_[position][cell];
                    return pin < 0 || chain.levelOf(pin);
                });
                break;
            case BoundaryDevice::Register::bypass:
                bits.assign(1, false);
                break;
        }
        return;
    }
    if (instruction == kLoopbackInstruction) return;  // keeps what the last scan left
    BitVector& bits = dr.reload();
    if (instruction == kIdcodeInstruction && desc.idcode != kNoIdcode)
        bits = BitVector::fromValue(desc.idcode, kIdcodeBits);
    else if (memorySelected())
        prog->capture(instruction, &bits);
    else
        bits.assign(1, false);  // BYPASS captures 0
}

void JtagChain::Device::rising(bool tms, bool tdi, const JtagChain& chain, size_t position) {
    switch (state) {
        case TapState::CaptureDr:
            capture(chain, position);
            break;
        case TapState::ShiftDr:
            selected().shift(tdi);
            break;
        case TapState::CaptureIr:
            irShift = bsd ? bsd->irCapture() : 0x1;  // ...01, as the standard fixes the two low bits
            break;
        case TapState::ShiftIr:
            irShift = (irShift >> 1) | (static_cast<uint32_t>(tdi) << (desc.irLength - 1));
            break;
        default:
            break;
    }
    TapState next = jtag::nextState(state, tms);
    if (prog) prog->step(state, next);
    state = next;
    if (state == TapState::TestLogicReset) reset();
}

void JtagChain::Device::reset() {
    if (!bsd) {
        instruction = kIdcodeInstruction;
    } else if (instruction != bsd->resetInstruction()) {
        instruction = bsd->resetInstruction();
        bsd->instructionIs(instruction);
    }
}

// True after an update that may change what a BSDL device drives: every
// Update-DR, an Update-IR that starts or stops its driving.
bool JtagChain::Device::falling() {
    bool changed = bsd && state == TapState::UpdateDr;
    if (state == TapState::UpdateIr) {
        uint32_t allOnes = desc.irLength == 32 ? 0xffffffffu : (1u << desc.irLength) - 1;
        instruction = irShift & allOnes;
        if (prog) prog->instructionIs(instruction);
        if (bsd) {
            bool before = bsd->driving();
            bsd->instructionIs(instruction);
            changed = before != bsd->driving();
        }
    }
    if (state == TapState::UpdateDr && memorySelected()) prog->update(instruction, dr.contents());
    if (state == TapState::UpdateDr && bsd && bsd->selected() == BoundaryDevice::Register::boundary)
        bsd->updateBoundary(dr.contents());
    tdoDriven = state == TapState::ShiftDr || state == TapState::ShiftIr;
    if (tdoDriven) tdoLevel = state == TapState::ShiftIr ? (irShift & 1) != 0 : selected().out();
    return changed;
}

void JtagChain::tckIs(bool tck, bool tms, bool tdi) {
    if (tck == tck_) return;
    tck_ = tck;
    if (tck) {
        ++tckCycles_;
        // The controllers move together: this edge captures on every device or on none.
        if (anyWave_ && devices_.front().state == TapState::CaptureDr) nowMs_ = elapsedMs();
        // Each device's TDI is the TDO that the next one (nearer TDI) has
        // held since the last falling edge; the last one sees the pin.
        for (size_t i = 0; i < devices_.size(); ++i) {
            bool in = i + 1 < devices_.size() ? devices_[i + 1].tdoLevel : tdi;
            devices_[i].rising(tms, in, *this, i);
        }
    } else {
        // One count per update, however many devices and nodes fight.
        bool updated = false;
        for (Device& d : devices_) updated |= d.falling();
        if (updated)
            for (int n : fightNodes_)
                if (fight(nodes_[static_cast<size_t>(n)])) {
                    ++contention_;
                    break;
                }
    }
}

void JtagChain::pinsAre(const std::map<PinRef, bool>& levels) {
    levels_ = levels;
    rebuild();
}

void JtagChain::wavesAre(const std::map<PinRef, uint32_t>& periods) {
    waves_ = periods;
    rebuild();
}

void JtagChain::timeIs(uint64_t elapsedMs) {
    fixedMs_ = static_cast<int64_t>(elapsedMs);
    nowMs_ = elapsedMs;
}

uint64_t JtagChain::elapsedMs() const {
    return fixedMs_ >= 0 ? static_cast<uint64_t>(fixedMs_) : (monotonicNs() - startNs_) / 1000000u;
}

void JtagChain::wiresAre(const Wires& wires) {
    wires_ = wires;
    rebuild();
}

void JtagChain::netsAre(const std::vector<std::pair<PinRef, PinRef>>& nets) {
    Wires w;
    for (const auto& [a, b] : nets) w.join(a, b);
    wiresAre(w);
}

// The tables the level of a pin is found by without a search: a pin for
// every port with a boundary cell, each input cell's pin, each pin's node,
// each node's drivers.
void JtagChain::rebuild() {
    pins_.clear();
    nodes_.clear();
    fightNodes_.clear();
    anyWave_ = false;
    cellPins_.assign(devices_.size(), {});
    std::map<PinRef, int> byRef;
    for (size_t i = 0; i < devices_.size(); ++i) {
        if (!devices_[i].bsd) continue;
        const jtag::bsdl::Device& d = devices_[i].bsd->bsdl();
        cellPins_[i].assign(d.boundary.size(), -1);
        for (const jtag::bsdl::Cell& c : d.boundary) {
            if (c.port == "*") continue;
            PinRef ref{static_cast<unsigned>(i), c.port};
            auto [it, added] = byRef.emplace(ref, static_cast<int>(pins_.size()));
            if (added) {
                Pin p;
                p.position = ref.position;
                auto level = levels_.find(ref);
                if (level != levels_.end()) p.idle = level->second;
                auto wave = waves_.find(ref);
                if (wave != waves_.end() && wave->second > 0) p.wave = wave->second, anyWave_ = true;
                pins_.push_back(p);
            }
            Pin& p = pins_[static_cast<size_t>(it->second)];
            using F = jtag::bsdl::Cell::Function;
            bool out = c.function == F::output2 || c.function == F::output3 || c.function == F::bidir;
            if (out && p.outCell < 0) p.outCell = static_cast<int>(c.number);
            cellPins_[i][c.number] = it->second;
        }
    }
    std::vector<int> nodeOfNet(wires_.nets.size(), -1);
    for (const WireShort& s : wires_.shorts) {
        for (size_t n : s.nets) nodeOfNet[n] = static_cast<int>(nodes_.size());
        Node node;
        node.kind = s.kind;
        // Undriven, the pulls resolve as drivers would; the deciding net's pull decides.
        node.pull = s.kind != WireShort::Kind::wiredOr;
        for (size_t n : s.nets) {
            bool pull = wires_.nets[n].pull != 0;
            node.pull = s.kind == WireShort::Kind::wiredOr ? node.pull || pull : node.pull && pull;
            if (node.stuck < 0) node.stuck = wires_.nets[n].stuck;
        }
        if (s.kind == WireShort::Kind::dominant) node.pull = wires_.nets[s.dominant].pull != 0;
        nodes_.push_back(node);
    }
    for (size_t n = 0; n < wires_.nets.size(); ++n) {
        if (nodeOfNet[n] >= 0) continue;
        nodeOfNet[n] = static_cast<int>(nodes_.size());
        Node node;
        node.pull = wires_.nets[n].pull != 0;
        node.stuck = wires_.nets[n].stuck;
        nodes_.push_back(node);
    }
    std::vector<bool> inDominant(wires_.nets.size(), false);
    for (const WireShort& s : wires_.shorts)
        if (s.kind == WireShort::Kind::dominant) inDominant[s.dominant] = true;
    for (size_t n = 0; n < wires_.nets.size(); ++n) {
        Node& node = nodes_[static_cast<size_t>(nodeOfNet[n])];
        for (const PinRef& ref : wires_.nets[n].pins) {
            auto it = byRef.find(ref);
            if (it == byRef.end()) continue;
            bool open = false;
            for (const PinRef& o : wires_.open) open = open || o == ref;
            if (open) continue;
            pins_[static_cast<size_t>(it->second)].node = nodeOfNet[n];
            if (node.wave == 0) node.wave = pins_[static_cast<size_t>(it->second)].wave;
            if (pins_[static_cast<size_t>(it->second)].outCell >= 0)
                (inDominant[n] ? node.dominant : node.drivers).push_back(it->second);
        }
    }
    for (size_t n = 0; n < nodes_.size(); ++n)
        if (nodes_[n].drivers.size() + nodes_[n].dominant.size() >= 2) fightNodes_.push_back(static_cast<int>(n));
}

bool JtagChain::drives(const Pin& p, bool* level) const {
    return p.outCell >= 0 && devices_[p.position].bsd->drivesCell(static_cast<unsigned>(p.outCell), level);
}

int JtagChain::resolve(const std::vector<int>& drivers, bool wiredOr) const {
    int result = -1;
    bool level;
    for (int d : drivers) {
        if (!drives(pins_[static_cast<size_t>(d)], &level)) continue;
        if (level == wiredOr) return level;  // the level that wins
        result = level;
    }
    return result;
}

bool JtagChain::levelOf(int pin) const {
    const Pin& p = pins_[static_cast<size_t>(pin)];
    bool level;
    if (p.node < 0) return drives(p, &level) ? level : p.wave ? waveLevel(nowMs_, p.wave) : p.idle;
    const Node& n = nodes_[static_cast<size_t>(p.node)];
    if (n.stuck >= 0) return n.stuck != 0;
    bool wiredOr = n.kind == WireShort::Kind::wiredOr;
    int r = n.kind == WireShort::Kind::dominant ? resolve(n.dominant, false) : -1;
    if (r < 0) r = resolve(n.drivers, wiredOr);
    if (r >= 0) return r != 0;
    return n.wave ? waveLevel(nowMs_, n.wave) : n.pull;
}

bool JtagChain::fight(const Node& n) const {
    bool seen[2] = {false, false}, level;
    for (const std::vector<int>* list : {&n.drivers, &n.dominant})
        for (int d : *list)
            if (drives(pins_[static_cast<size_t>(d)], &level)) seen[level] = true;
    return seen[0] && seen[1];
}

bool JtagChain::pinLevel(size_t position, const std::string& port) const {
    PinRef ref{static_cast<unsigned>(position), port};
    if (anyWave_) nowMs_ = elapsedMs();
    if (const BoundaryDevice* d = position < devices_.size() ? boundary(position) : nullptr)
        for (const jtag::bsdl::Cell& c : d->bsdl().boundary)
            if (c.port != "*" && PinRef{ref.position, c.port} == ref) return levelOf(cellPins_[position][c.number]);
    auto it = levels_.find(ref);
    return it == levels_.end() ? true : it->second;
}

bool JtagChain::tdo() const {
    const Device& d = devices_.front();
    return d.tdoDriven ? d.tdoLevel : true;
}

}  // namespace sim
