#pragma once

#include <cstddef>

namespace Vel::Utils {

/// Calls of operator new in the whole test program up to now.
std::size_t allocationCount();

}  // namespace Vel::Utils
