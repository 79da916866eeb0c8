#include <functional>

#include "support.h"
#include "tspacket_streaming/pcr_clock_adapter.h"

namespace Vel::Utils {
namespace {

constexpr std::uint64_t MS = 1'000'000;         // nanoseconds
constexpr std::int64_t PCR_MS = 27'000;         // PCR ticks
constexpr std::uint64_t START_NS = 5'000 * MS;  // of the clock
constexpr int LIMIT = 10'000;                   // of the held packets

/// A stream whose PCRs come from a function, and the time at which each packet was sent.
struct Play {
    using Pcr = std::function<std::optional<std::int64_t>(int i)>;

    int packets;
    Pcr pcr;  // in milliseconds, any number: the clock wraps
    std::function<void(int i)> onRelease = [](auto) {};
    std::function<TestPacket(TestPacket packet, int i)> change = [](TestPacket packet, auto) {
        return packet;
    };

    /// Milliseconds since the first packet was sent.
    std::vector<double> times() {
        PCRClockAdapter adapter(3, std::make_unique<FakeClock>(nowNs));
        std::vector<double> times;
        for (int i = 0; i < packets; ++i) {
            TestPacket packet = change({}, i);
            if (const auto ms = pcr(i)) {
                constexpr std::int64_t WRAP = Ts::PCR_WRAP.count();
                packet.pcr = ((*ms * PCR_MS) % WRAP + WRAP) % WRAP;
            }
            const std::int32_t answer = adapter.bufferPacket(makePacket(packet), i + 1 == packets);
            EXPECT_TRUE(answer == 0 || answer == IRateAdapter::WHEN_DUE) << answer;
            mostHeld = std::max(mostHeld, i + 1 - static_cast<int>(times.size()));
            while (answer != 0 && releaseGroup(adapter, times)) {
            }
        }
        EXPECT_EQ(times.size(), static_cast<std::size_t>(packets));
        EXPECT_LE(mostHeld, LIMIT);
        return times;
    }

    bool releaseGroup(PCRClockAdapter& adapter, std::vector<double>& times) {
        const std::int32_t count = adapter.waitUntilDue({});
        EXPECT_LE(count, 100);
        firstNs = times.empty() ? nowNs : firstNs;
        for (std::int32_t k = 0; k < count; ++k) {
            adapter.delayPacket();
            times.push_back(static_cast<double>(nowNs - firstNs) / MS);
            onRelease(static_cast<int>(times.size()) - 1);
        }
        return count > 0;
    }

    std::uint64_t nowNs = START_NS;
    std::uint64_t firstNs = 0;
    int mostHeld = 0;
};

/// A PCR in every tenth packet, a millisecond per packet.
std::optional<std::int64_t> steady(int i) {
    return i % 10 == 0 ? std::optional<std::int64_t>(i) : std::nullopt;
}

struct Case {
    const char* name;
    Play play;
    std::function<double(int i)> due = [](int i) { return i; };

