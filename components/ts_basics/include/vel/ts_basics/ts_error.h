#pragma once

#include <string>

#include "vel/cpp_utils/error.h"

namespace Vel::Ts {

/// Base of all transport stream errors, so that a caller can catch them together; never thrown itself.
class TsError : public Error {
public:
    TsError(const std::string& detail, const char* file = __builtin_FILE(), int line = __builtin_LINE())
        : Error(detail, file, line) {}
};

/// The packet does not have the requested data.
class TsPacketError : public TsError {
public:
    TsPacketError(const std::string& detail, const char* file = __builtin_FILE(), int line = __builtin_LINE())
        : TsError("TS Packet Error: " + detail, file, line) {}
};

}  // namespace Vel::Ts
