#include "vel/ts_basics/tspacket.h"

#include <algorithm>
#include <initializer_list>
#include <utility>

#include <gtest/gtest.h>

#include "thrown_text.h"
#include "vel/ts_basics/ll_tspackets.h"
#include "vel/ts_basics/pid_filter.h"
#include "vel/ts_basics/ts_error.h"

namespace Vel::Ts {
namespace {

using Misc::PidFilter;

LowlevInTSPacket packetOf(std::initializer_list<int> bytes) {
    auto packet = LowlevInTSPacket::create<192>();
    std::fill_n(packet.getWriteDataPtr(), 192, std::uint8_t{0});
    std::transform(bytes.begin(), bytes.end(), packet.getDataPtr(),
                   [](int byte) { return static_cast<std::uint8_t>(byte); });
    return packet;
}

std::string refusal(auto call) {
    return thrownText<TsPacketError>(call).substr(17);
}

TEST(TSPacket, HeaderFieldsAreReadFromTheirBits) {
    const auto plain = packetOf({0x47, 0x1F, 0xFF, 0x1A});
    EXPECT_TRUE(plain.hasSyncByte());
    EXPECT_EQ(plain.getPid(), 8191U);
    EXPECT_EQ(plain.getContinuityCounter(), 10U);
    EXPECT_TRUE(plain.hasPayload());
    EXPECT_FALSE(plain.isScrambled() || plain.isPayloadUnitStart() || plain.hasTransportError());

    const auto flagged = packetOf({0x46, 0xC1, 0x00, 0xA0});
    EXPECT_FALSE(flagged.hasSyncByte() || flagged.hasPayload());
    EXPECT_EQ(flagged.getPid(), 256U);
    EXPECT_TRUE(flagged.hasTransportError() && flagged.isPayloadUnitStart() && flagged.isScrambled());
    EXPECT_EQ(flagged.getScramblingControl(), ScramblingControl::UserDefined2);
}

TEST(TSPacket, SettersKeepTheNeighbouringBits) {
    auto packet = packetOf({0x47, 0xFF, 0xFF, 0xF5});
    packet.setPid(0x1234);
    packet.setContinuityCounter(0x1B);
    const std::uint8_t* b = packet.getDataPtr();
    EXPECT_EQ(b[1], 0xE0 | 0x12);
    EXPECT_EQ(b[2], 0x34);
    EXPECT_EQ(b[3], 0xFB);
    EXPECT_EQ(packet.getPid(), 0x1234U);
}

TEST(TSPacket, PcrIsBaseTimes300PlusExtensionAsRead) {
    EXPECT_EQ(packetOf({0x47, 0, 0, 0x30, 7, 0x10, 0, 0, 0, 1, 0x80, 42}).getPcr(), 942U);
    EXPECT_EQ(packetOf({0x47, 0, 0, 0x20, 7, 0x10, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}).getPcr(),
              2576980377811U);
    EXPECT_EQ(packetOf({0x47, 0, 0, 0x20, 7, 0x10, 0x80, 0, 0, 0, 0x7F, 0}).getPcr(),
              (1ULL << 32) * 300 + 256);
    for (const auto& without : {packetOf({0x47, 0, 0, 0x10, 7, 0x10}), packetOf({0x47, 0, 0, 0x30, 0, 0x90}),
                                packetOf({0x47, 0, 0, 0x30, 7, 0x6F})}) {
        EXPECT_FALSE(without.hasPcr() || without.hasDiscontinuityIndicator());
        EXPECT_EQ(refusal([&] { without.getPcr(); }), "Packet contains no PCR stamp");
    }
}

TEST(TSPacket, PayloadNeverStartsAfterThePacket) {
    const auto offset = [](LowlevInTSPacket packet) { return packet.getPayloadPtr() - packet.getDataPtr(); };
    EXPECT_EQ(offset(packetOf({0x47, 0, 0, 0x10, 9})), 4);
    EXPECT_EQ(offset(packetOf({0x47, 0, 0, 0x20, 9})), 188);
    EXPECT_EQ(offset(packetOf({0x47, 0, 0, 0x30, 9})), 14);
    EXPECT_EQ(offset(packetOf({0x47, 0, 0, 0x30, 183})), 188);
    EXPECT_EQ(offset(packetOf({0x47, 0, 0, 0x30, 255})), 188);
}

TEST(LowlevInTSPacket, HoldsThePacketAtTheEndOfItsBuffer) {
    auto packet = LowlevInTSPacket::create<192>();
    EXPECT_EQ(packet.getDataPtr() - packet.getWriteDataPtr(), 4);
    EXPECT_EQ(packet.getTotalSize(), 192U);
    auto bare = LowlevInTSPacket::create<188>();
    EXPECT_EQ(bare.getDataPtr(), bare.getWriteDataPtr());
    EXPECT_EQ(refusal([] { LowlevInTSPacket::create<187>(); }),
              "Cannot reset data container of the packet. template parameter TOTAL_PACKET_SIZE is "
              "less than 188 bytes.");
}

// The state that a move leaves is the subject.
// NOLINTBEGIN(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
TEST(LowlevInTSPacket, MovedFromPacketIsDeadUntilReset) {
    auto source = packetOf({0x47, 0x01, 0x00});
    const std::uint8_t* bytes = source.getDataPtr();
    LowlevInTSPacket target(std::move(source));
    EXPECT_EQ(target.getDataPtr(), bytes);
    ASSERT_TRUE(source.isDead());
    EXPECT_EQ(source.getTotalSize(), 192U);
    EXPECT_EQ(refusal([&] { source.getPid(); }), "Cannot get const data pointer. Object is dead.");
    EXPECT_EQ(refusal([&] { source.setPid(1); }), "Cannot get data pointer. Object is dead.");
    EXPECT_EQ(refusal([&] { source.getWriteDataPtr(); }), "Cannot get write data pointer. Object is dead.");
    source.reset();
    EXPECT_FALSE(source.isDead());
    EXPECT_NE(source.getDataPtr(), bytes);
    EXPECT_EQ(refusal([] { LowlevInTSPacket().reset(); }), "Cannot reset a default created packet.");
}
// NOLINTEND(bugprone-use-after-move,clang-analyzer-cplusplus.Move)

TEST(LowlevInTSPacketDeathTest, MovingFromADeadPacketIsABug) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    LowlevInTSPacket dead;
    EXPECT_DEATH(LowlevInTSPacket{std::move(dead)}, "!moveSrc.isDead\\(\\)");
}

unsigned countPassed(const PidFilter& filter) {
    unsigned passed = 0;
    for (std::uint32_t pid = 0; pid < MAX_PID + 10; ++pid) {
        passed += filter.isPidPassed(pid) ? 1 : 0;
    }
    return passed;
}

TEST(PidFilter, ConstructionDecidesWhatPasses) {
    EXPECT_EQ(countPassed(PidFilter()), 8192U);
    EXPECT_EQ(countPassed(PidFilter(true, false)), 0U);
    const PidFilter withoutNull(false, true);
    EXPECT_EQ(countPassed(withoutNull), 8191U);
    EXPECT_FALSE(withoutNull.isPidPassed(NULL_PID));
    const PidFilter listed({0, 8191, 8192, 70000});
    EXPECT_EQ(countPassed(listed), 2U);
    EXPECT_TRUE(listed.isPidPassed(0) && listed.isPidPassed(8191));
}

TEST(PidFilter, ChangesTouchTheNamedPidsAlone) {
    PidFilter filter(true, false);
    filter.addPid({0x100, 0x101, 0xFFFFFFFF});
    EXPECT_EQ(countPassed(filter), 2U);
    filter.removePid({0x101, 8192});
    EXPECT_EQ(countPassed(filter), 1U);
    EXPECT_TRUE(filter.isPidPassed(0x100));
    EXPECT_FALSE(filter.isPidPassed(0x100 + 8192));
    filter.passAll(true);
    EXPECT_EQ(countPassed(filter), 8191U);
}

}  // namespace
}  // namespace Vel::Ts
