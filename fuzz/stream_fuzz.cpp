// A TS file, paced by its PCRs in both ways, against a clock of the target's own: all packets of a whole file
// are released, and have due times in order, whatever its bytes are; and none that was not there. In a loop,
// the second pass advances every PCR by the same amount.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "require.h"
#include "tspacket_streaming/clock_schedule.h"
#include "tspacket_streaming/pcr_rate_adapter.h"
#include "tspacket_streaming/ts_file.h"
#include "vel/cpp_utils/posix/file_descriptor.h"
#include "vel/ts_basics/ll_tspackets.h"
#include "vel/ts_basics/stream_loop.h"

namespace {

using namespace Vel;

/// Time passes only while somebody sleeps, and a little with each look.
struct FakeClock : Utils::MonotonicClock {
    std::uint64_t getMonotonicNs() const override { return nowNs += 1000; }
    void sleepFor(std::chrono::nanoseconds time, const std::stop_token& /*stop*/) const override {
        nowNs += static_cast<std::uint64_t>(time.count());
    }
    mutable std::uint64_t nowNs = 0;
};

void checkLoop(const std::uint8_t* data, std::size_t packets) {
    Ts::StreamLoop loop;
    std::optional<Ts::PcrTicks> advance;
    for (const bool isFirst : {true, false}) {
        for (std::size_t i = 0; i < packets; ++i) {
            const std::uint8_t* const original = data + i * Ts::TS_PACKET_SIZE;
            auto packet = Ts::LowlevInTSPacket::create<Ts::TS_PACKET_SIZE>();
            std::copy_n(original, Ts::TS_PACKET_SIZE, packet.getDataPtr());
            const auto before = Ts::readPcr(packet);
            loop.continuePacket(packet);
            const auto after = Ts::readPcr(packet);
            REQUIRE(before.has_value() == after.has_value());
            REQUIRE(!isFirst || std::equal(original, original + Ts::TS_PACKET_SIZE, packet.getDataPtr()));
            if (!isFirst && before) {
                const auto moved = Ts::pcrDistance(*before, *after);
                REQUIRE(moved == advance.value_or(moved) && moved.count() % Ts::PCR_TICKS_PER_BASE == 0);
                advance = moved;
            }
        }
        loop.endPass();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const CppUtil::FileDescriptor memory(::memfd_create("ts", MFD_CLOEXEC));
    REQUIRE(::write(memory.get(), data, size) == static_cast<ssize_t>(size));
    Utils::TsFile file("/proc/self/fd/" + std::to_string(memory.get()), {});
    Utils::PCRRateAdapter adapter({}, false, std::make_unique<FakeClock>());
    static const bool isQuiet = [] {
        Log::setLogsystem(std::make_unique<Log::StdoutLogger>(spdlog::level::off));
        return true;
    }();
    REQUIRE(isQuiet);
    const FakeClock clock;
    Utils::ClockSchedule schedule(3, size / Ts::TS_PACKET_SIZE % 2 == 0, [&clock] { return clock.now(); });
    std::size_t held = 0;
    std::size_t released = 0;
    std::size_t timed = 0;
    std::chrono::nanoseconds due{0};
    while (true) {
        auto packet = Ts::LowlevInTSPacket::create<Ts::TS_PACKET_SIZE>();
        if (!file.readPacket(
                std::span<std::uint8_t, Ts::TS_PACKET_SIZE>(packet.getDataPtr(), Ts::TS_PACKET_SIZE))) {
            break;
        }
        const bool last = file.isAtEnd();
        const std::int32_t answer = adapter.bufferPacket(packet, last);
        ++held;
        REQUIRE(answer >= 0 && static_cast<std::size_t>(answer) <= held);
        for (std::int32_t i = 0; i < answer; ++i, --held, ++released) {
            adapter.delayPacket();
        }
        REQUIRE(adapter.getBufferedPackets() == held);
        schedule.add(std::move(packet));
        if (last) {
            schedule.timeHeld();
        }
        for (const auto& next : schedule.takeTimed()) {
            REQUIRE(next.due >= due);
            due = next.due;
            ++timed;
        }
        REQUIRE(timed + schedule.getHeldCount() == released + held);
        REQUIRE(schedule.getHeldCount() < Utils::ClockSchedule::MAX_HELD_PACKETS);
    }
    const std::size_t packets = size / Ts::TS_PACKET_SIZE;
    checkLoop(data, packets);
    REQUIRE(released + held == packets);
    REQUIRE(size % Ts::TS_PACKET_SIZE != 0 || (released == packets && timed == packets));
    return 0;
}
