#include "records/record_watch.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdio>

#include "record_test_support.h"
#include "vel/cpp_utils/posix/file_descriptor.h"

namespace Vel::Zepctl {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;

constexpr ArrivalTime START{milliseconds(5'000'000)};
constexpr double PACKET_BITS = 188 * 8;

TEST(ArrivalRate, IsThatOfWholeBursts) {
    ArrivalRate rate;
    EXPECT_EQ(rate.getLatest(START), std::nullopt);
    ArrivalTime at = START;
    for (int burst = 0; burst < 50; ++burst, at += milliseconds(100)) {
        rate.add(at, 30);  // a burst that is read in two pieces
        rate.add(at + milliseconds(1), 70);
        EXPECT_DOUBLE_EQ(rate.getLatest(at + milliseconds(99)).value_or(0),
                         burst == 0 ? 0 : 1000 * PACKET_BITS);
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

/// A stream of one packet per millisecond with a PCR every 20, arriving in bursts of 100 on a clock that is
/// off.
struct PacedStream {
    ArrivalDrift drift;
    PcrClock clock;
    std::uint64_t pcr = Ts::PCR_WRAP - 5000 * MS;  // wraps on the way
    ArrivalTime now = START;

    void play(int bursts, double ppm) {
        for (int burst = 0; burst < bursts; ++burst) {
            for (int packet = 0; packet < 100; packet += 20, pcr += 20 * MS) {
                clock.add(pcr, false);
                drift.add(now + milliseconds(packet == 20 ? 15 : 0), clock);  // one of them is taken late
            }
            now += std::chrono::duration_cast<std::chrono::nanoseconds>(milliseconds(100) * (1 + ppm / 1e6));
        }
    }
};

TEST(ArrivalDrift, IsHowFarArrivalMovesAwayFromThePcr) {
    for (const double ppm : {0.0, 500.0, -500.0}) {
        PacedStream stream;
        stream.play(30, ppm);
        EXPECT_FALSE(stream.drift.get()) << "two windows are not complete";
        stream.play(271, ppm);
        ASSERT_TRUE(stream.drift.get());
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

/// A watch of a FIFO in a process of its own, with its output in a file.
class WatchProcess : public testing::Test {
protected:
    const ScratchDirectory m_Scratch;
    const std::string m_Fifo = m_Scratch.file("fifo");
    pid_t m_Process = -1;
    CppUtil::FileDescriptor m_Writer;

    void SetUp() override {
        ASSERT_EQ(::mkfifo(m_Fifo.c_str(), 0600), 0);
        m_Process = ::fork();
        if (m_Process == 0) {
            const bool isOpen = std::freopen(m_Scratch.file("output").c_str(), "w", stdout) != nullptr;
            watchRecords(m_Fifo, std::nullopt);
            std::_Exit(isOpen ? 0 : 1);
        }
        m_Writer = CppUtil::FileDescriptor(::open(m_Fifo.c_str(), O_WRONLY));  // waits for the watch
    }

    /// The output, after the watch ended by itself and with success.
    std::string finish() const {
        int status = -1;
        EXPECT_EQ(::waitpid(m_Process, &status, 0), m_Process);
        EXPECT_EQ(status, 0);
        return m_Scratch.read("output");
    }
};

TEST_F(WatchProcess, PrintsALinePerSecondAndEndsWhenTheWriterLeaves) {
    const std::string stream = join({{.counter = 1}, {.counter = 3}});
    ASSERT_EQ(::write(m_Writer.get(), stream.data(), 383), 383);
    while (m_Scratch.read("output").empty()) {
        std::this_thread::sleep_for(milliseconds(10));
    }
    m_Writer.close();
    EXPECT_THAT(finish(), testing::MatchesRegex(
                              "SECONDS [^\n]*\n( +[0-9]+ +3 +- +- +1 +0 +- +-\n)+" + m_Fifo +
                              " watched for [0-9.]+ s: 1 record\n1 torn record; the first at record 1 .*\n"));
}

TEST_F(WatchProcess, EndsWithItsSummaryOnASignal) {
    ::kill(m_Process, SIGTERM);
    EXPECT_THAT(finish(), HasSubstr("s: 0 records, no fault\n"));
}

}  // namespace
}  // namespace Vel::Zepctl
