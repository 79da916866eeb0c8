#include "tables/row_text.h"

#include <charconv>
#include <string_view>
#include <system_error>

#include <fmt/format.h>

#include "command_error.h"
#include "vel/cpp_utils/error.h"
#include "vel/cpp_utils/network/ipadrcontainer.h"
#include "vel/cpp_utils/uri/uri.h"

namespace Vel::Zepctl {

using Drivers::Zep::IpInEntry;
using Drivers::Zep::PidLutEntry;

namespace {

constexpr const char* URI_FORM = "its form is udp://239.1.2.3:5000, or udp://239.1.2.3 for port 0";
constexpr std::int32_t NO_PORT = -1;  // left out, or too large

}  // namespace

std::uint32_t parseNumber(const std::string& name, const std::string& text,
                          const Drivers::Zep::Range& range) {
    const bool isHexadecimal = text.starts_with("0x") || text.starts_with("0X");
    const std::string_view digits = std::string_view(text).substr(isHexadecimal ? 2 : 0);
    const char* end = digits.data() + digits.size();
    std::uint32_t value = 0;
    const auto [stop, error] = std::from_chars(digits.data(), end, value, isHexadecimal ? 16 : 10);
    if (error != std::errc{} || stop != end || !range.contains(value)) {
        throw CommandError(WRONG_USE, fmt::format("{} \"{}\" is not a number from {} to {}, in decimal or "
                                                  "hexadecimal with a 0x prefix",
                                                  name, text, range.min, range.max));
    }
    return value;
}

IpInEntry parseInputUri(const std::string& text) {
    const std::string refusal = "\"" + text + "\" is not the URI of an input: ";
    try {
        const CppUtil::UriAuthority authority = CppUtil::Uri::parse(text).getAuthority();
        const std::int32_t port = authority.getPort();
        IpInEntry input(0, CppUtil::IpAdrContainer(authority.getHost()),
                        port == NO_PORT ? 0 : static_cast<std::uint32_t>(port));
        const std::string canonical = buildInputUri(input);
        if (text == canonical) {
            return input;
        }
        throw CommandError(WRONG_USE, refusal + (port == NO_PORT ? URI_FORM : "write it as " + canonical));
    } catch (const CppUtil::ParsingError&) {
        throw CommandError(WRONG_USE, refusal + URI_FORM);
    }
}

std::string formatInput(const IpInEntry& input) {
    return fmt::format("{} {}", buildInputUri(input), input.getTSIIDX());
}

std::string formatRoute(const PidLutEntry& route) {
    // `add` refuses PIDIDX 0, which only a row of other software has.
    const std::string pididx = route.getPIDIDX() == 0 ? "" : fmt::format(" --pididx {}", route.getPIDIDX());
    return fmt::format("{} 0x{:04x}{}{}{} --filter {}", route.getTSIIDX(), route.getPID(),
                       route.isOutRoute() ? " --out" : "", route.isCpuRoute() ? "" : " --no-cpu", pididx,
                       route.getFiltTabIDX());
}

}  // namespace Vel::Zepctl
