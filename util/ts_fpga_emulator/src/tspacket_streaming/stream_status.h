#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include <spdlog/fwd.h>

#include "tspacket_streaming/ts_file.h"
#include "vel/cpp_utils/counter.h"

namespace Vel::Utils {

/// What a stream has done so far. Its streaming thread sets and counts; any other thread logs, one at a time.
class StreamStatus {
public:
    enum class State { Waiting, Playing, Finished, Failed };

    void setState(State state) { m_State = state; }
    /// Keeps the text and the system's reason for the status line, and returns both; without memory for them,
    /// `what` alone. Null if the stream has failed before.
    const char* setFailed(const char* what, const std::string& reason) noexcept;
    /// Logs one line of key=value pairs, which zeptfem(8) explains.
    void log(spdlog::logger& logger, std::uint32_t tsiidx, const std::string& uri, const TsFile& file);

    std::atomic<std::uint32_t> routeCount = 0;  // PIDs that pass
    CppUtil::Counter packetsRead;
    CppUtil::Counter packetsReleased;  // written, dropped, or not routed
    CppUtil::Counter packetsWritten;
    // Of a looped stream.
    std::atomic<std::uint64_t> pass = 0;  // 1 is the first one
    std::atomic<std::uint64_t> packetsBeforePass = 0;

private:
    std::atomic<State> m_State = State::Waiting;
    std::string m_Failure;  // final once the state is Failed
    // Of the last line.
    std::chrono::steady_clock::time_point m_Time = std::chrono::steady_clock::now();
    std::uint64_t m_Written = 0;
};

}  // namespace Vel::Utils
