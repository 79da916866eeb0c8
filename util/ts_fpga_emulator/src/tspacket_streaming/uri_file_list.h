#pragma once

#include <string>
#include <unordered_map>

namespace Vel::Utils {

/// From the URI of an input, exactly as the operator typed it, to the path of the file that is played for it.
using UriFileList = std::unordered_map<std::string, std::string>;

}  // namespace Vel::Utils
