#include "tspacket_streaming/clock_schedule.h"

#include <functional>
#include <span>
#include <sstream>

#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include "support.h"
#include "vel/ts_basics/stream_loop.h"

namespace Vel::Utils {
namespace {

using std::chrono::nanoseconds;

constexpr std::int64_t MS = 1'000'000;        // nanoseconds
constexpr std::int64_t PCR_MS = 27'000;       // PCR ticks
constexpr std::int64_t START = 100'000 * MS;  // of the clock
constexpr int LIMIT = ClockSchedule::MAX_HELD_PACKETS;

std::shared_ptr<spdlog::logger> logTo(std::ostringstream& text) {
    const auto sink = std::make_shared<spdlog::sinks::ostream_sink_st>(text);
    sink->set_pattern("[%l] %v");
    spdlog::drop(ClockSchedule::loggerName());
    auto logger = std::make_shared<spdlog::logger>(ClockSchedule::loggerName(), sink);
    spdlog::register_logger(logger);
    return logger;
}

/// A looped stream, its schedule, what that logs, and the due times of the packets that have been handed in.
struct Play {
    explicit Play(bool isFeed = false) : schedule(3, isFeed, [this] { return nanoseconds(now); }) {}
    ~Play() { spdlog::drop(ClockSchedule::loggerName()); }

    void add(TestPacket packet) {
        packet.number = packets++;
        Ts::LowlevInTSPacket next = makePacket(packet);
        loop.continuePacket(next);
        schedule.add(std::move(next));
        ASSERT_LT(schedule.getHeldCount(), LIMIT);
        take();
    }
    void end() {
        schedule.timeHeld();
        take();
        ASSERT_EQ(due.size(), packets);
    }
    void take() {
        ASSERT_EQ(schedule.getTimedCount() > 0, schedule.getHeldCount() + due.size() < packets);
        for (const auto& [packet, time, pid] : schedule.takeTimed()) {
            ASSERT_EQ(Ts::readRecordHeader(packet.getDataPtr() + 184), due.size()) << "order";
            due.push_back(time.count() - START);
        }
        ASSERT_EQ(due.empty() ? -START : due.back(), schedule.getEnd().count() - START);
    }

