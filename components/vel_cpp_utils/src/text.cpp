#include "vel/cpp_utils/text.h"

#include <fmt/format.h>

namespace Vel::CppUtil {

std::string escapeControls(std::string_view name) {
    constexpr unsigned char DELETE = 0x7F;
    constexpr unsigned char C1_LEAD = 0xC2;  // in UTF-8, followed by the C1 control itself, 0x80 to 0x9F
    const auto isC1 = [](char c) { return (static_cast<unsigned char>(c) & 0xE0) == 0x80; };
    std::string escaped;
    std::size_t sequenceEnd = 0;  // of the latest UTF-8 sequence
    for (std::size_t i = 0; i < name.size(); ++i) {
        const auto byte = static_cast<unsigned char>(name[i]);
        const bool startsC1 = byte == C1_LEAD && i + 1 < name.size() && isC1(name[i + 1]);
        if (byte < ' ' || byte == DELETE || startsC1 || (isC1(name[i]) && i >= sequenceEnd)) {
            escaped += fmt::format("\\x{:02x}", byte);
            continue;
        }
        escaped += name[i];
        if (byte < 0x80 || byte >= C1_LEAD) {
            sequenceEnd = i + (byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : byte >= C1_LEAD ? 2 : 1);
        }
    }
    return escaped;
}

}  // namespace Vel::CppUtil
