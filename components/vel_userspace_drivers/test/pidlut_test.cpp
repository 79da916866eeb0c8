#include <gmock/gmock.h>

#include "error_text.h"
#include "fake_memory.h"
#include "vel/userspace_drivers/drivers/driver_error.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/decode_rows.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/pidlut_diag.h"

namespace Vel::Drivers::Zep {
namespace {

using testing::ElementsAre;

constexpr std::uint32_t LOWER_BANK = 0x8000 / 4;
constexpr std::uint32_t UPPER_BANK = 0xC000 / 4;
constexpr std::uint32_t SELECT_WORD = 0x204 / 4;

std::string rowError(auto call) {
    return errorText<ZepDriverError>(call);
}

PidLutEntry decoded(std::uint32_t word0, std::uint32_t word1) {
    PidLutEntry row;
    row.deserialize(std::vector<std::uint32_t>{word0, word1});
    return row;
}

std::vector<std::uint32_t> encoded(PidLutEntry row) {
    row.toWords();
    return row.getWords();
}

TEST(PidLutEntry, FieldsAndWordsMatchTheLayout) {
    const PidLutEntry row = decoded(5 << 13 | 0x100, 3 << 24 | 0x2000 | 7);
    EXPECT_EQ(row.getTSIIDX(), 5U);
    EXPECT_EQ(row.getPID(), 256U);
    EXPECT_EQ(row.getPIDIDX(), 7U);
    EXPECT_EQ(row.getFiltTabIDX(), 3U);
    EXPECT_TRUE(row.isCpuRoute());
    EXPECT_FALSE(row.isOutRoute());
    EXPECT_EQ(decoded(0, 0).getPIDIDX(), 0U) << "a table may hold what no setter accepts";

    EXPECT_THAT(encoded(PidLutEntry(5, 256, 7, 3, false, true)), ElementsAre(0x0000A100, 0x03002007));
    EXPECT_THAT(encoded(PidLutEntry(0, 0, 1, true, false)), ElementsAre(0, 0xFF001001));
    EXPECT_THAT(encoded(PidLutEntry()), ElementsAre(0x001FFFFF, 0xFF000FFF));
    EXPECT_THAT(encoded(decoded(0xFFFFFFFF, 0xFFFFFFFF)), ElementsAre(0x001FFFFF, 0xFF003FFF))
        << "spare bits are ignored when read and written 0";
}

TEST(PidLutEntry, RefusedValueIsNamedAndChangesNothing) {
    const std::string text =
        "Driver (user space) error: ZEP Driver (user space) error: PidLutEntry created/modified with "
        "invalid ";
    PidLutEntry row(5, 256, 7, 3, true, true);
    EXPECT_EQ(rowError([&] { row.setTSIIDX(256); }), text + "TSIIDX (256)");
    EXPECT_EQ(rowError([&] { row.setPID(8192); }), text + "PID (8192)");
    EXPECT_EQ(rowError([&] { row.setPIDIDX(0); }), text + "PIDIDX (0)");
    EXPECT_EQ(rowError([&] { row.setPIDIDX(4096); }), text + "PIDIDX (4096)");
    EXPECT_EQ(rowError([&] { row.setFiltTabIDX(256); }), text + "FiltTabIDX (256)");
    EXPECT_EQ(row, PidLutEntry(5, 256, 7, 3, true, true));

    EXPECT_EQ(rowError([] { PidLutEntry(256, 8192, 0, true, true); }), text + "TSIIDX (256)");
    EXPECT_EQ(rowError([] { PidLutEntry(255, 8192, 0, true, true); }), text + "PID (8192)");
    EXPECT_EQ(rowError([] { PidLutEntry(255, 8191, 0, 256, true, true); }), text + "PIDIDX (0)");
    EXPECT_EQ(rowError([] { PidLutEntry(255, 8191, 4095, 256, true, true); }), text + "FiltTabIDX (256)");
}

TEST(PidLutEntry, OrderIsByInputThenPidAndEqualityTakesEveryField) {
    const PidLutEntry row(5, 256, 7, 3, false, true);
    EXPECT_LT(row, PidLutEntry(5, 257, 1, 0, false, false));
    EXPECT_GT(PidLutEntry(6, 0, 1, 0, false, false), row);
    EXPECT_EQ(row, PidLutEntry(5, 256, 7, 3, false, true));
    for (const PidLutEntry& other :
         {PidLutEntry(5, 256, 8, 3, false, true), PidLutEntry(5, 256, 7, 4, false, true),
          PidLutEntry(5, 256, 7, 3, true, true), PidLutEntry(5, 256, 7, 3, false, false)}) {
        EXPECT_FALSE(row < other || row > other || row == other);
    }
}

class PidLutReader : public testing::Test {
protected:
    FakeMemory m_Memory{0x20000 / 4};
};

TEST_F(PidLutReader, KeepsRowsWithARouteInRowOrder) {
    const PidLutEntry toCpu(9, 1, 1, 0, false, true);
    const PidLutEntry toNowhere(9, 2, 2, 0, false, false);
    const PidLutEntry toOutput(5, 3, 3, 0, true, false);
    for (std::uint32_t index = LOWER_BANK; const PidLutEntry& row : {toCpu, toNowhere, toOutput}) {
        m_Memory.writeBlock32(index, encoded(row));
        index += PidLutEntry::WORDS;
    }
    EXPECT_THAT(readPidLut(m_Memory, 0, getPidLutSize(), false), ElementsAre(toCpu, toOutput));
    EXPECT_THAT(readPidLut(m_Memory, 1, 1, true), ElementsAre(toNowhere));
}

TEST_F(PidLutReader, ReadsTheSelectedBank) {
    const PidLutEntry lower(1, 1, 1, 0, false, true);
    const PidLutEntry upper(2, 2, 2, 0, false, true);
    m_Memory.writeBlock32(LOWER_BANK, encoded(lower));
    m_Memory.writeBlock32(UPPER_BANK, encoded(upper));
    EXPECT_THAT(readPidLut(m_Memory, 0, 1, false), ElementsAre(lower));
    EXPECT_EQ(getPidLutBase(m_Memory, 1), UPPER_BANK);
    m_Memory.words[SELECT_WORD] = 1;
    EXPECT_THAT(readPidLut(m_Memory, 0, 1, false), ElementsAre(upper));
    EXPECT_EQ(getPidLutBase(m_Memory, 7), LOWER_BANK);
}

TEST_F(PidLutReader, ControlBitIsTheLowestOfItsWord) {
    m_Memory.words[1] = 0xFFFFFFFE;
    EXPECT_EQ(getPidLutControlBit(m_Memory), 0U);
    m_Memory.words[1] = 0x00000001;
    EXPECT_EQ(getPidLutControlBit(m_Memory), 1U);
}

TEST_F(PidLutReader, RangeEndsWithTheBank) {
    EXPECT_THAT(readPidLut(m_Memory, 2047, 1, true), testing::SizeIs(1));
    EXPECT_EQ(
        errorText<CppUtil::InvalidArgumentError>([&] { readPidLut(m_Memory, 2000, 49, true); }),
        "Invalid Argument Error: Offset (2000) and count (49) exceeds the size (2048) of the ZEP PID LUT.");
}

TEST(DecodeRows, SpareBitsAndRowsLeftOutMakeNoDifference) {
    const std::vector<std::uint32_t> words{0x0000A100, 0x03002007, 0x0000A101, 0x03000007};
    const std::vector<std::uint32_t> noise{0xFFE0A100, 0x03FFE007, 0x0000BEEF, 0xFF000001};
    EXPECT_THAT(decodeRows<PidLutEntry>(words, &PidLutEntry::isRouted),
                ElementsAre(PidLutEntry(5, 256, 7, 3, false, true)));
    EXPECT_EQ(decodeRows<PidLutEntry>(words, &PidLutEntry::isRouted),
              decodeRows<PidLutEntry>(noise, &PidLutEntry::isRouted));
}

}  // namespace
}  // namespace Vel::Drivers::Zep
