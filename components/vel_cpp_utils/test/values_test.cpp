#include <fmt/format.h>
#include <gmock/gmock.h>

#include "thrown_text.h"
#include "vel/cpp_utils/error.h"
#include "vel/cpp_utils/network/ipadrcontainer.h"
#include "vel/cpp_utils/network/macadrcontainer.h"
#include "vel/cpp_utils/text.h"

namespace Vel::CppUtil {
namespace {

using testing::ElementsAre;
using Octets = std::vector<std::uint8_t>;

TEST(Error, TextIsCategoryDetailAndPlace) {
    EXPECT_STREQ(InitializationError("detail", "f.cpp", 1).what(), "Initialization Error: detail(f.cpp:1)");
    EXPECT_STREQ(OutOfRangeError("detail", "f.cpp", 333).what(), "Out of Range Error: detail(f.cpp:333)");
    EXPECT_STREQ(NotImplementedError("", "f.cpp", 0).what(), "Not Implemented Error: (f.cpp:0)");
    const Error& error = IOError("detail", "reason", "f.cpp", 1);
    EXPECT_STREQ(error.what(), "IOErrorr: detail(f.cpp:1)");
    EXPECT_EQ(error.getMessage(), "IOErrorr: detail");
}

TEST(Text, ControlCharactersAreEscapedAndNothingElse) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"a\nb", "a\\x0ab"},
        {"\x1b[31m\x7f", "\\x1b[31m\\x7f"},
        {std::string("\0\x1f ~", 4), "\\x00\\x1f ~"},
        {"\xc2\x80\xc2\x9b\xc2\x9f", "\\xc2\\x80\\xc2\\x9b\\xc2\\x9f"},
        {"\xc2\xa0 \xc3\x9b \xe2\x82\xac \xf0\x9f\x9b\xb0",
         "\xc2\xa0 \xc3\x9b \xe2\x82\xac \xf0\x9f\x9b\xb0"},
        {"\xe0\xa4\x85\x9b \xe2\x80\x9d\x9b \xf0\x9f\x98\x80\x9b",
         "\xe0\xa4\x85\\x9b \xe2\x80\x9d\\x9b \xf0\x9f\x98\x80\\x9b"},
        {"\x9b"
         "31m \xc3\x9b\x9b",
         "\\x9b31m \xc3\x9b\\x9b"},
        {"cut\xc2", "cut\xc2"},
        {"", ""},
    };
    for (const auto& [name, escaped] : cases) {
        EXPECT_EQ(escapeControls(name), escaped);
    }
}

TEST(IpAdrContainer, TextAndOctetsAreViewsOfTheValue) {
    const IpAdrContainer address("224.1.2.3");
    EXPECT_EQ(address.toUint32(), 0xE0010203U);
    EXPECT_EQ(address.toString(), "224.1.2.3");
    EXPECT_EQ(address.getOctet(3), 224);
    EXPECT_THAT(address.toOctets(), ElementsAre(3, 2, 1, 224));
    EXPECT_EQ(IpAdrContainer(Octets{3, 2, 1, 224}).toUint32(), 0xE0010203U);
    EXPECT_EQ(IpAdrContainer().toString(), "0.0.0.0");
    EXPECT_EQ(IpAdrContainer::fromString("010.001.002.255"), 0x0A0102FFU);
    for (const auto& [text, isMulticast] :
         {std::pair("223.255.255.255", false), std::pair("224.0.0.0", true),
          std::pair("239.255.255.255", true), std::pair("240.0.0.0", false)}) {
        EXPECT_EQ(IpAdrContainer(text).isMulticast(), isMulticast) << text;
    }
    // The syntax check leaves the number of groups and their range open.
    EXPECT_TRUE(IpAdrContainer::isValidString("999.1.1.1") && IpAdrContainer::isValidString("10.20.30."));
    EXPECT_FALSE(IpAdrContainer::isValidString("1.2.3."));  // 6 characters
    EXPECT_FALSE(IpAdrContainer::isValidString("1..2.3.4") || IpAdrContainer::isValidString("1.2.3.4.5"));
    EXPECT_FALSE(IpAdrContainer::isValidString(std::string("1.2.3.4\0", 8)));
}

