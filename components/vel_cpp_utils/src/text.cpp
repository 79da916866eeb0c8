#include "vel/cpp_utils/text.h"

#include <fmt/format.h>

namespace Vel::CppUtil {

namespace {

constexpr unsigned char DELETE = 0x7F;
/// In UTF-8, the C1 controls U+0080 to U+009F are this byte followed by 0x80 to 0x9F.
constexpr unsigned char C1_LEAD = 0xC2;

bool isC1(std::string_view text) {
    return text.size() >= 2 && static_cast<unsigned char>(text[0]) == C1_LEAD &&
           static_cast<unsigned char>(text[1]) >= 0x80 && static_cast<unsigned char>(text[1]) <= 0x9F;
}

}  // namespace

std::string escapeControls(std::string_view name) {
    std::string escaped;
    while (!name.empty()) {
        const auto byte = static_cast<unsigned char>(name.front());
        if (isC1(name)) {
            escaped += fmt::format("\\x{:02x}\\x{:02x}", byte, static_cast<unsigned char>(name[1]));
            name.remove_prefix(1);
        } else if (byte < ' ' || byte == DELETE) {
            escaped += fmt::format("\\x{:02x}", byte);
        } else {
            escaped += name.front();
        }
        name.remove_prefix(1);
    }
    return escaped;
}

}  // namespace Vel::CppUtil
