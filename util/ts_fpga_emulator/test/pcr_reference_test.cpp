#include "support.h"
#include "thrown_text.h"
#include "tspacket_streaming/pcr_rate_adapter.h"
#include "vel/cpp_utils/error.h"

namespace Vel::Utils {
namespace {

/// What the adapter has to do, in the simplest way.
struct Reference {
    struct Pcr {
        std::uint32_t packet;
        std::int64_t ticks;
    };

    void takePcr(std::int64_t ticks) {
        pcrs.push_back({packets, ticks});
        const std::size_t intervals = std::min<std::size_t>(pcrs.size() - 1, 10);
        std::uint32_t sumNs = 0;
        for (std::size_t i = pcrs.size() - intervals; i < pcrs.size(); ++i) {
            const std::int64_t difference = pcrs[i].ticks - pcrs[i - 1].ticks;
            const std::int64_t passed = difference < 0 ? difference + 2'576'980'377'600 : difference;
            sumNs += static_cast<std::uint32_t>(passed * 1000 / 27 / (pcrs[i].packet - pcrs[i - 1].packet));
        }
        delayNs = intervals == 0 ? 0 : sumNs / static_cast<std::uint32_t>(intervals);
    }

    std::int32_t buffer(std::uint32_t pid, std::optional<std::uint64_t> pcr, bool last, std::uint64_t nowNs) {
        ++packets;
        const bool isTaken = pcr && (pcrs.empty() || pid == pcrPid);
        if (isTaken) {
            pcrPid = pid;
            takePcr(static_cast<std::int64_t>(*pcr));
        }
        const std::int32_t before = held++;
        if (last) {
            return before + 1;
        }
        if (isPlaying) {
            return before > 9999 ? 5000 : nowNs - releasedNs >= delayNs ? 1 : 0;
        }
        isPlaying = before > 9999 && !(isTaken && pcrs.size() == 2);
        return isPlaying ? before - 5000 : 0;
    }

    /// Returns how long the adapter sleeps before this release.
    std::uint64_t release(std::uint64_t nowNs) {
        std::uint64_t sleepNs = 0;
        if (pcrs.size() >= 2) {
            batchStartNs = batch == 0 ? nowNs : batchStartNs;
            batch = (batch + 1) % 100;
            if (const std::uint64_t endNs = batchStartNs + 100 * delayNs; batch == 0 && endNs > nowNs) {
                sleepNs = endNs - nowNs;
            }
        }
        --held;
        releasedNs = nowNs + sleepNs;
        return sleepNs;
    }

