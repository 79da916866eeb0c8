#pragma once

#include <gmock/gmock.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/ringbuffer_sink.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "test_files.h"
#include "test_packet.h"
#include "vel/cpp_utils/log.h"
#include "vel/ts_basics/ll_tspackets.h"
#include "vel/ts_basics/zep_record.h"

namespace Vel::Utils {

using TestSupport::Bytes;
using TestSupport::eventually;
using TestSupport::readFile;
using TestSupport::TemporaryFolder;
using TestSupport::TestPacket;
using TestSupport::writeFile;

/// A number from the environment, so that a test can be repeated or run for longer.
inline std::uint32_t testNumber(const char* variable, std::uint32_t otherwise) {
    const char* text = std::getenv(variable);
    return text == nullptr ? otherwise : static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
}

/// Random choices. A test prints the seed when it fails, and ZEPTFEM_TEST_SEED repeats its choices.
class Random {
public:
    std::uint64_t bits() { return m_Engine(); }
    std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(bits() % limit); }
    bool oneIn(std::uint32_t chances) { return below(chances) == 0; }
    std::string origin() const { return "ZEPTFEM_TEST_SEED=" + std::to_string(m_Seed); }

private:
    std::uint32_t m_Seed = testNumber("ZEPTFEM_TEST_SEED", std::random_device{}());
    std::mt19937_64 m_Engine{m_Seed};
};

/// While it lives, it is the process-wide log system, and keeps its lines from debug on, as "[level]
/// message".
class CapturedLog {
public:
    CapturedLog() {
        constexpr auto ANY_TIME = spdlog::pattern_time_type::local;
        m_Sink->set_formatter(std::make_unique<spdlog::pattern_formatter>("[%l] %v", ANY_TIME, ""));
        m_Logger->set_level(spdlog::level::debug);
        Log::setLogsystem(std::make_unique<Logsystem>(m_Logger));
    }
    ~CapturedLog() { Log::setLogsystem(nullptr); }
    /// Those that begin with `prefix`, in their order.
    std::vector<std::string> lines(const std::string& prefix = "") const {
        auto found = m_Sink->last_formatted();
        std::erase_if(found, [&](const std::string& line) { return !line.starts_with(prefix); });
        return found;
    }
    /// Waits for such a line of another thread.
    bool waitFor(const std::string& prefix) const {
        return eventually([&] { return !lines(prefix).empty(); });
    }

private:
    using Sink = spdlog::sinks::ringbuffer_sink_mt;
    using Logger = std::shared_ptr<spdlog::logger>;

    struct Logsystem : Log::ILogsystem {
        explicit Logsystem(Logger theOne) : logger(std::move(theOne)) {}
        Logger getLogger(const std::string&) override { return logger; }
        Logger getLogger(const std::string&, spdlog::level::level_enum) override { return logger; }
        void setLevel(spdlog::level::level_enum) override {}
        void shutdown() override {}
        Logger logger;
    };

    std::shared_ptr<Sink> m_Sink = std::make_shared<Sink>(1000);
    Logger m_Logger = std::make_shared<spdlog::logger>("test", m_Sink);
};

/// A packet of a record whose header is 0.
/// @param pcr 27 MHz ticks
inline Ts::LowlevInTSPacket makePacket(std::uint32_t pid, std::uint32_t number = 0,
                                       std::optional<std::uint64_t> pcr = {}) {
    auto packet = Ts::LowlevInTSPacket::create<Ts::RECORD_SIZE>();
    std::ranges::copy(TestPacket{.pid = pid, .number = number, .pcr = pcr}.record(0),
                      packet.getWriteDataPtr());
    return packet;
}

}  // namespace Vel::Utils
