#include "vel/cpp_utils/network/ipadrcontainer.h"

#include <gmock/gmock.h>

#include "thrown_text.h"

namespace Vel::CppUtil {
namespace {

using testing::ElementsAre;
using Octets = std::vector<std::uint8_t>;

TEST(IpAdrContainer, TextAndOctetsAreViewsOfTheValue) {
    const IpAdrContainer address(0xE0010203U);
    EXPECT_EQ(address.toString(), "224.1.2.3");
    EXPECT_EQ(address.getOctet(3), 224);
    EXPECT_EQ(address.getOctet(0), 3);
    EXPECT_THAT(address.toOctets(), ElementsAre(3, 2, 1, 224));
    EXPECT_EQ(IpAdrContainer(Octets{3, 2, 1, 224}).toUint32(), 0xE0010203U);
    EXPECT_EQ(IpAdrContainer("224.1.2.3").toUint32(), 0xE0010203U);

    IpAdrContainer other;
    EXPECT_EQ(other.toString(), "0.0.0.0");
    other.setUint32(0xFFFFFFFF);
    EXPECT_EQ(other.toString(), "255.255.255.255");
}

TEST(IpAdrContainer, FourDecimalGroupsAreRead) {
    EXPECT_EQ(IpAdrContainer::fromString("1.2.3.4"), 0x01020304U);
    EXPECT_EQ(IpAdrContainer::fromString("255.255.255.255"), 0xFFFFFFFFU);
    EXPECT_EQ(IpAdrContainer::fromString("010.001.002.003"), 0x0A010203U);
}

TEST(IpAdrContainer, OtherTextsAreRefusedByName) {
    for (const std::string text :
         {"",          "256.0.0.1", "1.2.3.256", "999.1.1.1",       "1.2.3.4.5",  "1..2.3.4",
          "10..2.3",   ".10.2.3",   ".1.2.3",    ".1.2.3.4",        "1.2.3.4x",   "1.2. 3.4",
          " 1.2.3.4",  "1.2.3.4\n", "1.2.3.-4",  "+1.2.3.4",        "1234.1.1.1", "10.20.30",
          "10.20.30.", "123.456",   "1.2.3.",    "0255.255.255.255"}) {
        EXPECT_EQ(
            thrownText<ParsingError>([&] { IpAdrContainer::fromString(text); }),
            "Generic parsing Error: Unable to parse string representation of IPv4 address: \"" + text + "\"");
    }
}

TEST(IpAdrContainer, SyntaxCheckLeavesNumberOfGroupsAndRangeOpen) {
    EXPECT_TRUE(IpAdrContainer::isValidString("999.1.1.1"));
    EXPECT_TRUE(IpAdrContainer::isValidString("10.20.30."));
    EXPECT_FALSE(IpAdrContainer::isValidString("1.2.3."));            // 6 characters
    EXPECT_FALSE(IpAdrContainer::isValidString("0255.255.255.255"));  // 16 characters
    EXPECT_FALSE(IpAdrContainer::isValidString(std::string("1.2.3.4\0", 8)));
}

TEST(IpAdrContainer, MulticastIsTheClassDRange) {
    EXPECT_FALSE(IpAdrContainer("223.255.255.255").isMulticast());
    EXPECT_TRUE(IpAdrContainer("224.0.0.0").isMulticast());
    EXPECT_TRUE(IpAdrContainer("239.255.255.255").isMulticast());
    EXPECT_FALSE(IpAdrContainer("240.0.0.0").isMulticast());
}

TEST(IpAdrContainer, OctetsOutsideOfTheAddressAreRefused) {
    EXPECT_EQ(thrownText<OutOfRangeError>([] { (void)IpAdrContainer().getOctet(4); }),
              "Out of Range Error: Octet index (4) out of range.");
    EXPECT_EQ(thrownText<OutOfRangeError>([] {
                  IpAdrContainer(Octets{1, 2, 3});
              }),
              "Out of Range Error: Octet vector has invalid size (3) expected 4");
    EXPECT_EQ(thrownText<OutOfRangeError>([] {
                  IpAdrContainer(Octets{1, 2, 3, 4, 5});
              }),
              "Out of Range Error: Octet vector has invalid size (5) expected 4");
}

}  // namespace
}  // namespace Vel::CppUtil
