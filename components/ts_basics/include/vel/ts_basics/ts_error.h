#pragma once

#include "vel/cpp_utils/error.h"

namespace Vel::Ts {

/// Base of all transport stream errors, so that a caller can catch them together; never thrown itself.
using TsError = CategoryError<Error, "">;

/// The packet does not have the requested data.
using TsPacketError = CategoryError<TsError, "TS Packet Error: ">;

}  // namespace Vel::Ts
