// What EXTEST would put on a device's pins, planned from its BSDL file: the
// exact boundary register for a request. The requests refused because the
// register would drive a port nobody named or drive one asked released, each
// with its message and status and no pin driven: chain_test.sh.
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "jtag/Boundary.h"

namespace {

using jtag::BitVector;
using jtag::boundary::PortDrive;
using jtag::boundary::Request;
using jtag::bsdl::Device;

// Cell 0 first.
std::string bits(const BitVector& v) {
    std::string s;
    for (size_t i = 0; i < v.size(); ++i) s += v[i] ? '1' : '0';
    return s;
}

std::string levels(const std::vector<PortDrive>& ports) {
    std::string s;
    for (const PortDrive& p : ports) s += (s.empty() ? "" : " ") + p.port + "=" + p.level;
    return s;
}

// A refusal's message, or "planned" with the register and what it drives.
std::string planned(const Device& d, const std::vector<Request>& r) {
    BitVector v;
    std::string error;
    if (!jtag::boundary::plan(d, r, &v, &error)) return error;
    return "planned " + bits(v) + ": " + levels(jtag::boundary::drivenBy(d, v));
}

// kv_cpld64: clk, rst_n inputs (0, 1); control 2 over led (3); control 4
// over d(0) (5) and d(1) (6); control 7 over d(2) (8) and d(3) (9); every
// control cell disables at 1.
TEST(Boundary, DrivesTheNamedPortsAtTheirLevelsAndReleasesTheRest) {
    Device d = bsdlData("kv_cpld64.bsd");
    EXPECT_EQ(planned(d, {{"LED", '1'}, {"d(2)", '0'}, {"D(3)", '1'}, {"d(1)", 'z'}}),
              "planned 000110000100: led=1 d(0)=z d(1)=z d(2)=0 d(3)=1");
    // The released register disables every controlled output; so does a plan
    // that releases both ports of a control cell, or one and leaves the other unnamed.
    BitVector v = jtag::boundary::releasedVector(d);
    const std::string released = "planned 001010010000: led=z d(0)=z d(1)=z d(2)=z d(3)=z";
    EXPECT_EQ("planned " + bits(v) + ": " + levels(jtag::boundary::drivenBy(d, v)), released);
    EXPECT_EQ(planned(d, {{"d(0)", 'z'}, {"d(1)", 'z'}}), released);
    EXPECT_EQ(planned(d, {{"d(1)", 'z'}}), released);
}

// KV_FPGA6: OUT0 (cell 4) a two-state output, safe 0; BUS (6) under control
// cell 5, which disables at 0.
TEST(Boundary, ATwoStateOutputIsDrivenAtItsSafeLevelAndSaidSo) {
    Device d = bsdlData("KV_FPGA6.BSD");
    EXPECT_EQ(planned(d, {{"BUS", '1'}}), "planned 00000110: OUT0=0 BUS=1");
    EXPECT_EQ(planned(d, {{"OUT0", '1'}, {"BUS", 'z'}}), "planned 00001000: OUT0=1 BUS=z");
    EXPECT_EQ(planned(d, {{"OUT0", 'z'}}), "OUT0 has no control cell: it cannot be left undriven");
}

// A control cell whose safe value would enable its output, and a two-state
// output with no safe level.
const char* kUnsafe = R"BSDL(entity kv_unsafe is
  port (tck, tms, tdi : in bit; tdo : out bit; a, b : out bit; c : out bit);
  use std_1149_1_2001.all;
  attribute pin_map of kv_unsafe : entity is physical_pin_map;
  constant P : pin_map_string := "tck:1, tms:2, tdi:3, tdo:4, a:5, b:6, c:7";
  attribute instruction_length of kv_unsafe : entity is 2;
  attribute instruction_opcode of kv_unsafe : entity is "bypass (11), extest (00), sample (01)";
  attribute instruction_capture of kv_unsafe : entity is "01";
  attribute boundary_length of kv_unsafe : entity is 4;
  attribute boundary_register of kv_unsafe : entity is
    "0 (bc_1, *, control, 0), 1 (bc_1, a, output3, 1, 0, 1, z), 2 (bc_1, b, output2, x), 3 (bc_1, c, output2, x)";
end kv_unsafe;
)BSDL";

TEST(Boundary, AControlCellIsDisabledWhateverItsSafeValueAndAnUnsafeTwoStateOutputMustBeNamed) {
    Device d;
    jtag::bsdl::Error e;
    ASSERT_TRUE(jtag::bsdl::read(kUnsafe, "unsafe.bsd", &d, &e)) << e.text();
    EXPECT_EQ(bits(jtag::boundary::releasedVector(d)), "1100");
    EXPECT_EQ(planned(d, {{"a", '0'}}),
              "b and c are two-state outputs with no safe level: EXTEST drives them whatever is asked; name their levels "
              "(PORT=0 or PORT=1)");
    EXPECT_EQ(planned(d, {{"b", '1'}}),
              "c is a two-state output with no safe level: EXTEST drives it whatever is asked; name its level (PORT=0 or PORT=1)");
    EXPECT_EQ(planned(d, {{"a", '0'}, {"b", '1'}, {"c", '0'}}), "planned 0010: a=0 b=1 c=0");
}

}  // namespace
