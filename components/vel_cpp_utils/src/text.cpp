#include "vel/cpp_utils/text.h"

#include <algorithm>

#include <fmt/format.h>

namespace Vel::CppUtil {

namespace {

constexpr unsigned char DELETE = 0x7F;
/// In UTF-8, a C1 control is this byte and one that isC1() accepts.
constexpr unsigned char C1_LEAD = 0xC2;

bool isC1(unsigned char byte) {
    return byte >= 0x80 && byte <= 0x9F;
}

/// Bytes that a UTF-8 sequence still needs after `byte`, if it needed `expected` before.
int countExpected(unsigned char byte, int expected) {
    return byte >= 0xF0   ? 3
           : byte >= 0xE0 ? 2
           : byte >= 0xC2 ? 1
           : byte >= 0x80 ? std::max(expected - 1, 0)
                          : 0;
}

}  // namespace

std::string escapeControls(std::string_view name) {
    std::string escaped;
    int expected = 0;
    for (std::size_t i = 0; i < name.size(); ++i) {
        const auto byte = static_cast<unsigned char>(name[i]);
        const bool startsC1 =
            byte == C1_LEAD && i + 1 < name.size() && isC1(static_cast<unsigned char>(name[i + 1]));
        if (byte < ' ' || byte == DELETE || startsC1 || (isC1(byte) && expected == 0)) {
            escaped += fmt::format("\\x{:02x}", byte);
            expected = 0;  // so the second byte of a C1 control is escaped as well
        } else {
            escaped += name[i];
            expected = countExpected(byte, expected);
        }
    }
    return escaped;
}

}  // namespace Vel::CppUtil
