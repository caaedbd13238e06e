// The PCI address as the tools read it: strictly for kelvorn-play,
// kelvorn-serve and the simulator's scan, as scanf always has for kelvorn.
#include <gtest/gtest.h>

#include "device/PciAddress.h"

namespace {

using device::PciAddress;

TEST(PciAddress, StrictTakesOnlyAWholeAddressABusCanCarry) {
    const struct {
        const char* text;
        bool ok;
        PciAddress at;
    } cases[] = {
        {"0000:03:00.0", true, {0, 3, 0, 0}},
        {"0001:1a:02.3", true, {1, 0x1a, 2, 3}},
        {"ffff:FF:1f.7", true, {0xffff, 0xff, 0x1f, 7}},
        {"0:4:0.0", true, {0, 4, 0, 0}},  // lspci -s style short fields
        {"0000:03:00.0 ", false, {}},    // anything after the function
        {"0000:03:00.0junk", false, {}},
        {" 0000:03:00.0", false, {}},  // or before the domain
        {"0000:03:00", false, {}},
        {"0000:03:00.", false, {}},
        {"0000:00:20.0", false, {}},  // device past five bits
        {"0000:00:1f.8", false, {}},  // function past three bits
        {"0000:00:1f.07", false, {}},
        {"10000:00:00.0", false, {}},  // domain past four digits
        {"0000:100:00.0", false, {}},  // bus past two
        {"0x00:03:00.0", false, {}},
        {"-1:03:00.0", false, {}},
        {"0000::00.0", false, {}},
        {"", false, {}},
    };
    for (const auto& c : cases) {
        PciAddress at{0x1234, 0x56, 0x7, 0x1};
        EXPECT_EQ(device::parsePciAddress(c.text, &at), c.ok) << c.text;
        if (c.ok)
            EXPECT_EQ(at, c.at) << c.text;
        else
            EXPECT_EQ(at, (PciAddress{0x1234, 0x56, 0x7, 0x1})) << c.text << ": left as it was";
    }
}

// kelvorn reads as it always has: text after the function ignored, a field
// too wide keeps its low bits; only fewer than four fields fail.
TEST(PciAddress, LenientReadsAsKelvornAlwaysHasAndTextIsAsSysfs) {
    PciAddress at;
    ASSERT_TRUE(device::parsePciAddressLeniently("0000:03:00.0junk", &at));
    EXPECT_EQ(at, (PciAddress{0, 3, 0, 0}));
    ASSERT_TRUE(device::parsePciAddressLeniently("1:1ff:20.9", &at));
    EXPECT_EQ(at, (PciAddress{1, 0xff, 0x20, 9}));
    EXPECT_FALSE(device::parsePciAddressLeniently("0000:00:14", &at));
    // As text, as sysfs names the device (the tools' message for an address they refuse: play_test).
    EXPECT_EQ(device::pciAddressText({1, 0x1a, 2, 3}), "0001:1a:02.3");
    EXPECT_EQ(device::pciAddressText({0xffff, 0xff, 0x1f, 7}), "ffff:ff:1f.7");
}

}  // namespace
