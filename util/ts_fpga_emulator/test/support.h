#pragma once

#include <gmock/gmock.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/ringbuffer_sink.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "vel/cpp_utils/log.h"
#include "vel/ts_basics/ll_tspackets.h"
#include "vel/ts_basics/zep_record.h"

namespace Vel::Utils {

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

/// A folder that is removed with its contents at the end of the test.
class TempFolder {
public:
    TempFolder() { m_Path = ::mkdtemp(m_Path.data()); }
    ~TempFolder() { std::filesystem::remove_all(m_Path); }
    std::string operator/(const std::string& name) const { return m_Path + "/" + name; }

private:
    std::string m_Path = testing::TempDir() + "zeptfem_XXXXXX";
};

inline std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

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
    /// Waits for such a line of another thread. False after a time that no healthy run needs.
    bool waitFor(const std::string& prefix) const {
        for (int ms = 0; ms < 60'000 && lines(prefix).empty(); ++ms) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return !lines(prefix).empty();
    }

private:
    using Sink = spdlog::sinks::ringbuffer_sink_mt;
    using Logger = std::shared_ptr<spdlog::logger>;

    struct Logsystem : Log::ILogsystem {
        explicit Logsystem(Logger theOne) : logger(std::move(theOne)) {}
        Logger getLogger(const std::string&) override { return logger; }
        Logger getLogger(const std::string&, spdlog::level::level_enum) override { return logger; }
        void shutdown() override {}
        Logger logger;
    };

    std::shared_ptr<Sink> m_Sink = std::make_shared<Sink>(1000);
    Logger m_Logger = std::make_shared<spdlog::logger>("test", m_Sink);
};

/// A packet of a record whose header is 0. Its number stands in its last four bytes.
/// @param pcr 27 MHz ticks, carried in an adaptation field
inline Ts::LowlevInTSPacket makePacket(std::uint32_t pid, std::uint32_t number = 0,
                                       std::optional<std::uint64_t> pcr = {}) {
    auto packet = Ts::LowlevInTSPacket::create<Ts::RECORD_SIZE>();
    std::uint8_t* record = packet.getWriteDataPtr();
    std::fill_n(record, Ts::RECORD_SIZE, std::uint8_t{0});
    Ts::writeRecordHeader(record + Ts::RECORD_SIZE - Ts::RECORD_HEADER_SIZE, number);
    std::uint8_t* bytes = packet.getDataPtr();
    bytes[0] = Ts::SYNC_BYTE;
    packet.setPid(pid);
    bytes[3] = pcr ? 0x30 : 0x10;
    if (pcr) {
        bytes[4] = 7;
        bytes[5] = 0x10;
        const std::uint64_t base = *pcr / Ts::PCR_TICKS_PER_BASE;
        const std::uint64_t field = base << 15 | *pcr % Ts::PCR_TICKS_PER_BASE;  // 33, 6 unused and 9 bits
        for (unsigned i = 0; i < 6; ++i) {
            bytes[6 + i] = static_cast<std::uint8_t>(field >> (40 - 8 * i));
        }
    }
    return packet;
}

/// The transport packet alone, as a file holds it.
inline std::string tsBytes(const Ts::LowlevInTSPacket& packet) {
    return {reinterpret_cast<const char*>(packet.getDataPtr()), Ts::TS_PACKET_SIZE};
}

}  // namespace Vel::Utils
