#pragma once

#include <algorithm>
#include <string>

#include <gmock/gmock.h>

#include "test_files.h"
#include "test_packet.h"
#include "test_random.h"
#include "tspacket_streaming/monotonic_clock.h"
#include "vel/ts_basics/ll_tspackets.h"
#include "vel/ts_basics/zep_record.h"

namespace Vel::Utils {

using TestSupport::Bytes;
using TestSupport::Random;
using TestSupport::readFile;
using TestSupport::TemporaryFolder;
using TestSupport::testNumber;
using TestSupport::TestPacket;
using TestSupport::writeFile;

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

/// For a FakeClock on which waits, which use the real time, take an hour.
inline std::uint64_t oneHourAhead() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::nanoseconds(now + std::chrono::hours(1)).count());
}

/// The packet of a record whose header is 0.
inline Ts::LowlevInTSPacket makePacket(const TestPacket& content) {
    auto packet = Ts::LowlevInTSPacket::create<Ts::RECORD_SIZE>();
    std::ranges::copy(content.record(0), packet.getWriteDataPtr());
    return packet;
}

}  // namespace Vel::Utils
