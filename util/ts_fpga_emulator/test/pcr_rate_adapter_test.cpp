#include "tspacket_streaming/pcr_rate_adapter.h"

#include <gmock/gmock.h>

#include "support.h"
#include "thrown_text.h"
#include "vel/cpp_utils/error.h"

namespace Vel::Utils {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint32_t PCR_PID = 0x100;
constexpr std::uint64_t TICKS_PER_MS = 27'000;
constexpr std::uint64_t NS_PER_MS = 1'000'000;

/// Time that passes only where a test says so, and in sleeps. What it knows is kept by the test, since the
/// adapter owns the clock.
struct Time {
    std::uint64_t nowNs = 1'000'000'000;
    std::vector<std::uint64_t> sleeps;  // ns
};

class FakeClock : public MonotonicClock {
public:
    explicit FakeClock(Time& time) : m_Time(time) {}
    std::uint64_t getMonotonicNs() const override { return m_Time.nowNs; }
    void sleepNs(std::uint64_t ns, const std::stop_token& /*stop*/) const override {
        m_Time.sleeps.push_back(ns);
        m_Time.nowNs += ns;
    }

private:
    Time& m_Time;
};

class PCRRateAdapterTest : public testing::Test {
protected:
    std::int32_t buffer(bool last = false) { return m_Adapter.bufferPacket(m_Plain, last); }
    std::int32_t bufferPcr(std::uint64_t pcr, bool last = false, std::uint32_t pid = PCR_PID) {
        return m_Adapter.bufferPacket(makePacket({0, pid, 0}, pcr), last);
    }
    /// Hands in packets without PCR, of which none may be released.
    void hold(std::uint32_t count) {
        for (std::uint32_t i = 0; i < count; ++i) {
            ASSERT_EQ(buffer(), 0) << "packet " << i + 1 << " of " << count;
        }
    }
    void release(std::int32_t count) {
        for (; count > 0; --count) {
            m_Adapter.delayPacket();
        }
    }
    /// Two PCRs in a row that are `ms` apart: the delay of a packet.
    void learnDelay(std::uint64_t ms) {
        EXPECT_EQ(bufferPcr(0), 0);
        EXPECT_EQ(bufferPcr(ms * TICKS_PER_MS), 0);
    }

