#include <gmock/gmock.h>

#include "error_text.h"
#include "fake_memory.h"
#include "vel/userspace_drivers/drivers/driver_error.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/iplut_diag.h"

namespace Vel::Drivers::Zep {
namespace {

using CppUtil::IpAdrContainer;
using CppUtil::ParsingError;
using testing::ElementsAre;

std::string rowError(auto call) {
    return errorText<ZepDriverError>(call);
}
const std::string PREFIX = "Driver (user space) error: ZEP Driver (user space) error: ";

IpInEntry decoded(std::uint32_t word0, std::uint32_t word1) {
    IpInEntry row;
    row.deserialize(std::vector<std::uint32_t>{word0, word1});
    return row;
}

std::vector<std::uint32_t> encoded(IpInEntry row) {
    row.toWords();
    return row.getWords();
}

TEST(IpInEntry, FieldsAndWordsMatchTheLayout) {
    const IpInEntry row = decoded(0xEF010203, 0x01051388);
    EXPECT_EQ(row.getIp().toString(), "239.1.2.3");
    EXPECT_EQ(row.getUdpPort(), 5000U);
    EXPECT_EQ(row.getTSIIDX(), 5U);
    EXPECT_TRUE(row.isEnabled());
    EXPECT_FALSE(decoded(0xEF010203, 0x00051388).isEnabled());

    EXPECT_THAT(encoded(IpInEntry(5, "239.1.2.3", 5000)), ElementsAre(0xEF010203, 0x01051388));
    EXPECT_THAT(encoded(IpInEntry(5)), ElementsAre(0, 0x01050000));
    EXPECT_THAT(encoded(IpInEntry()), ElementsAre(0xFFFFFFFF, 0x00FFFFFF));
    EXPECT_THAT(encoded(decoded(0xEF010203, 0xFF051388)), ElementsAre(0xEF010203, 0x01051388))
        << "spare bits are ignored when read and written 0";
}

TEST(IpInEntry, DeserializeNeedsOneRow) {
    IpInEntry row(5, "239.1.2.3", 5000);
    for (const std::size_t length : {0, 1, 3}) {
        EXPECT_EQ(errorText<ParsingError>([&] { row.deserialize(std::vector<std::uint32_t>(length)); }),
                  "Generic parsing Error: Incorrect length of serialized data buffer");
    }
    EXPECT_EQ(row, IpInEntry(5, "239.1.2.3", 5000));
}

TEST(IpInEntry, RefusedValueIsNamedAndChangesNothing) {
    EXPECT_EQ(rowError([] { IpInEntry(256); }), PREFIX + "IpInEntry created with invalid TSIidx (256)");
    EXPECT_EQ(rowError([] { IpInEntry(256, IpAdrContainer(), 65536); }),
              PREFIX + "IpInEntry created with invalid TSIidx (256)");
    EXPECT_EQ(rowError([] { IpInEntry(255, IpAdrContainer(), 65536); }),
              PREFIX + "IpInEntry created with invalid UDP port (65536)");
    EXPECT_EQ(rowError([] { IpInEntry(256, "1.2.3", 5000); }),
              PREFIX + "IpInEntry created with invalid IP address (1.2.3)");

    IpInEntry row = decoded(0xEF010203, 0x00051388);
    EXPECT_EQ(rowError([&] { row.setTSIIDX(256); }), PREFIX + "Attempt to set invalid TSIidx (256)");
    EXPECT_EQ(rowError([&] { row.setUdpPort(65536); }), PREFIX + "Attempt to set invalid UDP port (65536)");
    EXPECT_EQ(rowError([&] { row.setIp("1.2.3"); }), PREFIX + "Attempt to set invalid IP address (1.2.3)");
    EXPECT_THAT(encoded(row), ElementsAre(0xEF010203, 0x00051388));
}

TEST(IpInEntry, EverySetterEnablesTheRow) {
    const auto cleared = [](auto set) {
        IpInEntry row;
        set(row);
        return encoded(row);
    };
    EXPECT_THAT(cleared([](IpInEntry& row) { row.setTSIIDX(0); }), ElementsAre(0xFFFFFFFF, 0x0100FFFF));
    EXPECT_THAT(cleared([](IpInEntry& row) { row.setIp("10.0.0.1"); }), ElementsAre(0x0A000001, 0x01FFFFFF));
    EXPECT_THAT(cleared([](IpInEntry& row) { row.setUdpPort(1); }), ElementsAre(0xFFFFFFFF, 0x01FF0001));
}

TEST(IpInEntry, OrderIsByAddressThenPortAndEqualityIgnoresEnabled) {
    const IpInEntry row(5, "239.1.2.3", 5000);
    EXPECT_LT(row, IpInEntry(1, "239.1.2.3", 5001));
    EXPECT_LT(IpInEntry(9, "9.255.255.255", 9999), row) << "as unsigned numbers";
    EXPECT_GT(IpInEntry(5, "239.1.2.4", 1), row);

    EXPECT_EQ(row, decoded(0xEF010203, 0x00051388));
    const IpInEntry otherInput(6, "239.1.2.3", 5000);
    EXPECT_FALSE(row < otherInput || row > otherInput || row == otherInput);
    EXPECT_NE(row, IpInEntry(5, "239.1.2.3", 5001));
    EXPECT_NE(row, IpInEntry(5, "239.1.2.4", 5000));
}

class IpLutReader : public testing::Test {
protected:
    FakeMemory m_Memory{4096};
};

TEST_F(IpLutReader, KeepsEnabledRowsInRowOrder) {
    m_Memory.writeBlock32(2048, {0xEF010204, 0x01011388, 0xEF010203, 0x00021388, 0xEF010202, 0xFF031388});
    EXPECT_THAT(readIpLut(m_Memory, 0, getIpLutSize(), false),
                ElementsAre(IpInEntry(1, "239.1.2.4", 5000), IpInEntry(3, "239.1.2.2", 5000)));
    EXPECT_THAT(readIpLut(m_Memory, 1, 1, true), ElementsAre(IpInEntry(2, "239.1.2.3", 5000)));
}

TEST_F(IpLutReader, RangeEndsWithTheTable) {
    m_Memory.writeBlock32(2048 + 2 * 255, {0xEF010203, 0x01051388});
    EXPECT_THAT(readIpLut(m_Memory, 255, 1, false), ElementsAre(IpInEntry(5, "239.1.2.3", 5000)));
    EXPECT_THAT(readIpLut(m_Memory, 256, 0, true), testing::IsEmpty());

    const auto rangeError = [&](std::uint32_t offset, std::uint32_t count) {
        return errorText<CppUtil::InvalidArgumentError>([&] { readIpLut(m_Memory, offset, count, true); });
    };
    EXPECT_EQ(rangeError(255, 2),
              "Invalid Argument Error: Offset (255) and count (2) exceeds the size (256) of the ZEP IP LUT.");
    EXPECT_EQ(rangeError(4294967295, 2),
              "Invalid Argument Error: Offset (4294967295) and count (2) exceeds the "
              "size (256) of the ZEP IP LUT.");
}

TEST_F(IpLutReader, BaseAndControlBitComeFromTheDevice) {
    EXPECT_EQ(getIpLutControlBit(m_Memory), 0U);
    m_Memory.words[0] = 0xFFFFFFFF;
    EXPECT_EQ(getIpLutControlBit(m_Memory), 1U);
    m_Memory.words[0] = 0xFFFFFFFE;
    EXPECT_EQ(getIpLutControlBit(m_Memory), 0U);
    EXPECT_EQ(getIpLutBase(m_Memory, 0), 2048U);
    EXPECT_EQ(getIpLutBase(m_Memory, 7), 2048U);

    FakeMemory absent(0);
    EXPECT_THROW(getIpLutBase(absent, 0), DevMemError);
    EXPECT_THROW(readIpLut(absent, 0, 1, true), DevMemError);
}

}  // namespace
}  // namespace Vel::Drivers::Zep
