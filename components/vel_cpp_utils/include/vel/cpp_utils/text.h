#pragma once

#include <string>
#include <string_view>

namespace Vel::CppUtil {

/// The name with every control character (C0, DEL and the C1 of UTF-8) written as \xNN per byte; all other
/// text stays. For names that people chose: a line end or an escape sequence in one must not get into the log
/// or to a terminal.
std::string escapeControls(std::string_view name);

}  // namespace Vel::CppUtil