    std::int64_t now = START;
    std::ostringstream log;
    std::shared_ptr<spdlog::logger> logger = logTo(log);
    ClockSchedule schedule;
    Ts::StreamLoop loop;
    std::uint32_t packets = 0;
    std::vector<std::int64_t> due;  // nanoseconds since START
};

using Ms = std::optional<std::int64_t>;

/// A PCR in every tenth packet, a millisecond per packet.
auto steadyFrom(int begin, int end) {
    return [=](int i) { return begin <= i && i < end && i % 10 == 0 ? Ms(i) : std::nullopt; };
}
/// The PCR jumps by `ms` at packet 500.
auto jump(int ms) {
    return [=](int i) { return i % 10 == 0 ? Ms(i + (i < 500 ? 0 : ms)) : std::nullopt; };
}
/// The same PCR in `times` packets, ten packets apart.
auto repeated(int times) {
    return [=](int i) { return i % 10 == 0 ? Ms(i - i % (10 * times)) : std::nullopt; };
}

TEST(ClockSchedule, EveryPacketIsDueAtItsPcrTime) {
    const std::string unpaced =
        "[warning] TSIIDX 3: no two PCRs in the first 10000 packets give a rate; sending them unpaced\n";
    const struct {
        const char* stream;
        std::function<Ms(int i)> pcr;
        std::vector<std::pair<int, std::int64_t>> due;  // packet, ms; evenly spread between them, from 0, 0
        std::string log = {};
        int secondPid = 0;  // from this packet
    } cases[] = {
        {"no PCR before and after", steadyFrom(300, 700), {{690, 690}, {694, 694}}},
        {"many packets after the last PCR", steadyFrom(0, 700), {{690, 690}, {999, 700}}},
        {"repeated PCRs", repeated(2), {{999, 999}}},
        {"a jump back", jump(-400), {{999, 999}}},
        {"a jump ahead",
         jump(39'600'000),
         {{999, 999}},
         "[warning] TSIIDX 3: PCRs are 39600010 ms apart; PCRs more than 1000 ms apart cannot be paced\n"},
        {"the mean of the last ten intervals is 2 ms per packet",
         [](int i) {
             return i == 0 ? Ms(0) : i >= 50 && i % 10 == 0 ? Ms(450 + i + i / 150 * 100) : std::nullopt;
         },
         {{50, 500}, {140, 590}, {150, 700}, {155, 710}}},
        {"10,000 packets without PCR take no longer than the longest interval",
         steadyFrom(0, 500),
         {{490, 490}, {10'490, 500}, {20'490, 510}, {20'494, 514}}},
        {"the second PID has PCRs in the packets that are held when it is chosen",
         [](int i) { return i % 10 == 0 && (i < 500 || i >= 2000) ? Ms(2 * i) : std::nullopt; },
         {{490, 980}, {2000, 1000}, {11'999, 20'998}},
         {},
         2000},
        {"the PCR never changes", repeated(10'000), {{14'999, 0}}, unpaced},
        {"PCRs too far apart",
         [](int i) { return i % 1500 == 0 ? Ms(i) : std::nullopt; },
         {{14'999, 0}},
         "[warning] TSIIDX 3: PCRs are 1500 ms apart; PCRs more than 1000 ms apart cannot be paced\n" +
             unpaced},
        {"PCRs not too far apart",
         [](int i) { return i % 1000 == 0 ? Ms(i) : std::nullopt; },
         {{1999, 1999}}},
        {"the second PCR in the last packet that may be held",
         [](int i) { return i == 9'989 || i == 9'999 ? Ms(i) : std::nullopt; },
         {{9'999, 9'999}}},
        {"a pair after unpaced packets", steadyFrom(12'000, 20'000), {{10'000, 0}, {19'999, 9'999}}, unpaced},
    };
    for (const auto& [stream, pcr, due, log, secondPid] : cases) {
        SCOPED_TRACE(stream);
        std::vector<std::int64_t> expected{0};
        for (std::int64_t from = 0, fromMs = 0; const auto& [to, toMs] : due) {
            for (std::int64_t k = 1; k <= to - from; ++k) {
                expected.push_back(fromMs * MS + (toMs - fromMs) * MS * k / (to - from));
            }
            from = to;
            fromMs = toMs;
        }
        Play play;
        for (int i = 0; i <= due.back().first; ++i) {
            const auto ms = pcr(i);
            play.add({.pid = i < secondPid ? 0x101U : 0x100U,
                      .pcr = ms ? std::optional<std::uint64_t>((*ms + 5000) * PCR_MS) : std::nullopt});
        }
        play.end();
        EXPECT_EQ(play.due, expected);
        EXPECT_EQ(play.log.str(), log);
    }
}

struct Interval {
    std::int64_t ticks;
    std::int64_t packets;
};

/// Due times by the definition, in whole numbers: parts of 1/27 ns, of which a PCR tick has 1000. The first
/// packet is due at 0, and the time of the first PCR, `lead` packets later, is rounded up.
std::vector<std::int64_t> expectedDue(std::int64_t lead, const std::vector<Interval>& intervals) {
    std::vector<std::int64_t> due;
    const auto [firstTicks, firstPackets] = intervals.front();
    std::int64_t pcrTime = (1000 * firstTicks * lead + firstPackets - 1) / firstPackets;
    for (std::int64_t k = lead; k >= 0; --k) {
        due.push_back((pcrTime * firstPackets - 1000 * firstTicks * k) / firstPackets / 27);
    }
    for (const auto& [ticks, packets] : intervals) {
        for (std::int64_t k = 1; k <= packets; ++k) {
            due.push_back((pcrTime * packets + 1000 * ticks * k) / packets / 27);
        }
        pcrTime += 1000 * ticks;
    }
    return due;
}

/// From the last PCR of a pass to the first one of the next: the times of the packets around the seam, as a
/// pass is a whole number of 90 kHz ticks.
Interval seam(std::int64_t lead, const std::vector<Interval>& intervals, std::int64_t tail) {
    const auto sum = [](std::span<const Interval> some) {
        Interval all{0, 0};
        for (const auto& [ticks, packets] : some) {
            all = {all.ticks + ticks, all.packets + packets};
        }
        return all;
    };
    const auto divideUp = [](std::int64_t a, std::int64_t b) { return (a + b - 1) / b; };
    const auto recent = std::span(intervals).last(std::min<std::size_t>(intervals.size(), 10));
    const std::int64_t longest = std::ranges::max(recent, {}, &Interval::ticks).ticks;
    const std::int64_t before = divideUp(1000 * intervals[0].ticks * (lead + 1), intervals[0].packets);
    const std::int64_t after =
        std::min(divideUp(1000 * sum(recent).ticks * tail, sum(recent).packets), 1000 * longest);
    const std::int64_t pcrs = sum(intervals).ticks;
    return {divideUp(pcrs + divideUp(before + after, 1000), 300) * 300 - pcrs, tail + lead + 1};
}

TEST(ClockSchedule, SpreadsPacketsEvenlyBetweenAnyPcrsAndOverTheSeamsOfALoop) {
    Random random;
    for (int stream = 0; stream < 200; ++stream) {
        SCOPED_TRACE(random.origin() + ", stream " + std::to_string(stream));
        const std::int64_t lead = random.below(50);
        const std::int64_t tail = random.below(50);
        std::vector<Interval> intervals(1 + random.below(20));
        std::uint64_t pcr = Ts::PCR_WRAP.count() - random.below(50'000'000);
        std::vector<TestPacket> file(static_cast<std::size_t>(lead));
        file.push_back({.pcr = pcr});
        for (auto& [ticks, packets] : intervals) {
            // A still picture has few packets in a long interval, and the next frame has many.
            ticks = 1 + random.below(random.oneIn(2) ? 27'000'000 : 27'000);
            packets = 1 + random.below(random.oneIn(2) ? 400 : 3);
            pcr += static_cast<std::uint64_t>(ticks);
            file.resize(file.size() + static_cast<std::size_t>(packets) - 1);
            file.push_back({.pcr = pcr % Ts::PCR_WRAP.count()});
        }
        file.resize(file.size() + static_cast<std::size_t>(tail));
        std::vector<Interval> expected = intervals;
        Play play;
        const Interval gap = seam(lead, intervals, tail);
        // PCRs that are further apart are not paced.
        for (int passes = gap.ticks > 27'000'000 ? 1 : stream % 50 == 0 ? 100 : 3; passes > 0; --passes) {
            for (const TestPacket& packet : file) {
                EXPECT_EQ(play.schedule.hasPace(), !play.due.empty());
                play.add(packet);
            }
            ASSERT_EQ(play.due, expectedDue(lead, expected));
            ASSERT_TRUE(play.loop.endPass());
            expected.push_back(gap);
            expected.insert(expected.end(), intervals.begin(), intervals.end());
        }
        EXPECT_EQ(play.log.str(), "");
    }
}

TEST(ClockSchedule, PcrsContinueAfterPacketsWereTimedWithoutThem) {
    Play play;
    for (std::uint64_t i = 0; i <= 30; ++i) {
        play.add(i % 15 == 0 && i != 20 ? TestPacket{.pcr = i * i * PCR_MS} : TestPacket{});
        if (i == 20) {
            play.schedule.timeHeld();
        }
    }
    EXPECT_EQ(play.due[20], 300 * MS) << "15 ms per packet";
    EXPECT_EQ(play.due[25], (300 + 5 * 45) * MS) << "675 ms for 15 packets, 10 of which were held";
    EXPECT_EQ(play.due[30], (300 + 10 * 45) * MS);
}

TEST(ClockSchedule, AFeedThatIsLateKeepsItsSpacingAndAFileIsNeverLate) {
    const auto feed = [](Play& play, int packets, int pauseMs) {
        play.now += pauseMs * MS;
        for (; packets > 0; --packets, play.now += MS) {
            play.add({.pcr = play.packets % 10 == 0 ? std::optional(play.packets * PCR_MS) : std::nullopt});
        }
    };
    Play play(true);
    feed(play, 491, 0);
    // The second PCR arrived after 10 ms.
    EXPECT_EQ(play.due.back(), (110 + 490) * MS);
    EXPECT_EQ(play.schedule.getHeldSince().count(), START + 490 * MS) << "the latest PCR";
    feed(play, 1, 0);
    EXPECT_EQ(play.schedule.getHeldSince().count(), START + 491 * MS) << "the oldest held packet";
    feed(play, 19, 101);
    EXPECT_EQ(play.due.back(), (110 + 510) * MS) << "just in time";
    feed(play, 20, 1);
    EXPECT_EQ(play.due[511], (110 + 511 + 101) * MS);
    EXPECT_EQ(play.due[530], (110 + 530 + 101) * MS);
    feed(play, 10, 30'000);
    feed(play, 10, 30'000);
    EXPECT_EQ(play.log.str(),
              "[info] TSIIDX 3: the feed is 1 ms late; its packets are now sent 101 ms later\n"
              "[info] TSIIDX 3: the feed is 29900 ms late; its packets are now sent 30000 ms later (2 times "
              "since the last report)\n");
    Play jumping(true);
    for (; jumping.packets < 50; jumping.now += MS) {
        const std::uint32_t i = jumping.packets;
        jumping.add({.pcr = i % 10 == 5 ? std::optional((1000 - i) * PCR_MS) : std::nullopt});
    }
    EXPECT_EQ(jumping.schedule.getHeldSince().count(), START + 5 * MS) << "no later PCR continues the clock";
    Play file;
    feed(file, 491, 0);
    feed(file, 10, 30'000);
    EXPECT_EQ(file.due.back(), (10 + 500) * MS);
}

}  // namespace
}  // namespace Vel::Utils