    std::uint32_t packets = 0;
    std::int32_t held = 0;
    std::uint32_t pcrPid = 0;
    std::vector<Pcr> pcrs;
    std::uint64_t delayNs = 0;
    bool isPlaying = false;
    std::uint64_t releasedNs = 0;
    std::uint64_t batchStartNs = 0;
    std::uint32_t batch = 0;
};

TEST(PCRRateAdapter, AnswersHoldsAndSleepsLikeTheReference) {
    Random random;
    const std::uint32_t streams = testNumber("ZEPTFEM_TEST_STATES", 2000) / 4;
    for (std::uint32_t stream = 0; stream < streams; ++stream) {
        SCOPED_TRACE(random.origin() + ", stream " + std::to_string(stream));
        std::uint64_t nowNs = 1'000'000'000;
        const bool isLooped = random.oneIn(4);
        PCRRateAdapter adapter({}, isLooped, std::make_unique<FakeClock>(nowNs));
        Reference reference;
        // Time passes, mostly to a point at which a nanosecond makes the difference.
        const auto passTime = [&](std::uint64_t borderNs) {
            nowNs = std::max(nowNs + 1, random.oneIn(4) ? 0 : borderNs + random.below(3)) - 1;
        };
        const bool isLong = random.oneIn(8);
        const std::uint32_t length = isLong ? 9'995 + random.below(15'000) : 1 + random.below(500);
        const bool timePasses = random.oneIn(2);
        const std::uint32_t pids = 1 + random.below(3);
        const std::uint32_t pcrGap = 1 + random.below(random.oneIn(2) ? 3 : 300);
        const std::uint64_t ticksPerPacket = random.bits() >> (40 + random.below(24));
        std::uint32_t pcrsLeft = random.oneIn(4) ? random.below(3) : length;
        std::uint32_t nextPcr = 1 + random.below(pcrGap);
        std::uint64_t pcr = random.oneIn(2) ? random.bits() : Ts::PCR_WRAP.count() - random.below(1000);
        for (std::uint32_t number = 1; number <= length; ++number) {
            pcr += random.oneIn(200) ? random.bits() : ticksPerPacket;
            std::optional<std::uint64_t> packetPcr;
            if (number >= nextPcr && pcrsLeft > 0) {
                packetPcr = pcr % Ts::PCR_WRAP.count();
                --pcrsLeft;
                // The second one may also arrive just as the buffer becomes full.
                const bool isLate = isLong && reference.pcrs.empty() && random.oneIn(2);
                nextPcr = isLate ? 10'000 + random.below(3) : number + 1 + random.below(pcrGap);
            }
            if (timePasses) {
                passTime(reference.releasedNs + reference.delayNs);
            }
            const TestPacket packet{
                .pid = 0x100 + random.below(pids), .pcr = packetPcr, .transportError = random.oneIn(20)};
            const bool last = number == length;
            const std::int32_t answer = reference.buffer(
                packet.pid, isLooped && packet.transportError ? std::nullopt : packetPcr, last, nowNs);
            ASSERT_EQ(adapter.bufferPacket(makePacket(packet), last), answer) << "packet " << number;
            ASSERT_EQ(static_cast<std::uint64_t>(adapter.getPacketDelay().count()), reference.delayNs)
                << "packet " << number;
            for (std::int32_t release = 0; release < answer; ++release) {
                if (reference.batch == 99) {
                    passTime(reference.batchStartNs + 100 * reference.delayNs);
                }
                const std::uint64_t beforeNs = nowNs;
                const std::uint64_t sleepNs = reference.release(nowNs);
                adapter.delayPacket();
                ASSERT_EQ(nowNs - beforeNs, sleepNs) << "packet " << number << ", release " << release;
            }
            ASSERT_EQ(adapter.getBufferedPackets(), static_cast<std::uint32_t>(reference.held));
        }
        EXPECT_TRUE(adapter.isBufferEmpty());
    }
}

TEST(PCRRateAdapter, RefusesReleasesBeforeThePlayOutAndPacketsAfterTheLastOne) {
    PCRRateAdapter adapter;
    const auto refusal = [](auto call) { return thrownText<CppUtil::NotImplementedError>(call); };
    const auto release = [&] { adapter.delayPacket(); };
    const auto buffer = [&](bool last) { return adapter.bufferPacket(makePacket({.pcr = 0}), last); };
    EXPECT_EQ(refusal(release),
              "Not Implemented Error: Cannot do packet delay in PCRRateAdapterState_LockPCR");
    buffer(false);
    buffer(false);
    EXPECT_EQ(refusal(release),
              "Not Implemented Error: Cannot do packet delay in PCRRateAdapterState_FillBuffer");
    EXPECT_EQ(buffer(true), 3);
    EXPECT_EQ(refusal([&] { buffer(false); }),
              "Not Implemented Error: Cannot buffer packets in PCRRateAdapterState_EmptyBuffer");
    EXPECT_EQ(adapter.getMaxBufferedPackets(), 10000U);
}

TEST(MonotonicClock, SleepsTheWholeTime) {
    const MonotonicClock clock;
    constexpr std::chrono::milliseconds TIME(250);
    const auto start = clock.now();
    clock.sleepFor(TIME, {});
    EXPECT_GE(clock.now() - start, TIME);
    clock.sleepUntil(start + 2 * TIME);
    EXPECT_GE(clock.now() - start, 2 * TIME);
}

}  // namespace
}  // namespace Vel::Utils
