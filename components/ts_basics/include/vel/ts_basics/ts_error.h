#pragma once

#include <string>

#include "vel/cpp_utils/error.h"

namespace Vel::Ts {

/// Groups the failures of transport stream handling for callers; never thrown itself.
class TsError : public Error {
public:
    TsError(const std::string& detail, const char* file = __builtin_FILE(), int line = __builtin_LINE())
        : Error(detail, file, line) {}
};

/// A packet cannot give what was asked of it.
class TsPacketError : public TsError {
public:
    TsPacketError(const std::string& detail, const char* file = __builtin_FILE(), int line = __builtin_LINE())
        : TsError("TS Packet Error: " + detail, file, line) {}
};

}  // namespace Vel::Ts
