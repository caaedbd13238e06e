// A board's interconnect test, from its netlist and its devices' BSDL
// files: every net that two boundary-scan pins share is driven from one of
// them under EXTEST and read at the others, and opens, shorts and stuck
// nets are named.
//
// Detection gives each of the N driven nets a distinct code, never all
// zeros nor all ones, of k = ceil(log2(N + 2)) bits, and applies the k
// patterns of the codes' bits then the k patterns of their complements: a
// net that reads back its own 2k levels at every pin is good; two nets
// shorted together read the same levels; a net held at a rail reads one
// level throughout (the complement patterns make sure no good net does).
// Each pattern is one DR scan: the capture of one shifts out while the next
// shifts in. Diagnosis then walks a 1 and a 0 over the suspect nets only
// (those that failed, and those whose code a failing net read), with all
// suspects at 1 and at 0 besides, which tells a wired-AND from a wired-OR
// short, a net that dominates another from both, and a short from a stuck
// net.
//
// Safety: in every pattern a net has at most one enabled driver (each net
// is given one, and a control cell that enables several outputs is used
// only when each of them is the driver of its own net); every output the
// netlist does not name, and every pin on a power net, stays disabled or,
// when nothing can disable it, at its safe level.
#pragma once
#include <map>
#include <set>
#include <string>
#include <vector>

#include "jtag/BitVector.h"
#include "jtag/Bsdl.h"
#include "jtag/Json.h"
#include "jtag/Netlist.h"

namespace jtag::interconnect {

// A component of the netlist that is a device on the chain.
struct Part {
    std::string ref;
    unsigned position = 0;
    const bsdl::Device* device = nullptr;
    std::string package;  // "" the file's default
};

struct Options {
    std::map<std::string, bool> pulls;  // net -> pulled up (true) or down, besides the netlist's resistors
    std::set<std::string> power;        // nets never driven, besides those the netlist shows
};

enum class NetClass { testable, pulled, untestable, power };
const char* className(NetClass c);

// A boundary-scan pin on a net.
struct Pin {
    size_t part = 0;         // index in Plan::parts
    std::string name;        // "REF.PIN"
    std::string port;        // as the BSDL file spells it
    int output = -1;         // the cell that drives it; -1: none
    int control = -1;        // the cell that enables that output; -1: none (two-state)
    bool enable = true;      // the control cell's value that enables the output
    int input = -1;          // the cell that captures it; -1: none
    bool exclusive = false;  // its control cell enables no other output
};

struct PlannedNet {
    std::string name;
    NetClass cls = NetClass::untestable;
    std::string reason;               // why untestable
    std::vector<std::string> pins;    // every node, "REF.PIN"
    std::vector<size_t> scanPins;     // index in Plan::pins: the boundary-scan pins
    int driver = -1;                  // index in Plan::pins; -1: none
    bool pullUp = true, pulled = false;
    std::string pullVia;              // the resistor's node, "REF.PIN"; "" when given by an option
};

struct Plan {
    std::vector<Part> parts;
    std::vector<Pin> pins;
    std::vector<PlannedNet> nets;
    std::vector<BitVector> released;  // per part: outputs disabled, two-state outputs at their safe level
};

// The plan for a netlist on these parts; false with *error ("file:line:
// what") when the netlist does not fit them: a pin not in a part's pin map,
// a part with no boundary register or no EXTEST, a package not in its file.
bool plan(const netlist::Netlist& n, const std::vector<Part>& parts, const Options& o, Plan* out,
          std::string* error);

// What the test does to the board: one DR scan through every part's
// boundary register (the others in BYPASS), which returns what each part's
// register captured; the instruction switch from PRELOAD to EXTEST; and
// whether to stop (a signal came): the test then ends at once.
class Board {
  public:
    virtual ~Board() = default;
    virtual std::vector<BitVector> scan(const std::vector<BitVector>& registers) = 0;
    virtual void extest() = 0;
    virtual bool stop() { return false; }
};

struct Fault {
    std::string kind;                // "open", "short", "stuck-0", "stuck-1"
    std::vector<std::string> nets;   // the nets (a short: two or more)
    std::vector<std::string> pins;   // open: the pin; otherwise the nets' boundary-scan pins
    std::string behaviour;           // short: "wired-and", "wired-or", or the net that dominates; else ""
};

struct NetResult {
    std::string name;
    NetClass cls = NetClass::untestable;
    std::string result;  // "pass", "fail", "untestable"
    std::string reason;  // untestable: why
    std::vector<std::string> pins;
};

struct Report {
    std::vector<NetResult> nets;
    std::vector<Fault> faults;
    unsigned patterns = 0, scans = 0;
    unsigned detectionScans = 0;  // of them, those of detection (with the preload)
    bool stopped = false;         // a stop came before the end: nothing is reported
    unsigned passed() const, failed() const, untestable() const;
};

// Runs the plan: the caller has put every part in SAMPLE/PRELOAD, the
// others in BYPASS; the board is left in EXTEST with every part's released
// register in force, for the caller to reset.
Report run(const Plan& p, Board& board);

// The register of each part for one pattern: level[net] 0 or 1 drives the
// net from its driver, -1 leaves the driver disabled.
std::vector<BitVector> registers(const Plan& p, const std::vector<int>& level);

// One line per fault ("open: D3 at U2.B4", "short: D0, D1 (wired-and)",
// "stuck-1: D7"), then "N nets: P passed, F failed, U untestable; K
// patterns, S scans".
std::string text(const Report& r);
// {"nets":[{"name","class","result","pins"[,"reason"]}],"faults":[{"kind","nets","pins","behaviour"}],
//  "patterns":K,"scans":S}
Json json(const Report& r);
// JUnit XML: one testcase per net, a failure with its faults, skipped when untestable.
std::string junit(const Report& r, const std::string& suite);

}  // namespace jtag::interconnect
