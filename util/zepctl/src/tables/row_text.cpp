#include "tables/row_text.h"

#include <fmt/format.h>

#include "command_error.h"
#include "vel/cpp_utils/error.h"
#include "vel/cpp_utils/network/ipadrcontainer.h"
#include "vel/cpp_utils/uri/uri.h"

namespace Vel::Zepctl {

using Drivers::Zep::IpInEntry;
using Drivers::Zep::PidLutEntry;

IpInEntry parseInputUri(const std::string& text) {
    std::string advice = "its form is udp://239.1.2.3:5000, or udp://239.1.2.3 for port 0";
    try {
        const CppUtil::UriAuthority authority = CppUtil::Uri::parse(text).getAuthority();
        const bool hasPort = authority.getPort() != CppUtil::UriAuthority::NO_PORT;
        IpInEntry input(0, CppUtil::IpAdrContainer(authority.getHost()),
                        hasPort ? static_cast<std::uint32_t>(authority.getPort()) : 0);
        const std::string canonical = buildInputUri(input);
        if (text == canonical) {
            return input;
        }
        advice = hasPort ? "write it as " + canonical : advice;
    } catch (const CppUtil::ParsingError&) {  // reported below
    }
    throw CommandError(WrongUse, fmt::format("\"{}\" is not the URI of an input: {}", text, advice));
}

std::string formatInput(const IpInEntry& input) {
    return fmt::format("{} {}", buildInputUri(input), input.getTSIIDX());
}

std::string formatRoute(const PidLutEntry& route) {
    // `add` refuses PIDIDX 0, which only other software writes.
    const std::string pididx = route.getPIDIDX() == 0 ? "" : fmt::format(" --pididx {}", route.getPIDIDX());
    return fmt::format("{} 0x{:04x}{}{}{} --filter {}", route.getTSIIDX(), route.getPID(),
                       route.isOutRoute() ? " --out" : "", route.isCpuRoute() ? "" : " --no-cpu", pididx,
                       route.getFiltTabIDX());
}

}  // namespace Vel::Zepctl
