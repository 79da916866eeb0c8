#pragma once

#include <string>
#include <string_view>

namespace Vel::CppUtil {

/// The name with each byte of a control character (C0, DEL, and C1, alone or in UTF-8) written as \xNN; all
/// other text stays. For names that people chose: a newline or an escape sequence in a name must not reach
/// the log or a terminal.
[[nodiscard]] std::string escapeControls(std::string_view name);

}  // namespace Vel::CppUtil