    const Ts::LowlevInTSPacket m_Plain = makePacket({0, PCR_PID, 0});
    Time m_Time;
    PCRRateAdapter m_Adapter{{}, std::make_unique<FakeClock>(m_Time)};
};

TEST(PacketDelay, IsTheMeanTimePerPacketOfTheIntervals) {
    using Pcrs = std::vector<std::pair<std::uint32_t, std::uint64_t>>;  // packet index, ticks
    const auto delayOf = [](const Pcrs& pcrs) {
        PCRRateAdapter adapter;
        for (const auto& [index, pcr] : pcrs) {
            adapter.addPcr(pcr, index);
        }
        return adapter.getPacketDelayNs();
    };
    EXPECT_EQ(delayOf({{1, 27'000'000}}), 0U);
    EXPECT_EQ(delayOf({{1, 0}, {101, 2'700'000}, {201, 5'400'000}}), 1'000'000U) << "constant rate";
    EXPECT_EQ(delayOf({{1, 0}, {4, 5}}), 61U) << "divisions truncate";
    EXPECT_EQ(delayOf({{1, 0}, {2, 27'000}, {12, 54'000}}), 550'000U) << "mean of intervals, not of packets";
    EXPECT_EQ(delayOf({{1, 5}, {2, 5}}), 0U) << "a PCR that stands still";
    EXPECT_EQ(delayOf({{0xFFFFFFFF, 0}, {1, 54'000}}), 1'000'000U) << "the index wraps";
    EXPECT_EQ(delayOf({{1, 2'576'980'377'500}, {2, 0}}), 3703U) << "the PCR wraps";
    EXPECT_EQ(delayOf({{1, 2'576'980'377'500}, {3, 0}}), 1851U) << "over two packets";
    EXPECT_EQ(delayOf({{1, 1}, {2, 0}}), 95'443'717'688'851U % (1ULL << 32))
        << "backward is a wrap, cut to 32 bits";
    EXPECT_EQ(delayOf({{1, 0}, {2, 108'000'000}, {3, 216'000'000}}), (8'000'000'000 - (1ULL << 32)) / 2)
        << "the sum wraps at 32 bits";

    Pcrs pcrs = {{1, 0}};  // one interval of 11 ms, then such of 1 ms
    for (std::uint32_t i = 0; i < 10; ++i) {
        pcrs.emplace_back(i + 2, (11 + i) * TICKS_PER_MS);
    }
    EXPECT_EQ(delayOf(pcrs), 2'000'000U) << "ten intervals count";
    pcrs.emplace_back(12, 21 * TICKS_PER_MS);
    EXPECT_EQ(delayOf(pcrs), 1'000'000U) << "the eleventh pushes out the oldest";
}

TEST_F(PCRRateAdapterTest, FirstPidWithPcrIsTheOnlyOneThatCounts) {
    hold(1);
    EXPECT_EQ(bufferPcr(0), 0);
    EXPECT_EQ(bufferPcr(500 * TICKS_PER_MS, false, PCR_PID + 1), 0);
    EXPECT_FALSE(m_Adapter.isPacketDelayKnown());
    hold(2);
    EXPECT_EQ(bufferPcr(4 * TICKS_PER_MS), 0);
    EXPECT_TRUE(m_Adapter.isPacketDelayKnown());
    EXPECT_EQ(m_Adapter.getPacketDelayNs(), NS_PER_MS);
}

TEST_F(PCRRateAdapterTest, LastPacketReleasesEverythingInEveryState) {
    struct Case {
        std::uint32_t before;  // packets handed in before the last one
        bool delayKnown;
        bool lastHasPcr;
    };
    for (const auto& [before, delayKnown, lastHasPcr] :
         {Case{0, false, false}, Case{7, false, false}, Case{1, false, true}, Case{7, true, false},
          Case{10000, true, true}, Case{10001, true, false}, Case{10001, false, false}}) {
        PCRRateAdapter adapter({}, std::make_unique<FakeClock>(m_Time));
        const auto handIn = [&](std::uint64_t number, bool hasPcr, bool last) {
            const auto pcr = hasPcr ? std::optional(number * TICKS_PER_MS) : std::nullopt;
            const std::int32_t answer = adapter.bufferPacket(makePacket({0, PCR_PID, 0}, pcr), last);
            for (std::int32_t n = answer; n > 0; --n) {
                adapter.delayPacket();
            }
            return answer;
        };
        for (std::uint32_t i = 0; i < before; ++i) {
            handIn(i, i == 0 || (i == 1 && delayKnown), false);
        }
        const auto held = static_cast<std::int32_t>(adapter.getBufferedPackets());
        EXPECT_EQ(handIn(before, lastHasPcr, true), held + 1) << before;
        EXPECT_TRUE(adapter.isBufferEmpty()) << before;
        EXPECT_EQ(thrownText<CppUtil::NotImplementedError>([&] { handIn(0, false, false); }),
                  "Not Implemented Error: Cannot buffer packets in PCRRateAdapterState_EmptyBuffer");
    }
}

TEST_F(PCRRateAdapterTest, NoReleaseBeforeThePlayOut) {
    const auto delayError = [&] {
        return thrownText<CppUtil::NotImplementedError>([&] { m_Adapter.delayPacket(); });
    };
    EXPECT_EQ(delayError(), "Not Implemented Error: Cannot do packet delay in PCRRateAdapterState_LockPCR");
    learnDelay(1);
    EXPECT_EQ(delayError(),
              "Not Implemented Error: Cannot do packet delay in PCRRateAdapterState_FillBuffer");
    EXPECT_EQ(m_Adapter.getBufferedPackets(), 2U);
}

TEST_F(PCRRateAdapterTest, PlayOutBeginsWithThe10001stPacketAndKeeps5001) {
    EXPECT_EQ(m_Adapter.getMaxBufferedPackets(), 10000U);
    learnDelay(1);
    hold(9998);
    EXPECT_EQ(buffer(), 5000);
    release(5000);
    EXPECT_EQ(m_Adapter.getBufferedPackets(), 5001U);
    EXPECT_THAT(m_Time.sleeps, testing::SizeIs(50));

    // From now on a packet goes out for one that comes in, once its time has come; 5000 in one go when it is
    // full again.
    EXPECT_EQ(buffer(), 0) << "right after a release";
    m_Time.nowNs += NS_PER_MS - 1;
    EXPECT_EQ(buffer(), 0);
    m_Time.nowNs += 1;
    EXPECT_EQ(buffer(), 1);
    release(1);
    hold(10000 - m_Adapter.getBufferedPackets());
    EXPECT_EQ(buffer(), 5000);
    release(5000);
    EXPECT_EQ(m_Adapter.getBufferedPackets(), 5001U);
}

TEST_F(PCRRateAdapterTest, WithoutASecondPcrTheBufferIsPlayedOutUnpacedUntilOneComes) {
    EXPECT_EQ(bufferPcr(0), 0);
    hold(9999);
    EXPECT_EQ(buffer(), 5000);
    release(5000);
    for (int i = 0; i < 399; ++i) {  // which must not count for the first paced batch
        ASSERT_EQ(buffer(), 1);
        release(1);
    }
    EXPECT_THAT(m_Time.sleeps, IsEmpty());
    EXPECT_EQ(m_Adapter.getBufferedPackets(), 5001U);

    const std::uint64_t index = m_Adapter.getPacketCount();  // the next packet's distance from the first
    EXPECT_EQ(bufferPcr(2 * index * TICKS_PER_MS), 0) << "less than a delay behind the last release";
    EXPECT_EQ(m_Adapter.getPacketDelayNs(), 2 * NS_PER_MS);
    EXPECT_EQ(buffer(true), 5003);
    release(5003);
    EXPECT_EQ(m_Time.sleeps.size(), 50U);
}

TEST_F(PCRRateAdapterTest, EachBatchOf100LastsAtLeast100Delays) {
    learnDelay(1);
    hold(297);
    EXPECT_EQ(buffer(true), 300);

    release(99);
    EXPECT_THAT(m_Time.sleeps, IsEmpty()) << "the first 99 are not spaced";
    m_Time.nowNs += 30 * NS_PER_MS;
    release(1);
    EXPECT_THAT(m_Time.sleeps, ElementsAre(70 * NS_PER_MS));

    m_Time.nowNs += 10 * NS_PER_MS;  // between two batches: counts for neither
    release(100);
    EXPECT_THAT(m_Time.sleeps, ElementsAre(70 * NS_PER_MS, 100 * NS_PER_MS));

    release(1);
    m_Time.nowNs += 100 * NS_PER_MS;
    release(99);
    EXPECT_THAT(m_Time.sleeps, testing::SizeIs(2)) << "a batch that is late needs no sleep";
}

TEST(MonotonicClock, SleepsTheWholeTimeUnlessAStopIsRequested) {
    const MonotonicClock clock;
    const std::uint64_t start = clock.getMonotonicNs();
    clock.sleepNs(1'500'000'000, {});
    EXPECT_GE(clock.getMonotonicNs() - start, 1'500'000'000U);

    std::stop_source stop;
    const std::jthread sleeping([&] { clock.sleepNs(86'400'000'000'000, stop.get_token()); });
    std::this_thread::sleep_for(std::chrono::milliseconds(10));  // so that it sleeps in earnest, mostly
    stop.request_stop();
}

}  // namespace
}  // namespace Vel::Utils
