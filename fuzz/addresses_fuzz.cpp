// Texts of URIs, IPv4 and MAC addresses: each is refused with a ParsingError, or its value survives the
// conversion to text and back.

#include <cstdint>
#include <string>

#include "require.h"
#include "vel/cpp_utils/error.h"
#include "vel/cpp_utils/network/ipadrcontainer.h"
#include "vel/cpp_utils/network/macadrcontainer.h"
#include "vel/cpp_utils/uri/uri.h"

namespace {

using namespace Vel::CppUtil;

template <typename Check>
void unlessRefused(Check check) {
    try {
        check();
    } catch (const ParsingError&) {  // not a text of this kind
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    unlessRefused([&] {
        const IpAdrContainer address(text);
        REQUIRE(IpAdrContainer::isValidString(text));
        REQUIRE(IpAdrContainer(address.toString()).toUint32() == address.toUint32());
        if (address.isMulticast()) {
            REQUIRE(MacAdrContainer(address).toString().starts_with("01:00:5E:"));
        }
    });
    unlessRefused(
        [&] { REQUIRE(MacAdrContainer(MacAdrContainer(text).toString()).toString().size() == 17); });
    unlessRefused([&] {
        const Uri uri = Uri::parse(text);
        const std::int32_t port = uri.getAuthority().getPort();
        REQUIRE(port >= UriAuthority::NO_PORT && port <= 65535);
        REQUIRE(uri.toString().ends_with(uri.toRelativeString()));
    });
    return 0;
}
