// The BSDL reader on the project's test files (tests/data/bsdl, two makers'
// layouts) and on faults, each named with its file and line; the JEP106
// table.
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "jtag/Bsdl.h"
#include "jtag/Jep106.h"

namespace {

using jtag::bsdl::Cell;
using jtag::bsdl::Device;
using jtag::bsdl::Error;
using jtag::bsdl::Port;
using F = Cell::Function;

std::string cellText(const Cell& c) {
    std::string s = std::to_string(c.number) + " " + c.cellType + " " + c.port + " " +
                    std::to_string(static_cast<int>(c.function)) + " " + c.safe;
    if (c.controlCell >= 0) s += " " + std::to_string(c.controlCell) + " " + c.disableValue + " " + c.disableResult;
    return s;
}

// Entity, IR length, IDCODE and the BOUNDARY cells a device's discovery
// and sample report from these files: chain_test.sh (kv_dap4's missing
// boundary register and USERCODE there too).
TEST(Bsdl, OneLongStringPerAttributeTwoPackagesAndAliases) {
    Device d = bsdlData("kv_cpld64.bsd");
    EXPECT_EQ(d.irCapture + " " + std::to_string(d.ports.size()) + " " + std::to_string(d.instructions.size()), "XXXXXX01 9 8");
    EXPECT_TRUE(d.port("D")->mode == Port::Mode::inout && d.port("d")->first == 0 && d.port("d")->last == 3 &&
                d.port("vcc")->mode == Port::Mode::linkage && !d.port("tck")->isVector());
    // Several opcodes for one instruction; SAMPLE and PRELOAD share one.
    EXPECT_EQ(d.instruction("EXTEST")->opcodes, (std::vector<std::string>{"00000000", "00001000"}));
    EXPECT_EQ(d.instruction("sample")->opcodes, d.instruction("PRELOAD")->opcodes);
    // The IDCODE's version is X: any version matches.
    EXPECT_EQ(d.idcodeMask(), 0x0fffffffu);
    EXPECT_TRUE(d.matches(0x0123402f) && d.matches(0xf123402f) && !d.matches(0x0123403f));
    EXPECT_EQ(d.usercode, std::string(32, 'X'));

    // The default package and the other; a vector port's pins element by element.
    ASSERT_EQ(d.packages.size(), 2u);
    const jtag::bsdl::PinMap* tq = d.package("");
    ASSERT_NE(tq, nullptr);
    std::string pins = d.defaultPackage + " " + tq->name + ": ";
    for (const auto& [port, p] : tq->pins) {
        pins += port + "=";
        for (const std::string& pin : p) pins += pin + ",";
        pins += " ";
    }
    EXPECT_EQ(pins, "TQ44 TQ44: tck=8, tms=9, tdi=10, tdo=11, clk=1, rst_n=2, led=3, d(0)=4, d(1)=5, d(2)=6, d(3)=7, "
                    "vcc(1)=12, vcc(2)=13, ");
    EXPECT_EQ(d.package("cs48")->pins[7].second, std::vector<std::string>{"B2"});

    ASSERT_EQ(d.registerAccess.size(), 4u);
    EXPECT_EQ(d.registerAccess[3].reg + " " + std::to_string(d.registerAccess[3].length), "usercode 32");
    EXPECT_EQ(d.registerAccess[0].instructions, (std::vector<std::string>{"extest", "sample", "preload"}));

    ASSERT_EQ(d.boundaryLength, 12u);
    ASSERT_EQ(d.boundary.size(), 12u);
    EXPECT_EQ(cellText(d.boundary[0]) + "|" + cellText(d.boundary[3]) + "|" + cellText(d.boundary[9]) + "|" +
                  cellText(d.boundary[11]),
              "0 bc_1 clk 0 X|3 bc_1 led 3 X 2 1 Z|9 bc_7 d(3) 7 X 7 1 Z|11 bc_1 * 6 0");
    EXPECT_EQ(d.boundary[2].function, F::control);
}

TEST(Bsdl, ShortPiecesUpperCaseSkippedAttributesCellsInAnyOrder) {
    Device d = bsdlData("KV_FPGA6.BSD");
    EXPECT_EQ(d.idcodeMask(), 0xffffffffu);
    EXPECT_TRUE(d.port("SW")->first == 3 && d.port("SW")->last == 0 && d.port("GND")->last == 3);  // 3 downto 0
    EXPECT_EQ(d.instruction("PRIVATE1")->opcodes, (std::vector<std::string>{"110000", "1100X1"}));
    // The downward range takes its pins from SW(3) on.
    const auto& pins = d.package("FG256")->pins;
    EXPECT_EQ(pins[0].first + "=" + pins[0].second[0] + " " + pins[3].first + "=" + pins[3].second[0], "SW(3)=A4 SW(0)=A1");
    ASSERT_EQ(d.boundary.size(), 8u);
    for (unsigned i = 0; i < 8; ++i) EXPECT_EQ(d.boundary[i].number, i);
    EXPECT_EQ(cellText(d.boundary[0]) + "|" + cellText(d.boundary[4]) + "|" + cellText(d.boundary[6]),
              "0 BC_4 SW(0) 0 X|4 BC_1 OUT0 2 0|6 BC_7 BUS 7 X 5 0 PULL1");
}

// The text of a fault reading `text`, or "read" when it reads.
std::string outcome(const std::string& text) {
    Device d;
    Error e;
    return jtag::bsdl::read(text, "f.bsd", &d, &e) ? "read" : e.text();
}

// Each fault named with the file and the line where it is.
TEST(Bsdl, FaultsNameTheFileAndLine) {
    const std::string head =
        "entity E is\n"                                                // 1
        "  port (A : in bit; B : out bit; C : inout bit_vector (0 to 1));\n"  // 2
        "  attribute INSTRUCTION_LENGTH of E : entity is 2;\n";        // 3
    const std::string ops = "  attribute INSTRUCTION_OPCODE of E : entity is \"BYPASS (11), EXTEST (00)\";\n";  // 4
    auto boundary = [&](const char* length, const char* cells) {
        return head + ops + "  attribute BOUNDARY_LENGTH of E : entity is " + length + ";\n" +  // 5
               "  attribute BOUNDARY_REGISTER of E : entity is\n" +                             // 6
               "    \"0 (BC_1, A, input, X),\" &\n" +                                            // 7
               "    " + cells + ";\n" +                                                          // 8
               "end E;\n";
    };
    const struct {
        std::string text, error;
    } cases[] = {
        {head + "  attribute X of E : entity is (1, (2);\nend E;\n", "f.bsd:4: unbalanced parenthesis: '(' at line 4 is not closed"},
        {head + "  port (A : in bit;\nend E;\n", "f.bsd:5: expected ':', found 'E'"},
        {head + "  attribute INSTRUCTION_OPCODE of E : entity is \"BYPASS (11),\" &\n   \"EXTEST (000)\";\nend E;\n",
         "f.bsd:5: INSTRUCTION_OPCODE: EXTEST 000 has 3 bits; INSTRUCTION_LENGTH is 2"},
        {boundary("2", "\"2 (BC_1, B, output2, X)\""), "f.bsd:8: BOUNDARY_REGISTER: cell 2 is past BOUNDARY_LENGTH 2"},
        {boundary("3", "\"1 (BC_1, B, output3, X, 2, 1, Z), 2 (BC_1, A, input, X)\""),
         "f.bsd:8: BOUNDARY_REGISTER: cell 1: cell 2 is not a control cell"},
        {boundary("2", "\"1 (BC_1, B, output3, X, 5, 1, Z)\""),
         "f.bsd:8: BOUNDARY_REGISTER: cell 1: control cell 5 does not exist"},
        {boundary("2", "\"0 (BC_1, B, output2, X)\""), "f.bsd:8: BOUNDARY_REGISTER: cell 0 listed twice"},
        {boundary("2", "\"1 (BC_1, C(2), bidir, X)\""), "f.bsd:8: BOUNDARY_REGISTER: cell 1: no port C(2)"},
        {boundary("3", "\"1 (BC_1, B, output2, X)\""), "f.bsd:7: BOUNDARY_REGISTER: cell 2 of 3 is missing"},
        {boundary("2", "\"1 (BC_1, B, output2, Q)\""), "f.bsd:8: BOUNDARY_REGISTER: cell 1: safe value Q is not 0, 1 or X"},
        {"entity E is\n  port (A : in bit);\nend E;\n", "f.bsd:3: no INSTRUCTION_LENGTH"},
        {head + "  attribute IDCODE_REGISTER of E : entity is \"0101\";\nend E;\n", "f.bsd:4: IDCODE_REGISTER: 4 bits, not 32"},
        {head + "  attribute INSTRUCTION_CAPTURE of E : entity is \"0Z\";\nend E;\n",
         "f.bsd:4: INSTRUCTION_CAPTURE: 'Z' is not 0, 1 or X"},
        {head + "  attribute REGISTER_ACCESS of E : entity is \"BOUNDARY (SAMPLE)\";\nend E;\n",
         "f.bsd:4: REGISTER_ACCESS: no instruction SAMPLE"},
        {head + "  constant P : PIN_MAP_STRING := \"A:1, Q:2\";\nend E;\n", "f.bsd:4: pin map P: no port Q"},
        {head + "  attribute X of E : entity is \"open\n;\nend E;\n", "f.bsd:4: a string that does not end on its line"},
        {head, "f.bsd:4: the file ends before the entity's end"},
        {head + "  attribute X of E : entity is 1", "f.bsd:4: unexpected end of the file in a statement"},
    };
    for (const auto& c : cases) EXPECT_EQ(outcome(c.text), c.error);
    Device d;
    Error e;
    EXPECT_FALSE(jtag::bsdl::readFile(kBsdlData + "none.bsd", &d, &e));
    EXPECT_EQ(e.text(), kBsdlData + "none.bsd:0: cannot read: No such file or directory");
}

// A device of IR `ir` bits and ports A, B, C(0 to 1); `body` on lines 4 on.
std::string device(unsigned ir, const std::string& body) {
    return "entity E is\n"                                                          // 1
           "  port (A : in bit; B : out bit; C : inout bit_vector (0 to 1));\n"     // 2
           "  attribute INSTRUCTION_LENGTH of E : entity is " + std::to_string(ir) + ";\n" +  // 3
           body + "end E;\n";
}

std::string opcodes(unsigned ir, const std::string& list) {
    return device(ir, "  attribute INSTRUCTION_OPCODE of E : entity is\n    \"" + list + "\";\n");  // 4, 5
}

// Two instructions whose opcodes one IR value matches: the device would
// take the one for the other (a SAMPLE that selects EXTEST drives the
// pins). Refused, naming both; what may share: SAMPLE and PRELOAD with the
// very same opcode, and one instruction's own opcodes.
TEST(Bsdl, OpcodesOfTwoInstructionsDoNotOverlap) {
    const struct {
        unsigned ir;
        std::string list, result;
    } cases[] = {
        {8, "extest (00001000), sample (0000100X)", "f.bsd:5: INSTRUCTION_OPCODE: sample 0000100X overlaps extest 00001000"},
        {8, "sample (0000100x), extest (00001000)", "f.bsd:5: INSTRUCTION_OPCODE: extest 00001000 overlaps sample 0000100X"},
        {4, "HIGHZ (0100), CLAMP (0100)", "f.bsd:5: INSTRUCTION_OPCODE: CLAMP 0100 overlaps HIGHZ 0100"},
        // Aliases only when equal, and only the two of them.
        {4, "SAMPLE (0001), PRELOAD (000X)", "f.bsd:5: INSTRUCTION_OPCODE: PRELOAD 000X overlaps SAMPLE 0001"},
        {4, "SAMPLE (0001), PRELOAD (0001), EXTEST (0001)", "f.bsd:5: INSTRUCTION_OPCODE: EXTEST 0001 overlaps SAMPLE 0001"},
        {4, "SAMPLE (0001), PRELOAD (0001), X1 (000X)", "f.bsd:5: INSTRUCTION_OPCODE: X1 000X overlaps SAMPLE 0001"},
        {4, "SAMPLE (0001), SAMPLE_BOTH (0001)", "f.bsd:5: INSTRUCTION_OPCODE: SAMPLE_BOTH 0001 overlaps SAMPLE 0001"},
        // X in two layouts, each fixing a bit the other leaves X.
        {4, "A (1XX0), B (X1X0)", "f.bsd:5: INSTRUCTION_OPCODE: B X1X0 overlaps A 1XX0"},
        {4, "A (XXXX), B (0110)", "f.bsd:5: INSTRUCTION_OPCODE: B 0110 overlaps A XXXX"},
        // A second opcode of one instruction meets another's; an instruction
        // overlapping its own opcode does not hide another's.
        {4, "EXTEST (0000, 0101), SAMPLE (01X1)", "f.bsd:5: INSTRUCTION_OPCODE: SAMPLE 01X1 overlaps EXTEST 0101"},
        {4, "A (0000, 000X), B (0001)", "f.bsd:5: INSTRUCTION_OPCODE: B 0001 overlaps A 000X"},
        {4, "A (0000), B (0001), A2 (0010), B2 (0011), C (00XX)", "f.bsd:5: INSTRUCTION_OPCODE: C 00XX overlaps A 0000"},
        // Wide registers: bits past the first 64.
        {70, "A (" + std::string(69, '0') + "1), B (" + std::string(69, '0') + "X)",
         "f.bsd:5: INSTRUCTION_OPCODE: B " + std::string(69, '0') + "X overlaps A " + std::string(69, '0') + "1"},
        {70, "A (1" + std::string(69, '0') + "), B (0" + std::string(69, 'X') + "), C (" + std::string(69, 'X') + "1)",
         "f.bsd:5: INSTRUCTION_OPCODE: C " + std::string(69, 'X') + "1 overlaps B 0" + std::string(69, 'X')},
        // What reads.
        {8, "bypass (11111111), extest (00000000, 00001000), sample (00000001), Preload (00000001)", "read"},
        {4, "EXTEST (0000, 000X, 0000), PRIV (01XX), PRIV2 (1X0X), PRIV3 (1X1X, 1111), SAMPLE (0010), PRELOAD (0010)", "read"},
        {70, "A (1" + std::string(69, '0') + "), B (0" + std::string(69, 'X') + "), C (1" + std::string(68, 'X') + "1)", "read"},
    };
    for (const auto& c : cases) EXPECT_EQ(outcome(opcodes(c.ir, c.list)), c.result) << c.list;

    // X bits in more layouts than the check takes.
    std::string many;
    for (unsigned k = 0; k < 65; ++k) {
        std::string op(16, '0');
        for (unsigned b = 0; b < 7; ++b)
            if (k >> b & 1) op[b] = 'X';
        op[7 + k % 9] = '1';
        many += (k ? ", I" : "I") + std::to_string(k) + " (" + op + ")";
    }
    EXPECT_EQ(outcome(opcodes(16, many)), "f.bsd:5: INSTRUCTION_OPCODE: opcodes with X bits in more than 64 layouts");
}

// Faults in declarations: a name twice, a pin map that puts a port on pins
// its type does not have, numbers too large for what they count (refused,
// not wrapped: BOUNDARY_LENGTH 4294967297 is not 1), opcodes and capture of
// another length than the register.
TEST(Bsdl, DeclarationsPinMapsAndNumbersThatDoNotFit) {
    const std::string cells = "  attribute BOUNDARY_LENGTH of E : entity is 2;\n"                        // 4
                              "  attribute BOUNDARY_REGISTER of E : entity is\n"                          // 5
                              "    \"0 (BC_1, *, control, 1), \" &\n";                                    // 6
    auto cell = [&](const std::string& text) { return device(2, cells + "    \"" + text + "\";\n"); };  // 7
    auto pinMap = [](const std::string& text) { return device(2, "  constant P : PIN_MAP_STRING := \"" + text + "\";\n"); };
    auto ports = [](const std::string& text) {
        return "entity E is\n  port (" + text + ");\n  attribute INSTRUCTION_LENGTH of E : entity is 2;\nend E;\n";
    };
    const struct {
        std::string text, result;
    } cases[] = {
        // Ports declared more than once, names without case.
        {ports("A : in bit;\n    B : out bit;\n    A : in bit;\n    A : out bit"), "f.bsd:4: port A declared twice"},
        {ports("A, b, B : in bit"), "f.bsd:2: port B declared twice"},
        {ports("TDI : in bit;\n    tdo : out bit;\n    TDO : buffer bit_vector (0 to 3)"), "f.bsd:4: port TDO declared twice"},
        {"entity E is\n  port (A : in bit);\n  port (B : in bit);\n  attribute INSTRUCTION_LENGTH of E : entity is 2;\nend E;\n",
         "f.bsd:3: a second port list"},
        {opcodes(2, "BYPASS (11), EXTEST (00), bypass (01)"), "f.bsd:5: instruction bypass given twice"},
        // Pin maps: one pin for a scalar port, one per element for a vector port, each port once.
        {pinMap("A:(1, 2), B:3"), "f.bsd:4: pin map P: A is a scalar port, mapped to 2 pins (a port on several pins is a bit_vector)"},
        {pinMap("A:1, B:2, a:3"), "f.bsd:4: pin map P: port a mapped twice"},
        {pinMap("C:(1, 2, 3)"), "f.bsd:4: pin map P: C has 2 elements, 3 pins"},
        {pinMap("C:1"), "f.bsd:4: pin map P: C has 2 elements, 1 pin"},
        {device(2, "  constant P : PIN_MAP_STRING := \"A:1\";\n  constant p : PIN_MAP_STRING :=\n \"A:2\";\n"),
         "f.bsd:6: pin map p given twice"},
        {device(2, "  constant P : PIN_MAP_STRING := \"A:(1), B:2, C:(3, 4)\";\n  constant Q : PIN_MAP_STRING := \"A:5, C:(6, 7)\";\n"),
         "read"},
        // Numbers past what they count.
        {device(2, "  attribute BOUNDARY_LENGTH of E : entity is 4294967297;\n"), "f.bsd:4: BOUNDARY_LENGTH: 0 to 1048576, found '4294967297'"},
        {device(2, "  attribute BOUNDARY_LENGTH of E : entity is 18446744073709551617;\n"),
         "f.bsd:4: BOUNDARY_LENGTH: 0 to 1048576, found '18446744073709551617'"},
        {"entity E is\n  attribute INSTRUCTION_LENGTH of E : entity is 4294967298;\nend E;\n",
         "f.bsd:2: INSTRUCTION_LENGTH: 2 to 1024, found '4294967298'"},
        {ports("C : in bit_vector (0 to 4294967296)"), "f.bsd:2: a bit_vector bound 4294967296 is larger than 1048576"},
        {ports("C : in bit_vector (18446744073709551617 downto 0)"),
         "f.bsd:2: a bit_vector bound 18446744073709551617 is larger than 1048576"},
        {ports("C : in bit_vector (0 to x)"), "f.bsd:2: a bit_vector bound wants a number, found 'x'"},
        {ports("C : in bit_vector (0 upto 1)"), "f.bsd:2: a bit_vector range wants (A to B) or (A downto B), found upto"},
        {cell("4294967297 (BC_1, A, input, X)"), "f.bsd:7: BOUNDARY_REGISTER: a cell number 4294967297 is larger than 1048575"},
        {cell("1 (BC_1, B, output3, X, 4294967296, 1, Z)"),
         "f.bsd:7: BOUNDARY_REGISTER: cell 1: a control cell 4294967296 is larger than 1048575"},
        {cell("1 (BC_1, C(4294967296), bidir, X)"), "f.bsd:7: BOUNDARY_REGISTER: cell 1: no port C(4294967296)"},
        {device(2, "  attribute REGISTER_ACCESS of E : entity is \"BOUNDARY[4294967298] (EXTEST)\";\n"),
         "f.bsd:4: REGISTER_ACCESS: BOUNDARY: a length 4294967298 is larger than 1048576"},
        {cell("00000000000000000001 (BC_1, C(000000000000000000001), bidir, X, 0000000000000, 1, Z)"), "read"},
        // A cell that names itself its control cell.
        {cell("1 (BC_1, B, output3, X, 1, 1, Z)"), "f.bsd:7: BOUNDARY_REGISTER: cell 1: cell 1 is not a control cell"},
        // Lengths: the opcodes and the capture are the register's, whichever comes first in the file.
        {device(3, "  attribute INSTRUCTION_CAPTURE of E : entity is \"X01\";\n"), "read"},
        {device(3, "  attribute INSTRUCTION_CAPTURE of E : entity is \"X\" &\n    \"X01\";\n"),
         "f.bsd:4: INSTRUCTION_CAPTURE has 4 bits; INSTRUCTION_LENGTH is 3"},
        {"entity E is\n  attribute INSTRUCTION_CAPTURE of E : entity is \"01\";\n  attribute INSTRUCTION_LENGTH of E : entity is 3;\nend E;\n",
         "f.bsd:2: INSTRUCTION_CAPTURE has 2 bits; INSTRUCTION_LENGTH is 3"},
        {"entity E is\n  attribute INSTRUCTION_OPCODE of E : entity is \"BYPASS (11)\";\n  attribute INSTRUCTION_LENGTH of E : entity is 3;\nend E;\n",
         "f.bsd:2: INSTRUCTION_OPCODE: BYPASS 11 has 2 bits; INSTRUCTION_LENGTH is 3"},
    };
    for (const auto& c : cases) EXPECT_EQ(outcome(c.text), c.result) << c.text;
}

// Lookups by name go by the reader's indices: every port and instruction
// found, whatever its case, none that is not there; a Device put together
// by hand, without them, is scanned.
TEST(Bsdl, LookupsByNameOverManyPortsAndInstructions) {
    constexpr unsigned kCount = 300;
    std::string ports, ops;
    for (unsigned i = 0; i < kCount; ++i) {
        ports += "P" + std::to_string(i) + (i % 2 ? " : in bit;\n" : " : out bit;\n");
        std::string op(9, '0');
        for (unsigned b = 0; b < 9; ++b)
            if (i >> b & 1) op[8 - b] = '1';
        ops += (i ? ", I" : "I") + std::to_string(i) + " (" + op + ")";
    }
    std::string text = "entity E is\n  port (" + ports + "  Q : in bit);\n" +
                       "  attribute INSTRUCTION_LENGTH of E : entity is 9;\n"
                       "  attribute INSTRUCTION_OPCODE of E : entity is \"" + ops + "\";\nend E;\n";
    Device d;
    Error e;
    ASSERT_TRUE(jtag::bsdl::read(text, "f.bsd", &d, &e)) << e.text();
    for (unsigned i = 0; i < kCount; ++i) {
        const Port* p = d.port("p" + std::to_string(i));
        ASSERT_NE(p, nullptr) << i;
        EXPECT_EQ(p->name, "P" + std::to_string(i));
        EXPECT_EQ(p->mode, i % 2 ? Port::Mode::in : Port::Mode::out);
        const jtag::bsdl::Instruction* in = d.instruction("i" + std::to_string(i));
        ASSERT_NE(in, nullptr) << i;
        EXPECT_EQ(in->name, "I" + std::to_string(i));
    }
    EXPECT_TRUE(!d.port("P300") && !d.port("P") && !d.port("") && !d.instruction("I3000") && d.port("Q"));

    Device hand;
    hand.ports.push_back({"TDI", Port::Mode::in, -1, -1});
    hand.instructions.push_back({"BYPASS", {"11"}});
    EXPECT_EQ(hand.port("tdi"), &hand.ports[0]);
    EXPECT_EQ(hand.instruction("bypass"), &hand.instructions[0]);
    d.ports.push_back({"LATE", Port::Mode::in, -1, -1});  // the index now stale
    EXPECT_EQ(d.port("late"), &d.ports.back());
}

TEST(Jep106, NamesByBankAndCodeAsAnIdcodeCarriesThem) {
    // Texas Instruments (bank 1), ARM Ltd. (bank 5) and "bank 13 code 0x7e"
    // are kelvorn-chain's discovery lines in chain_test.sh.
    EXPECT_STREQ(jtag::jep106Name(1, 0x01), "AMD");
    EXPECT_STREQ(jtag::jep106Name(2, 0x3f), "Broadcom");
    // No bank 0 or 17, no code 0 or 127; bank 13 code 0x7e is past the end of the edition's list.
    for (auto [bank, code] : {std::pair{0u, 1u}, {17u, 1u}, {1u, 0u}, {1u, 127u}, {13u, 0x7eu}})
        EXPECT_EQ(jtag::jep106Name(bank, code), nullptr) << bank << " " << code;
    EXPECT_EQ(jtag::jep106Bank(0x4ba00477) * 0x100 + jtag::jep106Code(0x4ba00477), 0x53bu);
    EXPECT_EQ(jtag::manufacturerText(0x00000f01), "bank 16 code 0x00");
    EXPECT_STREQ(jtag::kJep106Edition, "JEP106BB");
}

}  // namespace
