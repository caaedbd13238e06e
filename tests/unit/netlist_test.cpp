// The netlist reader: both formats of one board read to the same nets, the
// faults each named with file and line, the power-name rule and pull-ups.
#include <gtest/gtest.h>

#include "jtag/Netlist.h"

namespace {

namespace nl = jtag::netlist;

// Nets as "NAME@line: REF.PIN[function/type]@line ...", one a line.
std::string netsText(const nl::Netlist& n, bool lines = true) {
    std::string s;
    for (const nl::Net& net : n.nets) {
        s += net.name + (lines ? "@" + std::to_string(net.line) : "") + ":";
        for (const nl::Node& d : net.nodes) {
            s += " " + d.ref + "." + d.pin;
            if (!d.function.empty() || !d.type.empty()) s += "[" + d.function + "/" + d.type + "]";
            if (lines) s += "@" + std::to_string(d.line);
        }
        s += "\n";
    }
    return s;
}

std::string readError(const std::string& text) {
    nl::Netlist n;
    std::string e;
    EXPECT_FALSE(nl::read(text, "b.net", &n, &e)) << text;
    EXPECT_TRUE(n.nets.empty());
    return e;
}

const char* const kCurrent = R"N((export (version "E")
  (design (source "b.sch") (sheet (number "1") (name "/") (title_block (comment (number "1") (value "")))))
  (components
    (comp (ref "R1") (value "10k") (footprint "R_0603") (libsource (lib "Device") (part "R"))
      (property (name "Sheetfile") (value "b.sch")) (sheetpath (names "/") (tstamps "/")) (tstamps "5d1e"))
    (comp (ref "U1") (value "kv_io48")))
  (libparts (libpart (lib "Device") (part "R") (pins (pin (num "1") (name "") (type "passive")))))
  (libraries (library (logical "Device") (uri "/x")))
  (nets
    (net (code "1") (name "+3V3") (class "Power")
      (node (ref "R1") (pin "2") (pintype "passive")))
    (net (code "2") (name "/SDA \"bus\"") (class "Default")
      (node (ref "U1") (pin "5") (pinfunction "io(3)") (pintype "bidirectional"))
      (node (ref "R1") (pin "1") (pintype "passive")))))
)N";

const char* const kOlder = R"N((export (version D)
  (components (comp (ref R1) (value 10k)) (comp (ref U1) (value kv_io48)))
  (nets
    (net (code 1) (name +3V3)
      (node (ref R1) (pin 2)))
    (net (code 2) (name "/SDA \"bus\"")
      (node (ref U1) (pin 5))
      (node (ref R1) (pin 1)))))
)N";

TEST(Netlist, CurrentOlderAndPlainFormatsReadToTheSameNets) {
    nl::Netlist a, b, c;
    std::string e;
    ASSERT_TRUE(nl::read(kCurrent, "a.net", &a, &e)) << e;
    EXPECT_EQ(netsText(a), "+3V3@10: R1.2[/passive]@11\n"
                           "/SDA \"bus\"@12: U1.5[io(3)/bidirectional]@13 R1.1[/passive]@14\n");
    ASSERT_EQ(a.components.size(), 2u);
    EXPECT_EQ(a.components[0].ref + " " + a.components[0].value + " " + a.components[1].ref, "R1 10k U1");
    EXPECT_EQ(a.components[1].line, 6u);
    EXPECT_EQ(a.file, "a.net");

    ASSERT_TRUE(nl::read(kOlder, "b.net", &b, &e)) << e;
    ASSERT_TRUE(nl::read("# board b\n\n+3V3: R1.2   # the pull-up\n/SDA \"bus\" :U1.5 R1.1\n", "c.txt", &c, &e)) << e;
    EXPECT_TRUE(c.components.empty());
    EXPECT_EQ(netsText(c), "+3V3@3: R1.2@3\n/SDA \"bus\"@4: U1.5@4 R1.1@4\n");
    EXPECT_EQ(netsText(b, false), "+3V3: R1.2\n/SDA \"bus\": U1.5 R1.1\n");
    EXPECT_EQ(netsText(c, false), netsText(b, false));

    // A comment before the list; escapes; a pin named with dots in text.
    ASSERT_TRUE(nl::read("# x\n(export (nets (net (name \"a\\\\b\") (node (ref U.2) (pin \"A\\\"1\")))))", "d", &a, &e));
    EXPECT_EQ(netsText(a), "a\\b@2: U.2.A\"1@2\n");
    ASSERT_TRUE(nl::read("N: U.2.A1", "t", &a, &e));
    EXPECT_EQ(netsText(a, false), "N: U.2.A1\n");

    // Unknown lists are skipped whatever they hold.
    nl::Netlist n;
    ASSERT_TRUE(nl::read("(export (nets (junk (net (name X) (node (pin 1)))) (net (name N) (x (node))"
                         " (node (ref U1) (pin 1) (extra (deep ((()))))) ()) \"atom\" 42))",
                         "s", &n, &e)) << e;
    EXPECT_EQ(netsText(n, false), "N: U1.1\n");
    // Deep nesting reads without recursion.
    std::string deep = "(export (x " + std::string(200000, '(') + std::string(200000, ')') + "))";
    EXPECT_TRUE(nl::read(deep, "s", &n, &e)) << e;
}

