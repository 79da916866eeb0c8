#include "vel/userspace_drivers/interfaces/lindevmemaccessor.h"

#include <gmock/gmock.h>

#include <array>
#include <limits>

#include "error_text.h"
#include "fake_memory.h"

namespace Vel::Drivers {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::size_t WORDS = 4096;
const std::string BOUNDARY = " crosses memory segment boundary";

std::string memError(auto call) {
    return errorText<DevMemError>(call);
}

TEST(LinDevMemAccessor, EveryWidthAddressesTheSameBytes) {
    FakeMemory memory(WORDS);
    memory.write32(1, 0x44332211);
    EXPECT_EQ(memory.read16(2), 0x2211);
    EXPECT_EQ(memory.read16(3), 0x4433);
    EXPECT_EQ(memory.read8(6), 0x33);
    memory.write16(3, 0xBEEF);
    memory.write8(4, 0xAA);
    EXPECT_EQ(memory.read32(1), 0xBEEF22AAU);

    memory.writeBlock32(8, {1, 2});
    memory.writeBlock16(20, {3, 4});
    memory.writeBlock8(42, {5, 6});
    EXPECT_THAT(memory.readBlock32(8, 2), ElementsAre(1, 2));
    EXPECT_THAT(memory.readBlock16(19, 3), ElementsAre(0, 3, 0x0605));
    EXPECT_THAT(memory.readBlock8(40, 4), ElementsAre(3, 0, 5, 6));

    std::array<std::uint32_t, 3> buffer{};
    memory.readBlock32Into(8, buffer);
    EXPECT_THAT(buffer, ElementsAre(1, 2, 0x06050003));
}

TEST(LinDevMemAccessor, AccessEndsAtTheSegmentsEnd) {
    FakeMemory memory(WORDS);
    EXPECT_NO_THROW(memory.read32(4095));
    EXPECT_NO_THROW(memory.readBlock32(4094, 2));
    EXPECT_THAT(memory.readBlock32(4096, 0), IsEmpty());

    const std::string text = "Device memory Error: Cannot access device memory. Byte offset ";
    EXPECT_EQ(memError([&] { memory.read32(4096); }), text + "16384 and byte size 4" + BOUNDARY);
    EXPECT_EQ(memError([&] { memory.readBlock32(4095, 2); }), text + "16380 and byte size 8" + BOUNDARY);
    EXPECT_EQ(memError([&] { memory.readBlock32(4097, 0); }), text + "16388 and byte size 0" + BOUNDARY);
    EXPECT_EQ(memError([&] { memory.write16(8192, 1); }), text + "16384 and byte size 2" + BOUNDARY);
    EXPECT_EQ(memError([&] { memory.write8(16384, 1); }), text + "16384 and byte size 1" + BOUNDARY);
}

TEST(LinDevMemAccessor, RangePast32BitsIsOutOfBounds) {
    FakeMemory memory(WORDS);
    constexpr std::uint32_t WRAPS_TO_ZERO = 0x40000000;
    constexpr auto LARGEST = std::numeric_limits<std::uint32_t>::max();
    EXPECT_THAT(memError([&] { memory.read32(WRAPS_TO_ZERO); }), testing::HasSubstr("offset 4294967296 and"));
    EXPECT_THAT(memError([&] { memory.write32(WRAPS_TO_ZERO, 1); }), testing::EndsWith(BOUNDARY));
    EXPECT_THAT(memError([&] { memory.readBlock32(1, LARGEST); }),
                testing::HasSubstr("size 17179869180 cross"));
    EXPECT_THAT(memError([&] { memory.readBlock16(LARGEST, LARGEST); }), testing::EndsWith(BOUNDARY));
    EXPECT_EQ(memory.words[0], 0U);
}

TEST(LinDevMemAccessor, FailedBlockWriteChangesNothing) {
    FakeMemory memory(4);
    EXPECT_THROW(memory.writeBlock32(2, {7, 7, 7}), DevMemError);
    EXPECT_THROW(memory.writeBlock16(7, {7, 7}), DevMemError);
    EXPECT_THROW(memory.writeBlock8(15, {7, 7}), DevMemError);
    EXPECT_THAT(memory.words, ElementsAre(0, 0, 0, 0));
}

TEST(LinDevMemAccessor, OffsetMustSuitTheAccessType) {
    const FakeMemory memory(WORDS);
    const auto check = [&](std::uint64_t offset, MemAccessType type) {
        return memError([&] { memory.checkAccess(16384, offset, 4, type); });
    };
    const std::string text = "Device memory Error: Cannot access device memory. Byte offset ";
    EXPECT_EQ(check(6, MemAccessType::R32),
              text + "6, byte size 4 and memory access type \"R32\" causes invalid allignment.");
    EXPECT_EQ(check(5, MemAccessType::W16),
              text + "5, byte size 4 and memory access type \"W16\" causes invalid allignment.");
    EXPECT_EQ(check(4, static_cast<MemAccessType>(6)),
              text + "4, byte size 4 and memory access type \"undefined\" causes invalid allignment.");
    EXPECT_EQ(check(6, MemAccessType::R16), "no error");
    EXPECT_EQ(check(8, MemAccessType::W32), "no error");
    EXPECT_EQ(check(5, MemAccessType::R8), "no error");
    EXPECT_THAT(check(16382, MemAccessType::R32), testing::EndsWith(BOUNDARY)) << "the bounds come first";
}

}  // namespace
}  // namespace Vel::Drivers
