#include "tspacket_streaming/stream_status.h"

#include <algorithm>
#include <array>
#include <new>
#include <utility>

#include "vel/cpp_utils/log.h"

namespace Vel::Utils {

const char* StreamStatus::setFailed(const char* what, const std::string& reason) noexcept {
    if (m_State == State::Failed) {
        return nullptr;
    }
    try {
        m_Failure = reason.empty() ? what : fmt::format("{} [{}]", what, reason);
    } catch (const std::bad_alloc&) {
    }
    m_State = State::Failed;
    return m_Failure.empty() ? what : m_Failure.c_str();
}

void StreamStatus::log(spdlog::logger& logger, std::uint32_t tsiidx, const std::string& uri,
                       const TsFile& file) {
    static constexpr std::array STATES = {"waiting", "playing", "finished", "failed"};
    const State state = m_State;
    const std::uint64_t before = packetsBeforePass;  // the number of packets read later is not below it
    const std::uint64_t written = packetsWritten.load();
    const std::uint64_t released = std::max(packetsReleased.load(), written);
    const std::uint64_t read = std::max(packetsRead.load(), released);
    const std::uint64_t size = file.getSize();
    // A file that has been truncated has fewer bytes than were read.
    const std::uint64_t bytes = std::min((read - before) * Ts::TS_PACKET_SIZE, size);
    const auto now = std::chrono::steady_clock::now();
    const std::chrono::duration<double> elapsed = now - std::exchange(m_Time, now);
    const std::uint64_t writtenSince = written - std::exchange(m_Written, written);
    Log::info(
        logger,
        "Status: tsiidx={} uri={} file={} state={} read={} written={} held={} percent={} rate={:.0f}{}{}{}",
        tsiidx, uri, file.getName(), STATES[static_cast<std::size_t>(state)], read, written,
        state == State::Playing ? read - released : 0, size == 0 ? "-" : std::to_string(bytes * 100 / size),
        static_cast<double>(writtenSince) / elapsed.count(),
        pass == 0 ? "" : fmt::format(" pass={}", pass.load()), state == State::Failed ? " reason=" : "",
        state == State::Failed ? m_Failure.c_str() : "");  // not a copy, for which there may be no memory
}

}  // namespace Vel::Utils