    friend void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }
};

class PCRClockAdapterTest : public testing::TestWithParam<Case> {};

TEST_P(PCRClockAdapterTest, EveryPacketIsSentWhenItIsDue) {
    Play play = GetParam().play;
    const auto times = play.times();
    for (std::size_t i = 0; i < times.size(); ++i) {
        const double due = GetParam().due(static_cast<int>(i));
        // Packets that are due within the next quarter of a millisecond may be sent with one that is due now.
        ASSERT_GE(times[i], due - 0.2501) << "packet " << i;
        ASSERT_LE(times[i], due + 0.0001) << "packet " << i;
    }
}

/// The PCR jumps by `ms` at packet 500.
Play::Pcr jump(std::int64_t ms) {
    return [ms](int i) { return i % 10 == 0 ? std::optional(i + (i < 500 ? 0 : ms)) : std::nullopt; };
}
Play::Pcr onlyFrom(int begin, int end) {
    return [=](int i) { return begin <= i && i < end ? steady(i) : std::nullopt; };
}

INSTANTIATE_TEST_SUITE_P(
    Streams, PCRClockAdapterTest,
    testing::Values(
        Case{"Steady", {1000, steady}}, Case{"NoPcrBeforeAndAfter", {1000, onlyFrom(300, 700)}},
        Case{
            "Wrap",
            {1000, [](auto i) { return i % 10 == 0 ? std::optional<std::int64_t>(i - 495) : std::nullopt; }}},
        Case{"JumpBack", {1000, jump(-400)}}, Case{"JumpAhead", {1000, jump(3'600'000)}},
        Case{"SamePcrAgain", {1000, jump(-10)}},
        Case{"JumpBackRightAtTheStart",
             {1000, [](auto i) { return i == 0 ? std::optional<std::int64_t>(5000000) : steady(i); }}},
        Case{"SlowerWithinTheLimit",
             {1000, jump(100)},
             [](auto i) { return i <= 490   ? i
                                 : i >= 500 ? i + 100
                                            : 490 + (i - 490) * 11.0; }},
        Case{"Discontinuity",
             {1000, jump(60), [](auto) {},
              [](TestPacket packet, auto i) {
                  packet.discontinuity = i == 500;
                  return packet;
              }}},
        Case{"AnotherPidWithPcr",
             {1000, [](auto i) { return i % 10 == 5 ? std::optional<std::int64_t>(i * 7) : steady(i); },
              [](auto) {},
              [](TestPacket packet, auto i) {
                  packet.pid = i % 10 == 5 ? 0x200 : 0x100;
                  return packet;
              }}},
        Case{"FastPacketsAreSentTogether",
             {100'000,
              [](auto i) { return i % 1000 == 0 ? std::optional<std::int64_t>(i / 100) : std::nullopt; }},
             [](auto i) { return i / 100.0; }},
        Case{"LastRateWithoutPcr", {30'000, onlyFrom(0, 500)}},
        Case{"NoPcr", {25'000, onlyFrom(0, 0)}, [](auto) { return 0.0; }},
        Case{"OnePcr", {25'000, onlyFrom(10, 11)}, [](auto) { return 0.0; }},
        Case{"FirstPairWithTheLastPacketThatIsHeld",
             {20'000, [](int i) { return i >= 9989 ? steady(i - 9) : std::nullopt; }}},
        Case{"PairAfterUnpacedPackets",
             {20'000, onlyFrom(12'000, 20'000)},
             [](auto i) { return std::max(0, i - LIMIT); }}),
    [](const auto& parameter) { return std::string(parameter.param.name); });

/// A reader that stalls delays the stream for a while.
TEST(PCRClockAdapter, LatePacketsCatchUpOrMoveTheClock) {
    for (const std::uint64_t stallMs : {900U, 1100U, 60'000U}) {
        SCOPED_TRACE(stallMs);
        Play play{3000, steady};
        play.onRelease = [&](auto i) { play.nowNs += i == 500 ? stallMs * MS : 0; };
        const auto times = play.times();
        const double moved = stallMs < 1000 ? 0 : static_cast<double>(stallMs) - 1;  // 501 was due 1 ms later
        EXPECT_NEAR(times[2999], 2999 + moved, 0.26);
        EXPECT_NEAR(times[501], 500 + static_cast<double>(stallMs), 0.26);
    }
}

TEST(PCRClockAdapter, AStopRequestEndsTheWaitAtOnce) {
    PCRClockAdapter adapter(3);
    std::stop_source stop;
    for (std::uint32_t i = 0; i < 2; ++i) {
        // The second one is due 0.9 s after the first.
        adapter.bufferPacket(makePacket(0x100, i, i * 900 * PCR_MS), false);
    }
    EXPECT_EQ(adapter.waitUntilDue(stop.get_token()), 1);
    std::jthread ending([&] { stop.request_stop(); });
    EXPECT_EQ(adapter.waitUntilDue(stop.get_token()), 0);
    const MonotonicClock clock;
    const auto begin = clock.now();
    clock.sleepUntil(begin + std::chrono::minutes(2), stop.get_token());
    EXPECT_LT(clock.now(), begin + std::chrono::minutes(1));
}

}  // namespace
}  // namespace Vel::Utils
