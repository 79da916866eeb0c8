#include "vel/ts_basics/pcr.h"

#include <algorithm>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "test_packet.h"
#include "vel/ts_basics/ll_tspackets.h"

namespace Vel::Ts {
namespace {

constexpr std::int64_t MS = 27'000;  // PCR ticks

/// A packet for a word: PID a, b or z (null packet); any of
///   d discontinuity indicator,   e transport error,   y no sync byte,   u a field that is too short for a
///   PCR;
/// and a PCR in milliseconds, negative before the wrap.
LowlevInTSPacket packetOf(const std::string& word) {
    const auto has = [&word](char flag) { return word.find(flag) != std::string::npos; };
    TestSupport::TestPacket content{
        .pid = has('z')   ? NULL_PID
               : has('b') ? 0x101U
                          : 0x100U,
        .discontinuity = has('d'),
        .transportError = has('e'),
        .adaptationLength = static_cast<std::uint8_t>(has('u') ? 6 : 183),
        .sync = has('y') ? std::uint8_t{0} : SYNC_BYTE,
    };
    if (const auto pcr = word.find_first_of("-0123456789"); pcr != std::string::npos) {
        const std::int64_t ticks = std::stoll(word.substr(pcr)) * MS;
        content.pcr = static_cast<std::uint64_t>(ticks < 0 ? ticks + PCR_WRAP.count() : ticks);
    }
    auto packet = LowlevInTSPacket::create<TS_PACKET_SIZE>();
    std::ranges::copy(content.bytes(), packet.getDataPtr());
    return packet;
}

/// What the packets of a stream mean: "." nothing, "c" a candidate, "n" a new time base; a step as its
/// packets and its milliseconds.
std::string readAll(PcrClock& clock, const std::string& stream) {
    std::string result;
    std::istringstream words(stream);
    for (std::string word; words >> word;) {
        const auto [kind, packets, time] = clock.read(packetOf(word));
        result += result.empty() ? "" : " ";
        result += kind == PcrClock::Reading::Kind::Step
                      ? std::to_string(packets) + "/" + std::to_string(time.count() / MS)
                      : std::string(1, ".c?n"[static_cast<int>(kind)]);
    }
    return result;
}

TEST(PcrClock, StepsWithinATimeBaseAndRestartsAtOthers) {
    const struct {
        const char* rule;
        const char* stream;
        const char* meaning;
    } cases[] = {
        {"steps from PCR to PCR", "a a0 a b a10 a20", ". c . . 3/10 1/10"},
        {"the wrap", "a-6 a5", "c 1/11"},
        {"an equal PCR", "a0 a0 a10 a10 a a20", "c . 2/10 . . 3/10"},
        {"one second ahead", "a0 a1000 a2001 a2002", "c 1/1000 n 1/1"},
        {"a step back", "a0 a10 a5 a15", "c 1/10 n 1/10"},
        {"announced with the PCR", "a0 a10 ad20 a30", "c 1/10 n 1/10"},
        {"announced before the PCR", "a0 a10 ad a a20 a30", "c 1/10 . . n 1/10"},
        {"announced before an equal PCR", "a0 a10 ad a10 a20 a30", "c 1/10 . . n 1/10"},
        {"announced for another PID", "a0 a10 bd a20", "c 1/10 . 2/10"},
        {"announced before the first PCR", "ad a0 a10", ". c 1/10"},
        {"announced in damaged packets", "a0 a10 ade ady a20", "c 1/10 . . 3/10"},
        {"PCRs of damaged packets", "ae5000 ay6000 z7000 au8000 a0 ae5 a10", ". . . . c . 2/10"},
        {"PCRs of another PID", "a0 a10 b0 b10 a20", "c 1/10 . . 3/10"},
        {"the first pair makes the choice", "a5000 b0 a7000 a0 b10 a10 b20", "c c c c 3/10 . 2/10"},
    };
    for (const auto& [rule, stream, meaning] : cases) {
        PcrClock clock;
        EXPECT_EQ(readAll(clock, stream), meaning) << rule;
    }
}

TEST(PcrClock, ChoosesAgainWhenThePidFallsSilent) {
    PcrClock clock;
    const auto pass = [&](std::uint64_t packets) {
        const auto other = packetOf("a5");  // equal to the last one
        for (; packets > 0; --packets) {
            EXPECT_EQ(clock.read(other).kind, PcrClock::Reading::Kind::Nothing);
        }
    };
    readAll(clock, "a0 b0");
    EXPECT_EQ(clock.getPid(), std::nullopt);
    EXPECT_EQ(readAll(clock, "a5"), "2/5");
    pass(PcrClock::MAX_STEP_PACKETS - 1);
    EXPECT_EQ(readAll(clock, "a6 a5"), "10000/1 n") << "the last packet that a step can reach";
    pass(PcrClock::MAX_STEP_PACKETS - 1);
    EXPECT_EQ(readAll(clock, "b1 b2"), ". c") << "the second one is too late";
    EXPECT_EQ(clock.getPid(), std::nullopt);
    EXPECT_EQ(readAll(clock, "a7 b3"), "c 2/1");
    EXPECT_EQ(clock.getPid(), 0x101U);
    clock.restart();
    EXPECT_EQ(readAll(clock, "b4 b5"), "c 1/1");
}

}  // namespace
}  // namespace Vel::Ts