TEST(MacAdrContainer, FirstPairOfTheTextIsOctetFive) {
    MacAdrContainer address("01:00:5e:7f:ff:fa");
    EXPECT_EQ(address.getOctet(5), 0x01);
    EXPECT_EQ(address.getOctet(0), 0xFA);
    EXPECT_EQ(MacAdrContainer(Octets{0x0C, 0x0B, 0x0A, 0x5E, 0x00, 0x01}).toString(), "01:00:5E:0A:0B:0C");
    EXPECT_EQ(MacAdrContainer().toString(), "00:00:00:00:00:00");
    EXPECT_THROW(address = "AA:BB:CC:DD:EE:GG", ParsingError);
    EXPECT_EQ(address.toString(), "01:00:5E:7F:FF:FA") << "a failed assignment changes nothing";
    // A multicast group maps its low 23 bits (RFC 1112).
    EXPECT_EQ(MacAdrContainer(IpAdrContainer("239.129.2.3")).toString(), "01:00:5E:01:02:03");
    EXPECT_EQ(MacAdrContainer(IpAdrContainer("239.255.255.255")).toString(), "01:00:5E:7F:FF:FF");
    EXPECT_EQ(thrownText<InvalidArgumentError>([] { MacAdrContainer(IpAdrContainer("192.168.0.1")); }),
              "Invalid Argument Error: IP address must be in the multicast range");
}

TEST(Addresses, OtherTextsAndSizesAreRefusedByName) {
    const auto unreadable = [](const std::string& kind, const std::string& text) {
        return fmt::format("Generic parsing Error: Unable to parse string representation of {}: \"{}\"", kind,
                           text);
    };
    for (const std::string text :
         {"", "256.0.0.1", "1.2.3.256", "1.2.3.4.5", "10..2.3", ".10.2.3", ".1.2.3.4", "1.2.3.4x", "1.2. 3.4",
          " 1.2.3.4", "1.2.3.4\n", "1.2.3.-4", "+1.2.3.4", "1234.1.1.1", "0001.2.3.4", "10.20.30",
          "10.20.30.", "1.2.3."}) {
        EXPECT_EQ(thrownText<ParsingError>([&] { IpAdrContainer::fromString(text); }),
                  unreadable("IPv4 address", text));
    }
    for (const std::string text : {"", "1:00:5E:7F:FF:FA", "01-00-5E-7F-FF-FA", "01:00:5E:7F:FF:FG",
                                   "01:00:5E:7F:FF:FA:", "01:00:5E:7F:FF:F:", ":01:00:5E:7F:FF:F",
                                   "01::0:5E:7F:FF:FA", "01005E7FFFFA01005", "x0:00:5E:7F:FF:FA"}) {
        EXPECT_EQ(thrownText<ParsingError>([&] { MacAdrContainer::fromString(text); }),
                  unreadable("MAC address", text));
    }
    const auto refusal = [](auto call) { return thrownText<OutOfRangeError>(call).substr(20); };
    EXPECT_EQ(refusal([] { (void)IpAdrContainer().getOctet(4); }), "Octet index (4) out of range.");
    EXPECT_EQ(refusal([] { (void)IpAdrContainer(Octets(3)); }),
              "Octet vector has invalid size (3) expected 4");
    EXPECT_EQ(refusal([] { (void)IpAdrContainer(Octets(5)); }),
              "Octet vector has invalid size (5) expected 4");
    EXPECT_EQ(refusal([] { (void)MacAdrContainer().getOctet(6); }),
              "Octet index is out of range of a 48bit MAC address. Got 6 expected less than 6.");
    EXPECT_EQ(refusal([] { (void)MacAdrContainer(Octets(7)); }),
              "Invalid size of MAC address octet vector. Expected 6 octets, but got 7");
}

}  // namespace
}  // namespace Vel::CppUtil
