// The simulator's --chain syntax: plain and programmable devices, fields in
// any order, the text written back, and one clear message for each
// malformed chain.
#include <gtest/gtest.h>

#include "sim/Options.h"

using namespace sim;

TEST(SimOptions, ChainOfPlainAndProgrammableDevicesReadsAndWritesBack) {
    std::vector<DeviceDesc> chain;
    ASSERT_EQ(parseChain("0x1:2,0xffff0001:32:mem=2x8,0x12345679:5:program=7:mem=65536x256:erase=0", &chain), "");
    // The text written back names every field; what it leaves out is the default.
    ASSERT_EQ(chainText(chain), "0x00000001:2,0xffff0001:32:mem=2x8,0x12345679:5:mem=65536x256:erase=0:program=7");
    EXPECT_EQ(chain[1].memory.eraseCycles, kDefaultEraseCycles);
    EXPECT_EQ(chain[1].memory.programCycles, kDefaultProgramCycles);
    ASSERT_EQ(parseChain("1:3:mem=1x1:erase=0xffffffff", &chain), "");
    EXPECT_EQ(chain[0].memory.eraseCycles, 0xffffffffu);
}

TEST(SimOptions, MalformedChainsSayWhatIsWrongAndLeaveTheChainAlone) {
    const std::string form =
        "wants IDCODE:IRLEN[:mem=ROWSxBITS[:erase=CYCLES][:program=CYCLES]][,...], for example 0x0a5c7035:8";
    const std::pair<const char*, std::string> cases[] = {
        {"", form},
        {"0x3", form},
        {"0x3:33", form},
        {"0x3:4,,0x5:4", form},
        {"0x3:-4", form},
        {"0x3:1", "an instruction register has at least 2 bits: 0x3:1"},
        {"0x2:4", "an IDCODE has bit 0 set and is not all ones: 0x2:4"},
        {"0xffffffff:4", "an IDCODE has bit 0 set and is not all ones: 0xffffffff:4"},
        {"0x3:4:", "unknown field "},
        {"0x3:4:speed=5", "unknown field speed=5"},
        {"0x3:4:mem", "mem= wants ROWSxBITS, 1 to 65536 rows of at least one bit: mem"},
        {"0x3:4:mem=0x8", "mem= wants ROWSxBITS, 1 to 65536 rows of at least one bit: mem=0x8"},
        {"0x3:4:mem=65537x8", "mem= wants ROWSxBITS, 1 to 65536 rows of at least one bit: mem=65537x8"},
        {"0x3:4:mem=8x0", "mem= wants ROWSxBITS, 1 to 65536 rows of at least one bit: mem=8x0"},
        {"0x3:4:mem=4096x4097", "a memory holds at most 16777216 bits: mem=4096x4097"},
        {"0x3:4:mem=2x8:mem=2x8", "mem= given twice: mem=2x8"},
        {"0x3:4:mem=2x8:erase=", "erase= wants a number of TCK cycles: erase="},
        {"0x3:4:mem=2x8:program=0x100000000", "program= wants a number of TCK cycles: program=0x100000000"},
        {"0x3:4:erase=5", "erase= and program= need mem=: 0x3:4:erase=5"},
        {"0x3:2:mem=2x8", "a device with memory has an instruction register of at least 3 bits: 0x3:2:mem=2x8"},
    };
    for (const auto& [text, message] : cases) {
        std::vector<DeviceDesc> chain{{0x5, 7}};
        EXPECT_EQ(parseChain(text, &chain), message) << text;
        ASSERT_EQ(chain.size(), 1u) << text;
        EXPECT_EQ(chain[0].idcode, 0x5u) << text;
    }
}
