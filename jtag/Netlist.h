// A board's netlist: which component pins each net joins. Two formats are
// read:
//
//  - the S-expression netlist schematic editors export:
//      (export (version "E") ... (components (comp (ref "U1") (value "X") ...) ...)
//              (nets (net (code "1") (name "/SDA") (node (ref "U1") (pin "5")
//                    [(pinfunction "SDA")] [(pintype "bidirectional")]) ...) ...))
//    Atoms are bare or double-quoted strings (backslash escapes a quote or a
//    backslash); lists the reader does not need are skipped whatever they hold.
//  - plain text, one net a line: "NAME: REF.PIN REF.PIN ..." ('#' starts a
//    comment; blank lines are skipped; the pin is what follows the last '.').
//
// The format is told by the first character that is not white space or a
// comment: '(' is an S-expression.
#pragma once
#include <string>
#include <vector>

namespace jtag::netlist {

struct Node {
    std::string ref, pin;    // "U1", "5" or "A3"
    std::string function;    // (pinfunction ...): the pin's name on the symbol; "" when not given
    std::string type;        // (pintype ...): "input", "power_in", "passive", ...; "" when not given
    unsigned line = 0;       // 1-based, where the node is written
};

struct Net {
    std::string name;
    std::vector<Node> nodes;
    unsigned line = 0;
};

struct Component {
    std::string ref, value;
    unsigned line = 0;
};

struct Netlist {
    std::string file;  // as given to the reader, for messages
    std::vector<Component> components;  // empty in the plain text format
    std::vector<Net> nets;              // in file order
};

// Reads a netlist's text; fileName names it in messages. False with *error
// "file:line: what is wrong" (unbalanced parentheses, an unterminated
// string, a node without ref or pin, a net without a name, a net named
// twice, a text line without ':' or with a pin not written REF.PIN, a pin in
// two nets).
bool read(const std::string& text, const std::string& fileName, Netlist* out, std::string* error);
// The same for a file (one that cannot be read: "file: why").
bool readFile(const std::string& path, Netlist* out, std::string* error);

// Whether a net's name says ground or supply: GND, AGND, DGND, PGND, VSS,
// GROUND, VCC*, VDD*, VEE, VPP, VBAT, VIN, or a voltage such as +3V3, 3.3V,
// +5V, -12V, 1V8 (any case; a hierarchical prefix such as "/" ignored).
// The words without '*' may be followed by '_' or a digit and more (GND_ISO,
// VBAT2), a voltage by '_' and more or by letters (+3V3_AUX, +5VA). Where a
// name is in doubt the answer leans to power, which leaves a net untested
// rather than driven: VCCINT_SENSE (a supply's sense line) is power. A
// reference such as DDR_VREF is not a supply by name; the chips' pins on it
// are typed power_in, which isPower sees. VIN_DET is power (VIN and '_'),
// VINT is not.
bool powerName(const std::string& name);
// Whether a net is a power net by the netlist alone: its name, or a node
// whose pin type is power_in or power_out.
bool isPower(const Net& net);

// A resistor between the net and a power net: a component whose reference is
// R followed by a digit, with exactly two pins in the netlist, one on `net`,
// the other on a power net. up: to a supply; !up: to ground. False when
// none. The resistor's node on `net` in *via.
bool pullOf(const Netlist& n, const Net& net, bool* up, Node* via);

}  // namespace jtag::netlist
