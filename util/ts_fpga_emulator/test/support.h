#pragma once

#include <algorithm>
#include <cstdlib>
#include <random>
#include <string>

#include <gmock/gmock.h>

#include "test_files.h"
#include "test_packet.h"
#include "tspacket_streaming/monotonic_clock.h"
#include "vel/ts_basics/ll_tspackets.h"
#include "vel/ts_basics/zep_record.h"

namespace Vel::Utils {

using TestSupport::Bytes;
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

/// Time that passes only when a test says so, and in sleeps. The test owns the time, because an adapter owns
/// its clock.
class FakeClock : public MonotonicClock {
public:
    explicit FakeClock(std::uint64_t& nowNs) : m_NowNs(nowNs) {}
    std::uint64_t getMonotonicNs() const override { return m_NowNs; }
    void sleepFor(std::chrono::nanoseconds time, const std::stop_token& /*stop*/) const override {
        m_NowNs += static_cast<std::uint64_t>(time.count());
    }

private:
    std::uint64_t& m_NowNs;
};

/// The packet of a record whose header is 0.
inline Ts::LowlevInTSPacket makePacket(const TestPacket& content) {
    auto packet = Ts::LowlevInTSPacket::create<Ts::RECORD_SIZE>();
    std::ranges::copy(content.record(0), packet.getWriteDataPtr());
    return packet;
}

}  // namespace Vel::Utils
