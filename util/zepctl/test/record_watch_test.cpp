#include "records/record_watch.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>

#include "command_error.h"
#include "record_test_support.h"
#include "records/record_watch_model.h"
#include "records/record_watch_view.h"

namespace Vel::Zepctl {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::uint64_t MS = 27'000;  // PCR ticks
constexpr ArrivalTime START{milliseconds(5'000'000)};
/// A paced stream of 1 packet a millisecond lets 100 go at a time.
constexpr milliseconds BURST(100);

TEST(ArrivalRate, IsThatOfWholeBursts) {
    ArrivalRate rate;
    EXPECT_EQ(rate.getLatest(START), std::nullopt);
    ArrivalTime at = START;
    for (int burst = 0; burst < 50; ++burst, at += BURST) {
        rate.add(at, 30);  // a burst that is read in two pieces
        rate.add(at + milliseconds(1), 70);
        if (burst == 0) {
            EXPECT_EQ(rate.getLatest(at), std::nullopt);
            EXPECT_EQ(rate.getOverall(), std::nullopt);
        } else {
            EXPECT_DOUBLE_EQ(*rate.getLatest(at + milliseconds(99)), 1000) << burst;
            EXPECT_DOUBLE_EQ(*rate.getOverall(), 1000) << burst;
        }
    }
    for (int burst = 0; burst < 30; ++burst, at += BURST) {
        rate.add(at, 50);
    }
    EXPECT_DOUBLE_EQ(*rate.getLatest(at), 500) << "the fast bursts are forgotten";
    EXPECT_NEAR(*rate.getOverall(), (50 * 100 + 29 * 50) / 7.9, 1e-6);
    EXPECT_EQ(*rate.getLatest(at + milliseconds(2500)), 0) << "it has stopped";
}

TEST(ArrivalRate, OfRareBurstsSpansTheLatestTwo) {
    ArrivalRate rate;
    rate.add(START, 100);
    rate.add(START + milliseconds(4000), 100);
    EXPECT_DOUBLE_EQ(*rate.getLatest(START + milliseconds(10'000)), 25);
    EXPECT_EQ(*rate.getLatest(START + milliseconds(13'000)), 0);
}

/// A stream of 1 packet a millisecond with a PCR every 20, arriving in bursts on a clock that is off.
class PacedStream {
public:
    explicit PacedStream(std::uint64_t pcrStart = 0) : m_Pcr(pcrStart) {}

    void play(RecordWatchModel& model, int bursts, double ppm) {
        const std::chrono::duration<double, std::nano> spacing = BURST * (1 + ppm / 1e6);
        for (int burst = 0; burst < bursts; ++burst) {
            std::vector<TestRecord> records;
            for (int packet = 0; packet < 100; ++packet) {
                records.push_back({.counter = m_Counter++ % 16});
                if (packet % 20 == 0) {
                    records.back().pcr = m_Pcr % Ts::PCR_WRAP;
                }
                m_Pcr += MS;
            }
            model.add(join(records), m_Now);
            m_Now += std::chrono::duration_cast<std::chrono::nanoseconds>(spacing);
        }
    }
    void jump(std::uint64_t ticks) { m_Pcr += ticks; }
    void pause(milliseconds time) { m_Now += time; }
    ArrivalTime now() const { return m_Now; }

private:
    std::uint64_t m_Pcr;
    std::uint32_t m_Counter = 0;
    ArrivalTime m_Now = START;
};

TEST(ArrivalDrift, TellsHowFarArrivalRunsFromThePcr) {
    for (const double ppm : {0.0, 500.0, -500.0}) {
        RecordWatchModel model;
        PacedStream stream(Ts::PCR_WRAP - 5000 * MS);  // wraps on the way
        stream.play(model, 30, ppm);
        EXPECT_FALSE(model.getInputs(stream.now())[0].drift) << "two windows are not complete";
        stream.play(model, 271, ppm);
        const WatchedInput input = model.getInputs(stream.now())[0];
        ASSERT_TRUE(input.drift);
        EXPECT_NEAR(input.drift->ppm, ppm, 1);
        EXPECT_NEAR(input.drift->milliseconds, ppm * 0.028, 0.6) << "over the 28 s between the windows' ends";
        EXPECT_NEAR(*input.bitRateNow, 188 * 8 * 1000, 1000);
        EXPECT_TRUE(model.getFaults().isEmpty());
    }
}

TEST(ArrivalDrift, APauseIsLatenessAndANewTimeBaseANewStart) {
    RecordWatchModel model;
    PacedStream stream;
    stream.play(model, 50, 0);
    stream.pause(milliseconds(300));
    stream.play(model, 50, 0);
    EXPECT_NEAR(model.getInputs(stream.now())[0].drift->milliseconds, 300, 0.1);
    stream.jump(10'000 * MS);
    stream.play(model, 30, 0);
    EXPECT_FALSE(model.getInputs(stream.now())[0].drift);
    stream.play(model, 30, 0);
    EXPECT_NEAR(model.getInputs(stream.now())[0].drift->milliseconds, 0, 0.1);
}

TEST(RecordWatchModel, WhatWasThereBeforeCountsButIsNotTimed) {
    RecordWatchModel model;
    model.add(join({{.tsiidx = 9}, {.counter = 1}, {.counter = 3}, {.counter = 4}}), std::nullopt);
    EXPECT_EQ(model.getInputs(START)[0].bitRateOverall, std::nullopt);
    model.add(join({{.counter = 5}}), START);
    model.add(join({{.counter = 6}}), START + milliseconds(1000));
    model.add(join({{.counter = 7}}), START + milliseconds(2000));
    const auto inputs = model.getInputs(START + milliseconds(2000));
    ASSERT_EQ(inputs.size(), 2U);
    EXPECT_EQ(inputs[0].tsiidx, 3U);
    EXPECT_EQ(inputs[0].packets, 6U);
    EXPECT_EQ(inputs[0].continuityErrors, 1U);
    EXPECT_DOUBLE_EQ(*inputs[0].bitRateNow, 188 * 8);
    EXPECT_EQ(inputs[1].bitRateNow, std::nullopt);
}

WatchFrame sampleFrame() {
    return {"pktio",
            3725.4,
            12'345,
            "",
            {{3, 12'000, 0, 1'000'000.0, 999'500.0, Drift{-12.34, -41.4}},
             {200, 345, 2, std::nullopt, std::nullopt, std::nullopt}}};
}

TEST(WatchScreen, DrawsALineAndTwoBarsForEachInput) {
    EXPECT_THAT(
        drawWatchScreen(sampleFrame(), {86, 24}, {}),
        ElementsAre("pktio  01:02:05  12345 records  (Ctrl-C ends)", "no fault",
                    "TSIIDX    KBIT/S              OVER ALL    PACKETS CC ERRS DRIFT MS     PPM",
                    "     3    1000.0 ###########     999.5      12000       0    -12.3     -41 ----#|-----",
                    "   200         - -----------         -        345       2        -       - -----|-----",
                    "bars: 0..1000.0 kbit/s, early -100 | +100 ms late"));
}

TEST(WatchScreen, StaysWithinTheTerminal) {
    const Colours colours{"<", "<", "<", ">"};
    WatchFrame frame = sampleFrame();
    frame.faults = std::string(300, 'f');
    frame.inputs.resize(256);
    for (const std::size_t columns : {1, 20, 63, 64, 75, 80, 200}) {
        const auto lines = drawWatchScreen(frame, {columns, 10}, colours);
        EXPECT_EQ(lines.size(), 10U);
        for (const std::string& line : lines) {
            const auto marks =
                std::count_if(line.begin(), line.end(), [](char c) { return c == '<' || c == '>'; });
            EXPECT_LE(line.size() - static_cast<std::size_t>(marks), columns) << line;
        }
    }
    EXPECT_EQ(drawWatchScreen(frame, {80, 10}, {}).back(), "250 more lines");
    EXPECT_EQ(drawWatchScreen({}, {80, 10}, {}).back(), "waiting for records");
}

TEST(WatchLines, TellTheSameWithoutATerminal) {
    EXPECT_EQ(
        formatWatchLines(sampleFrame()),
        "3725 s: TSIIDX 3: 1000.0 kbit/s now, 999.5 kbit/s over all, 12000 packets, 0 continuity errors, "
        "drift -12.3 ms (-41 ppm)\n"
        "3725 s: TSIIDX 200: - kbit/s now, - kbit/s over all, 345 packets, 2 continuity errors, no drift "
        "known\n");
    EXPECT_EQ(formatWatchLines({}), "0 s: no records yet\n");
}

/// A watch of a FIFO in a process of its own, with its output in a file.
class WatchProcess : public testing::Test {
protected:
    const ScratchDirectory m_Scratch;
    const std::string m_Fifo = m_Scratch.file("fifo");
    pid_t m_Process = -1;

    void SetUp() override {
        ASSERT_EQ(::mkfifo(m_Fifo.c_str(), 0600), 0);
        m_Process = ::fork();
        if (m_Process == 0) {
            std::freopen(m_Scratch.file("output").c_str(), "w", stdout);
            watchRecords(m_Fifo, std::nullopt);
            std::_Exit(0);
        }
    }

    /// Waits for the watch to read.
    CppUtil::FileDescriptor openFifo() const {
        return CppUtil::FileDescriptor(::open(m_Fifo.c_str(), O_WRONLY));
    }

    /// The output, after the watch ended by itself and with success.
    std::string finish() const {
        int status = -1;
        EXPECT_EQ(::waitpid(m_Process, &status, 0), m_Process);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        const Bytes output = m_Scratch.read("output");
        return {output.begin(), output.end()};
    }
};

TEST_F(WatchProcess, EndsWithItsSummaryWhenTheWriterLeaves) {
    const Bytes stream = join({{.counter = 1}, {.counter = 3}});
    {
        const CppUtil::FileDescriptor writer = openFifo();
        ASSERT_EQ(::write(writer.get(), stream.data(), stream.size() - 1), 383);
    }
    EXPECT_THAT(finish(),
                HasSubstr(": 1 record, 1 torn record; the first at record 1 (byte 192): ends after 191"));
}

TEST_F(WatchProcess, EndsWithItsSummaryOnASignal) {
    const CppUtil::FileDescriptor writer = openFifo();
    ::kill(m_Process, SIGTERM);
    EXPECT_THAT(finish(), HasSubstr("s: 0 records, no fault\n"));
}

}  // namespace
}  // namespace Vel::Zepctl
