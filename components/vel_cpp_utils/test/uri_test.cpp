#include "vel/cpp_utils/uri/uri.h"

#include <gmock/gmock.h>

#include "thrown_text.h"

namespace Vel::CppUtil {
namespace {

using testing::ElementsAre;
using testing::Pair;
using testing::StartsWith;

UriAuthority authorityOf(const std::string& host, std::uint16_t port) {
    UriAuthority authority;
    authority.setHost(host);
    authority.setPort(port);
    return authority;
}

TEST(Uri, WritesTheComponentsThatItHas) {
    Uri uri;
    EXPECT_EQ(uri.toString(), ":");
    uri.setScheme("udp");
    uri.setAuthority(authorityOf("h", 65535));
    EXPECT_EQ(uri.toString(), "udp://h:65535");
    uri.setAuthority(authorityOf("h", 0));
    EXPECT_EQ(uri.toRelativeString(), "");
    uri.setQuery({{"b", "1"}, {"a", "2"}, {"", "3"}});
    EXPECT_EQ(uri.toRelativeString(), "?=3&a=2&b=1");
    uri.setPath("p/q");
    uri.setFragment("f");
    EXPECT_EQ(uri.toString(), "udp://h/p/q?=3&a=2&b=1#f");
    uri.clear();
    EXPECT_EQ(uri.toString(), ":");
}

TEST(UriParser, ComponentsAreTakenApart) {
    const UriParser parser("udp://me:pass:word@239.1.1.1:5000/a/b?y=2&x=1#frag");
    EXPECT_EQ(parser.getText(), "udp://me:pass:word@239.1.1.1:5000/a/b?y=2&x=1#frag");
    const Uri& uri = parser.getUri();
    const UriAuthority& authority = uri.getAuthority();
    EXPECT_THAT((std::vector{uri.getScheme(), authority.getUser(), authority.getPassword(),
                             authority.getHost(), uri.getPath(), uri.getFragment()}),
                ElementsAre("udp", "me", "pass:word", "239.1.1.1", "a/b", "frag"));
    EXPECT_EQ(authority.getPort(), 5000);
    EXPECT_THAT(uri.getQuery(), ElementsAre(Pair("x", "1"), Pair("y", "2")));
    const UriAuthority withUser = Uri::parse("udp://m@h").getAuthority();
    EXPECT_TRUE(withUser.isUserSet() && withUser.isPasswordSet() && withUser.getUser() == "m");
    UriAuthority withoutUser = Uri::parse("udp://@h").getAuthority();
    EXPECT_EQ(withoutUser.getHost(), "@h");
    EXPECT_FALSE(withoutUser.isUserSet() || withoutUser.isPasswordSet());
    withoutUser.setUser("");
    EXPECT_TRUE(withoutUser.isUserSet());
    withoutUser.clear();
    EXPECT_FALSE(withoutUser.isUserSet());
}

TEST(UriParser, PortIsReadAsAStreamReadsIt) {
    const std::vector<std::pair<const char*, std::int32_t>> cases{
        {"udp://h", -1},       {"udp://h:", 0},       {"udp://h:abc", 0},   {"udp://h: 80", 80},
        {"udp://h:+80", 80},   {"udp://h:80x", 80},   {"udp://h:010", 10},  {"udp://h:65535", 65535},
        {"udp://h:65536", -1}, {"udp://h:70000", -1}, {"udp://h:-1", -1},   {"udp://h:99999999999", -1},
        {"udp://h:0", 0},      {"udp://h:7/p", 7},    {"udp://h:8?a=1", 8}, {"udp://h:9#f", 9}};
    for (const auto& [text, port] : cases) {
        EXPECT_EQ(Uri::parse(text).getAuthority().getPort(), port) << text;
        EXPECT_EQ(Uri::parse(text).getAuthority().getHost(), "h") << text;
    }
    // A negative number wraps at 32 bits; one that does not fit is not a port.
    for (const auto& [number, port] :
         {std::pair("-4294967295", 1), std::pair(" -4294967216x", 80), std::pair("-4294967296", -1),
          std::pair("4294967297", -1), std::pair("18446744073709551617", -1), std::pair("+-1", 0),
          std::pair("-18446744073709551615", -1)}) {
        EXPECT_EQ(Uri::parse(std::string("udp://h:") + number).getAuthority().getPort(), port) << number;
    }
}

TEST(UriParser, ParsedTextIsWrittenInCanonicalForm) {
    // A delimiter counts only in front of the component that holds it. A user may have no password.
    for (const std::string text :
         {"udp://h/p#f#g", "udp://h/a@b:1", "udp://h?to=/x@y:1", "udp://h#/a?b=@:", "s://u:p@h", "s://u@h"}) {
        EXPECT_EQ(Uri::parse(text).toString(), text);
    }
    // A text and its canonical form. The user's part is written only with a user and a host.
    for (const std::string both :
         {"file:///x file:/x", "udp://h/ udp://h", "udp://h?a=1&a=2 udp://h?a=2",
          "udp://h?a&b=1&& udp://h?b=1", "udp://h?a=b=c&d=&=x udp://h?=x&a=b=c&d=", "udp://h? udp://h",
          "UDP://H UDP://H", "s://:p@h s://h", "s://u:p@ s:", "udp:// udp:", "udp://#f udp:#f",
          "udp://me:pass:word@h:1/a?y=2&x=1#f udp://me:pass:word@h:1/a?x=1&y=2#f"}) {
        const std::size_t space = both.find(' ');
        EXPECT_EQ(Uri::parse(both.substr(0, space)).toString(), both.substr(space + 1));
    }
    EXPECT_EQ(Uri::parse("udp://h/p#f#g").getPath(), "p#f");
    EXPECT_EQ(Uri::parse("udp://h?to=/x@y:1").getAuthority().getHost(), "h");
    EXPECT_EQ(Uri::parse("a#b://h/p").getFragment(), "b://h/p");
    EXPECT_EQ(Uri::parse("a#b://h/p").getAuthority().getHost(), "h");
}

TEST(UriParser, TextWithoutSchemeOrDelimiterIsRefused) {
    const auto refusal = [](const std::string& text) {
        return thrownText<ParsingError>([&] { Uri::parse(text); });
    };
    const auto prefix = [](const std::string& text) {
        return "Generic parsing Error: Failed parsing of given URI: \"" + text + "\". ";
    };
    for (const std::string text : {"", ":x", "://h"}) {
        EXPECT_EQ(refusal(text), prefix(text) + "Missing mandatory scheme");
    }
    for (const std::string text : {"udp", "udp:x", "udp:/x"}) {
        EXPECT_EQ(refusal(text), prefix(text) + "Missing mandatory \"://\" delimiter");
    }
    for (const std::string text : {"udp:", "udp:/"}) {
        EXPECT_THAT(refusal(text), StartsWith(prefix(text) + "Caused external exepction: "));
    }
}

}  // namespace
}  // namespace Vel::CppUtil
