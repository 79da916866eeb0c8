// Texts of URIs, IPv4 and MAC addresses, against the parsers of the C library: a text that either accepts has
// the same value for both. The text form of a URI that was read is read as the same URI.

#include <arpa/inet.h>
#include <netinet/ether.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>

#include <fmt/format.h>

#include "require.h"
#include "vel/cpp_utils/error.h"
#include "vel/cpp_utils/network/ipadrcontainer.h"
#include "vel/cpp_utils/network/macadrcontainer.h"
#include "vel/cpp_utils/uri/uri.h"

namespace {

using namespace Vel::CppUtil;

template <typename Value>
std::optional<Value> read(const std::string& text) {
    try {
        return Value(text);
    } catch (const ParsingError&) {  // not a text of this kind
        return std::nullopt;
    }
}

std::optional<std::uint32_t> readByLibrary(const std::string& text) {
    in_addr address{};
    const bool isAddress =
        text.find('\0') == std::string::npos && ::inet_pton(AF_INET, text.c_str(), &address) == 1;
    return isAddress ? std::optional(ntohl(address.s_addr)) : std::nullopt;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto address = read<IpAdrContainer>(text);
    const auto expected = readByLibrary(text);
    REQUIRE(!expected ||
            (address && IpAdrContainer::isValidString(text)));  // the library refuses leading zeros
    if (address) {
        REQUIRE(expected.value_or(address->toUint32()) == address->toUint32());
        REQUIRE(readByLibrary(address->toString()) == address->toUint32());
        if (address->isMulticast()) {
            // RFC 1112, 6.4
            const std::uint32_t group = address->toUint32() & 0x7FFFFF;
            REQUIRE(MacAdrContainer(*address).toString() == fmt::format("01:00:5E:{:02X}:{:02X}:{:02X}",
                                                                        group >> 16, group >> 8 & 0xFF,
                                                                        group & 0xFF));
        }
    }
    if (const auto mac = read<MacAdrContainer>(text)) {
        const ether_addr* const bytes = ::ether_aton(text.c_str());
        REQUIRE(bytes != nullptr);
        REQUIRE(mac->toString() == fmt::format("{:02X}", fmt::join(bytes->ether_addr_octet, ":")));
    }
    if (const auto parser = read<UriParser>(text)) {
        const Uri& uri = parser->getUri();
        const std::int32_t port = uri.getAuthority().getPort();
        REQUIRE(port >= UriAuthority::NO_PORT && port <= 65535);
        REQUIRE(text.starts_with(uri.getScheme() + "://"));
        REQUIRE(text.ends_with(uri.getFragment()));
        // A second '@' would count as that of a user in a text form without one, and a second '#' likewise.
        const std::string& host = uri.getAuthority().getHost();
        const bool isPlain = host.find('@') == std::string::npos && !host.empty() &&
                             std::ranges::count(text, '#') == (uri.getFragment().empty() ? 0 : 1);
        if (isPlain) {
            REQUIRE(Uri::parse(uri.toString()).toString() == uri.toString());
        }
    }
    return 0;
}
