// A reader for BSDL files (IEEE 1149.1 Boundary-Scan Description
// Language): the VHDL entity a JTAG device's maker publishes to describe
// its test logic. What the bring-up needs is read; attributes it does not
// use are skipped.
//
// The language as makers write it: VHDL comments (-- to the end of the
// line); strings joined with & over many lines; `generic
// (PHYSICAL_PIN_MAP : string := "NAME")` naming the default package;
// `port (...)` with `in`, `out`, `inout`, `buffer` and `linkage` ports,
// scalar (`bit`) or `bit_vector (a to b)` / `(a downto b)`; `use` statements;
// one `constant NAME : PIN_MAP_STRING := "..."` per package; and the
// attributes INSTRUCTION_LENGTH, INSTRUCTION_OPCODE (several opcodes per
// instruction; aliases such as SAMPLE and PRELOAD may share one),
// INSTRUCTION_CAPTURE, IDCODE_REGISTER and USERCODE_REGISTER (X for bits
// that vary), REGISTER_ACCESS, BOUNDARY_LENGTH and BOUNDARY_REGISTER.
// Names are case-insensitive in VHDL: they are kept as written, compared
// without case.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace jtag::bsdl {

struct Port {
    enum class Mode { in, out, inout, buffer, linkage };
    std::string name;
    Mode mode = Mode::in;
    // bit_vector (first to|downto last); both -1 for a scalar port.
    int first = -1, last = -1;
    bool isVector() const { return first >= 0; }
};

// One package's pin map: each scalar port, or each element of a vector port
// as "NAME(i)", and its package pin. A scalar port takes one pin; a vector
// port's parenthesised list gives one pin per element in the order of its
// range (SW (3 downto 0) : (A4, A3, A2, A1) puts SW(3) on A4), so a port
// bonded to several pins, a supply for one, is declared a bit_vector.
struct PinMap {
    std::string name;  // the constant's name, the package
    std::vector<std::pair<std::string, std::vector<std::string>>> pins;  // one pin each
};

// One cell of the boundary register, as BOUNDARY_REGISTER lists it:
//   num (cell, port, function, safe [, ccell, disval, rslt])
struct Cell {
    enum class Function { input, clock, output2, output3, control, controlr, internal, bidir, observe_only };
    unsigned number = 0;
    std::string cellType;  // BC_1, BC_2, ...
    std::string port;      // "*" for an internal cell; "NAME(i)" for an element of a vector port
    Function function = Function::internal;
    char safe = 'X';               // '0', '1' or 'X'
    int controlCell = -1;          // -1: none
    char disableValue = 'X';       // the control cell's value that disables this output
    std::string disableResult;     // Z, WEAK0, WEAK1, PULL0, PULL1, KEEPER; empty: none
};

struct Instruction {
    std::string name;
    std::vector<std::string> opcodes;  // each irLength characters, 0/1/X, most significant bit first
};

struct RegisterAccess {
    std::string reg;                        // BOUNDARY, BYPASS, DEVICE_ID, USERCODE, or a maker's own
    unsigned length = 0;                    // 0: not given (BYPASS, BOUNDARY, ... have their own)
    std::vector<std::string> instructions;  // the instructions that select it
};

struct Device {
    std::string file;    // as given to the reader, for messages
    std::string entity;  // the entity's name: the part
    std::vector<Port> ports;
    std::string defaultPackage;  // PHYSICAL_PIN_MAP's default
    std::vector<PinMap> packages;
    unsigned irLength = 0;
    std::vector<Instruction> instructions;
    std::string irCapture;  // irLength characters, 0/1/X, most significant first; empty: not given
    std::string idcode;     // 32 characters 0/1/X, most significant first; empty: none
    std::string usercode;   // the same, for USERCODE_REGISTER
    std::vector<RegisterAccess> registerAccess;
    unsigned boundaryLength = 0;  // 0: no boundary register
    std::vector<Cell> boundary;   // indexed by cell number: boundary[i].number == i
    // The reader's indices for port() and instruction(): positions in ports
    // and instructions in the order of their names without case, looked up
    // by binary search. A Device put together otherwise may leave them
    // empty (or stale: of another size than their vector); lookups then scan.
    std::vector<uint32_t> portsByName, instructionsByName;

    const Port* port(const std::string& name) const;                 // by name, without case
    const Instruction* instruction(const std::string& name) const;  // by name, without case
    const PinMap* package(const std::string& name) const;           // by name, without case; "" the default
    // The IDCODE as value and mask (mask bit 1 where the file gives 0 or 1).
    uint32_t idcodeValue() const;
    uint32_t idcodeMask() const;
    bool matches(uint32_t idcode) const;  // an IDCODE this file describes, X bits aside
};

// A cell function as BSDL writes it, in lower case: "bidir", "output3", ...
std::string functionName(Cell::Function f);

struct Error {
    std::string file;
    unsigned line = 0;  // 1-based; the line where the fault was found
    std::string message;
    std::string text() const;  // "file:line: message"
};

// Reads the text of a BSDL file; fileName names it in messages. Checks what
// the reader uses: every opcode and the capture irLength long; no two
// instructions whose opcodes an IR value matches both (SAMPLE and PRELOAD
// may share an identical one; one instruction's opcodes may overlap each
// other); each port and instruction declared once; in a pin map, ports
// declared and mapped once, a scalar port to one pin, a vector port to one
// per element; cell numbers below BOUNDARY_LENGTH and each listed once,
// control cells that exist and are control cells, ports of cells declared;
// numbers that fit what they count; parentheses balanced; instructions
// named in REGISTER_ACCESS declared. False with *error set. Time and memory
// grow with the text's length, not faster (the opcodes' check: with the
// number of layouts of X bits, of which it takes at most 64).
bool read(const std::string& text, const std::string& fileName, Device* device, Error* error);
// The same for a file on disk (a file that cannot be read is an error at line 0).
bool readFile(const std::string& path, Device* device, Error* error);

}  // namespace jtag::bsdl
