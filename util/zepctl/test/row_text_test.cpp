#include "tables/row_text.h"

#include <gmock/gmock.h>

#include <string>

#include "command_error.h"

namespace Vel::Zepctl {

namespace {

std::string refusalOf(const std::string& uri) {
    try {
        parseInputUri(uri);
    } catch (const CommandError& error) {
        return error.what();
    }
    return "none";
}

}  // namespace

TEST(RowTextTest, OnlyTheUriThatTheMonitorsWriteIsTaken) {
    for (const std::string uri : {"udp://239.1.2.3:5000", "udp://239.1.2.3", "udp://10.0.0.1:65535"}) {
        EXPECT_EQ(buildInputUri(parseInputUri(uri)), uri);
        EXPECT_TRUE(parseInputUri(uri).isEnabled());
    }
    using testing::EndsWith;
    EXPECT_THAT(refusalOf("udp://239.1.2.3:0"), EndsWith(": write it as udp://239.1.2.3"));
    EXPECT_THAT(refusalOf("udp://239.01.2.3:05000"), EndsWith(": write it as udp://239.1.2.3:5000"));
    EXPECT_THAT(refusalOf("UDP://239.1.2.3:5000"), EndsWith(": write it as udp://239.1.2.3:5000"));
    for (const std::string uri :
         {"", "239.1.2.3:5000", "udp:/239.1.2.3", "udp://239.1.2:5000", "udp://host:5000",
          "udp://239.1.2.3:65536", "udp://239.1.2.3:-1", "udp://239.1.2.3/", "udp://239.1.2.256:1"}) {
        EXPECT_EQ(refusalOf(uri), "\"" + uri +
                                      "\" is not the URI of an input: its form is udp://239.1.2.3:5000, "
                                      "or udp://239.1.2.3 for port 0");
    }
}

TEST(NumberTest, IsDecimalOrHexadecimalAndWithinItsLimits) {
    const Drivers::Zep::Range range{1, 4095};
    EXPECT_EQ(parseNumber("N", "1", range), 1U);
    EXPECT_EQ(parseNumber("N", "010", range), 10U);
    EXPECT_EQ(parseNumber("N", "0xFff", range), 4095U);
    EXPECT_EQ(parseNumber("N", "0XA", range), 10U);
    for (const std::string text :
         {"", "0x", "0", "4096", "0x1000", "-1", "+1", " 1", "1 ", "1k", "0x0x1", "4294967297", "a"}) {
        EXPECT_THROW(parseNumber("N", text, range), CommandError) << text;
    }
}

}  // namespace Vel::Zepctl
