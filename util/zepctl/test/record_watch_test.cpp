#include "records/record_watch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "record_test_support.h"

namespace Vel::Zepctl {
namespace {

using std::chrono::milliseconds;

constexpr ArrivalTime START{milliseconds(5'000'000)};
constexpr double PACKET_BITS = 188 * 8;

TEST(ArrivalRate, IsThatOfWholeBursts) {
    ArrivalRate rate;
    EXPECT_EQ(rate.getLatest(START), std::nullopt);
    ArrivalTime at = START;
    for (int burst = 0; burst < 50; ++burst, at += milliseconds(100)) {
        rate.add(at, 30);  // a burst that is read in two pieces
        rate.add(at + milliseconds(1), 70);
        EXPECT_DOUBLE_EQ(rate.getLatest(at).value_or(0), burst == 0 ? 0 : 1000 * PACKET_BITS);
        EXPECT_EQ(rate.getOverall().has_value(), burst != 0);
    }
    for (int burst = 0; burst < 30; ++burst, at += milliseconds(100)) {
        rate.add(at, 50);
    }
    EXPECT_DOUBLE_EQ(*rate.getLatest(at), 500 * PACKET_BITS) << "bursts over two seconds ago do not count";
    EXPECT_NEAR(*rate.getOverall(), (50 * 100 + 29 * 50) / 7.9 * PACKET_BITS, 1e-3);
    EXPECT_EQ(*rate.getLatest(at + milliseconds(2500)), 0) << "it has stopped";
    rate.add(at + milliseconds(3900), 1);
    EXPECT_DOUBLE_EQ(*rate.getLatest(at + milliseconds(5000)), 50 / 4.0 * PACKET_BITS);
}

/// A stream with a PCR every 20 ms, in bursts of 100 ms.
struct PacedStream {
    ArrivalDrift drift;
    PcrClock clock;
    std::uint64_t pcr = Ts::PCR_WRAP - 5000 * MS;  // wraps on the way
    ArrivalTime now = START;

    void play(int bursts, double ppm) {
        for (int i = 0; i < 5 * bursts; ++i, pcr += 20 * MS) {
            clock.add(pcr, false);
            drift.add(now + milliseconds(i % 5 == 1 ? 15 : 0), clock);  // one of them is taken late
            if (i % 5 == 4) {
                now += std::chrono::nanoseconds(100'000'000 + static_cast<std::int64_t>(100 * ppm));
            }
        }
    }
};

TEST(ArrivalDrift, IsHowFarArrivalMovesAwayFromThePcr) {
    for (const double ppm : {0.0, 500.0, -500.0}) {
        PacedStream stream;
        stream.play(30, ppm);
        EXPECT_FALSE(stream.drift.get()) << "two windows are not complete";
        stream.play(271, ppm);
        EXPECT_NEAR(stream.drift.get()->ppm, ppm, 1);
        EXPECT_NEAR(stream.drift.get()->milliseconds, ppm * 0.028, 1) << "28 s between the windows' ends";
    }
    PacedStream stream;
    stream.play(50, 0);
    stream.now += milliseconds(300);
    stream.play(50, 0);
    EXPECT_NEAR(stream.drift.get()->milliseconds, 300, 0.1) << "a pause";
    stream.pcr += 10'000 * MS;
    stream.play(30, 0);
    EXPECT_FALSE(stream.drift.get()) << "restarts with a new time base";
    stream.play(30, 0);
    EXPECT_NEAR(stream.drift.get()->milliseconds, 0, 0.1);
}

TEST(RecordWatch, HasOneRowPerInputAndDoesNotTimeWhatWasThereBefore) {
    RecordWatch watch;
    EXPECT_THAT(watch.formatRows(1.4, START), testing::ElementsAre("      1  no records yet"));
    give(watch, {{.tsiidx = 9}, {.counter = 1}, {.counter = 3}}, std::nullopt);
    for (std::uint32_t second = 0; second <= 6; ++second) {
        give(watch, {{.counter = 4 + second, .pcr = second * 999 * MS}}, START + milliseconds(1000) * second);
    }
    EXPECT_THAT(watch.formatRows(3725.4, START + milliseconds(6000)),
                testing::ElementsAre(
                    "   3725       3        1.5        1.5           9           1      +4.0    +1001",
                    "   3725       9          -          -           1           0         -        -"));
}

}  // namespace
}  // namespace Vel::Zepctl