TEST(Netlist, FaultsNameTheFileAndLine) {
    EXPECT_EQ(readError("(export\n (nets (net (name A)\n (node (ref U1) (pin 1)))\n"), "b.net:2: '(' not closed");
    EXPECT_EQ(readError("(export\n (nets)))\n"), "b.net:2: ')' without its '('");
    EXPECT_EQ(readError("(export (nets\n (net (name \"A\n\n"), "b.net:2: unterminated string");
    EXPECT_EQ(readError("(export)\n(export)"), "b.net:2: text after the netlist's closing ')'");
    EXPECT_EQ(readError("(nets)"), "b.net:1: not a netlist: (export ...) expected");
    EXPECT_EQ(readError("(export (nets\n (net (name A) (node (ref U1)))))"), "b.net:2: node without a pin");
    EXPECT_EQ(readError("(export (nets\n (net (name A) (node (pin 1) (ref)))))"), "b.net:2: node without a ref");
    EXPECT_EQ(readError("(export (nets (net (code 1)\n (node (ref U1) (pin 1)))))"), "b.net:1: net without a name");
    EXPECT_EQ(readError("(export (nets (net (name A))\n (net (name A))))"), "b.net:2: net \"A\" named twice (first at line 1)");
    EXPECT_EQ(readError("(export (nets (net (name A) (node (ref U1) (pin 1)))\n (net (name B)\n (node (ref U1) (pin 1)))))"),
              "b.net:3: pin U1.1 in net \"B\" is already in net \"A\" (line 1)");
    EXPECT_EQ(readError("A: U1.1\n\nB U1.2\n"), "b.net:3: no ':' after the net's name (NAME: REF.PIN ...)");
    EXPECT_EQ(readError("A: U1.1 U1\n"), "b.net:1: pin \"U1\" not written REF.PIN");
    EXPECT_EQ(readError("A: U1.1 .3\n"), "b.net:1: pin \".3\" not written REF.PIN");
    EXPECT_EQ(readError("A: U1.1\n : U1.2\n"), "b.net:2: net without a name");
    EXPECT_EQ(readError("A: U1.1\nB: U1.2 U1.1"), "b.net:2: pin U1.1 in net \"B\" is already in net \"A\" (line 1)");

    nl::Netlist n;
    std::string e;
    EXPECT_FALSE(nl::readFile("/nonexistent/b.net", &n, &e));
    EXPECT_EQ(e, "/nonexistent/b.net: cannot read: No such file or directory");
}

TEST(Netlist, PowerNames) {
    for (const char* name : {"GND", "/GND", "gnd", "AGND", "GND_ISO", "VSS", "+3V3", "3.3V", "+5V", "-12V", "1V8",
                             "+3V3_AUX", "+5VA", "VCC", "VCC_IO", "VCCINT_SENSE", "vdd1v0", "VEE", "VBAT", "/sub/VIN"})
        EXPECT_TRUE(nl::powerName(name)) << name;
    for (const char* name : {"", "/", "LED0", "SDA", "DDR_VREF", "GNDX", "VINT", "V3", "3V3X1", "D0", "+", "3.V",
                             "RESET_VCC", "12"})
        EXPECT_FALSE(nl::powerName(name)) << name;
    nl::Net net{"VREF", {{"U1", "1", "", "power_in", 1}}, 1};
    EXPECT_TRUE(nl::isPower(net));
    net.nodes[0].type = "input";
    EXPECT_FALSE(nl::isPower(net));
}

TEST(Netlist, PullUpsAndDowns) {
    nl::Netlist n;
    std::string e;
    ASSERT_TRUE(nl::read("+3V3: R1.2 U1.30\nGND: R2.1 R4.1 U1.1\nPU: U1.2 R1.1\nPD: R2.2 U1.3\n"
                         "SER: U1.4 R3.1\nOUT: R3.2 U2.1\nTHREE: U1.5 R4.2\nX: R4.3\nRN: RN1.1 U1.6\n+3V3B: RN1.2\n",
                         "p", &n, &e)) << e;
    auto pull = [&](size_t net) {
        bool up = false;
        nl::Node via;
        return nl::pullOf(n, n.nets[net], &up, &via) ? (up ? "up via " : "down via ") + via.ref + "." + via.pin : "none";
    };
    EXPECT_EQ(pull(2), "up via R1.1");
    EXPECT_EQ(pull(3), "down via R2.2");
    EXPECT_EQ(pull(4), "none");  // a series resistor to a signal
    EXPECT_EQ(pull(6), "none");  // R4 has three pins here
    EXPECT_EQ(pull(8), "none");  // RN1 is not R and a digit
}

}  // namespace
