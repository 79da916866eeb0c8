#include "vel/cpp_utils/network/macadrcontainer.h"

#include <gtest/gtest.h>

#include "thrown_text.h"

namespace Vel::CppUtil {
namespace {

using Octets = std::vector<std::uint8_t>;

TEST(MacAdrContainer, FirstPairOfTheTextIsOctetFive) {
    const MacAdrContainer address("01:00:5e:7f:ff:fa");
    EXPECT_EQ(address.getOctet(5), 0x01);
    EXPECT_EQ(address.getOctet(0), 0xFA);
    EXPECT_EQ(address.toString(), "01:00:5E:7F:FF:FA");
    EXPECT_EQ(MacAdrContainer(Octets{0x0C, 0x0B, 0x0A, 0x5E, 0x00, 0x01}).toString(), "01:00:5E:0A:0B:0C");
    EXPECT_EQ(MacAdrContainer().toString(), "00:00:00:00:00:00");
}

TEST(MacAdrContainer, OtherTextsAreRefusedByName) {
    for (const std::string text :
         {"", "1:00:5E:7F:FF:FA", "01-00-5E-7F-FF-FA", "01:00:5E:7F:FF:FG",
          "01:00:5E:7F:FF:FA:", "01:00:5E:7F:FF:F:", ":01:00:5E:7F:FF:F", "01::0:5E:7F:FF:FA",
          "001:0:5E:7F:FF:FA", "01005E7FFFFA01005", "0x:00:5E:7F:FF:FA"}) {
        EXPECT_EQ(
            thrownText<ParsingError>([&] { MacAdrContainer::fromString(text); }),
            "Generic parsing Error: Unable to parse string representation of MAC address: \"" + text + "\"");
    }
}

TEST(MacAdrContainer, FailedAssignmentKeepsTheOldAddress) {
    MacAdrContainer address;
    address = "00:11:22:33:44:55";
    EXPECT_EQ(address.toString(), "00:11:22:33:44:55");
    EXPECT_THROW(address = "AA:BB:CC:DD:EE:GG", ParsingError);
    EXPECT_EQ(address.toString(), "00:11:22:33:44:55");
}

TEST(MacAdrContainer, MulticastGroupMapsItsLow23Bits) {
    const auto mapped = [](const char* group) { return MacAdrContainer(IpAdrContainer(group)).toString(); };
    EXPECT_EQ(mapped("224.0.0.1"), "01:00:5E:00:00:01");
    EXPECT_EQ(mapped("239.129.2.3"), "01:00:5E:01:02:03");
    EXPECT_EQ(mapped("239.255.255.255"), "01:00:5E:7F:FF:FF");
    EXPECT_EQ(thrownText<InvalidArgumentError>([&] { mapped("192.168.0.1"); }),
              "Invalid Argument Error: IP address must be in the multicast range");
}

TEST(MacAdrContainer, OctetsOutsideOfTheAddressAreRefused) {
    EXPECT_EQ(thrownText<OutOfRangeError>([] { (void)MacAdrContainer().getOctet(6); }),
              "Out of Range Error: Octet index is out of range of a 48bit MAC address. Got 6 expected less "
              "than 6.");
    EXPECT_EQ(thrownText<OutOfRangeError>([] { MacAdrContainer(Octets(5)); }),
              "Out of Range Error: Invalid size of MAC address octet vector. Expected 6 octets, but got 5");
    EXPECT_EQ(thrownText<OutOfRangeError>([] { MacAdrContainer(Octets(7)); }),
              "Out of Range Error: Invalid size of MAC address octet vector. Expected 6 octets, but got 7");
}

}  // namespace
}  // namespace Vel::CppUtil
