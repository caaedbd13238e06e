// The BSDL reader on the project's test files (tests/data/bsdl, two makers'
// layouts and a device without a boundary register) and on faults, each
// named with its file and line; the JEP106 table.
#include <gtest/gtest.h>

#include "jtag/Bsdl.h"
#include "jtag/Jep106.h"

namespace {

using jtag::bsdl::Cell;
using jtag::bsdl::Device;
using jtag::bsdl::Error;
using jtag::bsdl::Port;
using F = Cell::Function;

const std::string kData = std::string(KELVORN_SOURCE_DIR) + "/tests/data/bsdl/";

Device readData(const char* name) {
    Device d;
    Error e;
    EXPECT_TRUE(jtag::bsdl::readFile(kData + name, &d, &e)) << e.text();
    return d;
}

std::string cellText(const Cell& c) {
    std::string s = std::to_string(c.number) + " " + c.cellType + " " + c.port + " " +
                    std::to_string(static_cast<int>(c.function)) + " " + c.safe;
    if (c.controlCell >= 0) s += " " + std::to_string(c.controlCell) + " " + c.disableValue + " " + c.disableResult;
    return s;
}

TEST(Bsdl, OneLongStringPerAttributeTwoPackagesAndAliases) {
    Device d = readData("kv_cpld64.bsd");
    EXPECT_EQ(d.entity, "kv_cpld64");
    EXPECT_EQ(d.irLength, 8u);
    EXPECT_EQ(d.irCapture, "XXXXXX01");
    ASSERT_EQ(d.ports.size(), 9u);
    EXPECT_EQ(d.port("D")->mode, Port::Mode::inout);
    EXPECT_EQ(d.port("d")->first, 0);
    EXPECT_EQ(d.port("d")->last, 3);
    EXPECT_EQ(d.port("vcc")->mode, Port::Mode::linkage);
    EXPECT_FALSE(d.port("tck")->isVector());

    // Several opcodes for one instruction; SAMPLE and PRELOAD share one.
    EXPECT_EQ(d.instruction("EXTEST")->opcodes, (std::vector<std::string>{"00000000", "00001000"}));
    EXPECT_EQ(d.instruction("sample")->opcodes, d.instruction("PRELOAD")->opcodes);
    EXPECT_EQ(d.instructions.size(), 8u);

    // The IDCODE's version is X: any version matches.
    EXPECT_EQ(d.idcodeValue(), 0x0123402fu);
    EXPECT_EQ(d.idcodeMask(), 0x0fffffffu);
    EXPECT_TRUE(d.matches(0x0123402f));
    EXPECT_TRUE(d.matches(0xf123402f));
    EXPECT_FALSE(d.matches(0x0123403f));
    EXPECT_EQ(d.usercode, std::string(32, 'X'));

    // The default package and the other; a vector port's pins element by element.
    EXPECT_EQ(d.defaultPackage, "TQ44");
    ASSERT_EQ(d.packages.size(), 2u);
    const jtag::bsdl::PinMap* tq = d.package("");
    ASSERT_NE(tq, nullptr);
    EXPECT_EQ(tq->name, "TQ44");
    std::string pins;
    for (const auto& [port, p] : tq->pins) {
        pins += port + "=";
        for (const std::string& pin : p) pins += pin + ",";
        pins += " ";
    }
    EXPECT_EQ(pins, "tck=8, tms=9, tdi=10, tdo=11, clk=1, rst_n=2, led=3, d(0)=4, d(1)=5, d(2)=6, d(3)=7, vcc=12,13, ");
    EXPECT_EQ(d.package("cs48")->pins[7].second, std::vector<std::string>{"B2"});

    ASSERT_EQ(d.registerAccess.size(), 4u);
    EXPECT_EQ(d.registerAccess[3].reg, "usercode");
    EXPECT_EQ(d.registerAccess[3].length, 32u);
    EXPECT_EQ(d.registerAccess[0].instructions, (std::vector<std::string>{"extest", "sample", "preload"}));

    ASSERT_EQ(d.boundaryLength, 12u);
    ASSERT_EQ(d.boundary.size(), 12u);
    EXPECT_EQ(cellText(d.boundary[0]), "0 bc_1 clk 0 X");
    EXPECT_EQ(cellText(d.boundary[3]), "3 bc_1 led 3 X 2 1 Z");
    EXPECT_EQ(cellText(d.boundary[9]), "9 bc_7 d(3) 7 X 7 1 Z");
    EXPECT_EQ(cellText(d.boundary[11]), "11 bc_1 * 6 0");
    EXPECT_EQ(d.boundary[2].function, F::control);
}

TEST(Bsdl, ShortPiecesUpperCaseSkippedAttributesCellsInAnyOrder) {
    Device d = readData("KV_FPGA6.BSD");
    EXPECT_EQ(d.entity, "KV_FPGA6");
    EXPECT_EQ(d.irLength, 6u);
    EXPECT_EQ(d.idcodeValue(), 0x0a5c7043u);
    EXPECT_EQ(d.idcodeMask(), 0xffffffffu);
    EXPECT_EQ(d.port("SW")->first, 3);  // 3 downto 0
    EXPECT_EQ(d.port("SW")->last, 0);
    EXPECT_EQ(d.port("GND")->last, 3);
    EXPECT_EQ(d.instruction("PRIVATE1")->opcodes, (std::vector<std::string>{"110000", "1100X1"}));
    // The downward range takes its pins from SW(3) on.
    const auto& pins = d.package("FG256")->pins;
    EXPECT_EQ(pins[0].first + "=" + pins[0].second[0] + " " + pins[3].first + "=" + pins[3].second[0], "SW(3)=A4 SW(0)=A1");
    ASSERT_EQ(d.boundary.size(), 8u);
    for (unsigned i = 0; i < 8; ++i) EXPECT_EQ(d.boundary[i].number, i);
    EXPECT_EQ(cellText(d.boundary[0]), "0 BC_4 SW(0) 0 X");
    EXPECT_EQ(cellText(d.boundary[4]), "4 BC_1 OUT0 2 0");
    EXPECT_EQ(cellText(d.boundary[6]), "6 BC_7 BUS 7 X 5 0 PULL1");
}

TEST(Bsdl, NoBoundaryRegister) {
    Device d = readData("kv_dap4.bsd");
    EXPECT_EQ(d.irLength, 4u);
    EXPECT_EQ(d.boundaryLength, 0u);
    EXPECT_TRUE(d.boundary.empty());
    EXPECT_EQ(d.idcodeValue(), 0x4ba00477u);
    EXPECT_EQ(d.instruction("SAMPLE"), nullptr);
    EXPECT_EQ(d.registerAccess[0].length, 35u);
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
    for (const auto& c : cases) {
        Device d;
        Error e;
        EXPECT_FALSE(jtag::bsdl::read(c.text, "f.bsd", &d, &e)) << c.error;
        EXPECT_EQ(e.text(), c.error);
    }
    Device d;
    Error e;
    EXPECT_FALSE(jtag::bsdl::readFile(kData + "none.bsd", &d, &e));
    EXPECT_EQ(e.text(), kData + "none.bsd:0: cannot read: No such file or directory");
}

TEST(Jep106, NamesByBankAndCodeAsAnIdcodeCarriesThem) {
    EXPECT_STREQ(jtag::jep106Name(1, 0x01), "AMD");
    EXPECT_STREQ(jtag::jep106Name(1, 0x17), "Texas Instruments");
    EXPECT_STREQ(jtag::jep106Name(2, 0x3f), "Broadcom");
    EXPECT_STREQ(jtag::jep106Name(5, 0x3b), "ARM Ltd.");
    EXPECT_EQ(jtag::jep106Name(0, 1), nullptr);
    EXPECT_EQ(jtag::jep106Name(17, 1), nullptr);
    EXPECT_EQ(jtag::jep106Name(1, 0), nullptr);
    EXPECT_EQ(jtag::jep106Name(1, 127), nullptr);
    EXPECT_EQ(jtag::jep106Name(13, 0x7e), nullptr);  // past the end of the edition's list
    EXPECT_EQ(jtag::jep106Bank(0x4ba00477), 5u);
    EXPECT_EQ(jtag::jep106Code(0x4ba00477), 0x3bu);
    EXPECT_EQ(jtag::manufacturerText(0x4ba00477), "ARM Ltd.");
    EXPECT_EQ(jtag::manufacturerText(0x00000cfd), "bank 13 code 0x7e");
    EXPECT_EQ(jtag::manufacturerText(0x00000f01), "bank 16 code 0x00");
    EXPECT_STREQ(jtag::kJep106Edition, "JEP106BB");
}

}  // namespace
