#include <gmock/gmock.h>

#include <functional>
#include <sstream>

#include "error_text.h"
#include "fake_memory.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/iplut_diag.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/pidlut_diag.h"

namespace Vel::Drivers::Zep {
namespace {

using Words = std::vector<std::uint32_t>;
using Dump =
    std::function<void(IMemIf&, std::uint32_t first, std::uint32_t count, bool includeAll, std::ostream&)>;

const auto IP_LUT_BANK_0 = [](IMemIf& memory, std::uint32_t first, std::uint32_t count, bool all,
                              std::ostream& output) { dumpIpLut(memory, first, count, 0, all, output); };
const auto PID_LUT_BANK_0 = [](IMemIf& memory, std::uint32_t first, std::uint32_t count, bool all,
                               std::ostream& output) { dumpPidLut(memory, first, count, 0, all, output); };

/// A table, one row of it that is in use, and one that is not.
struct Case {
    const char* name;  ///< in messages
    Dump dump;
    std::uint32_t rows;
    std::uint32_t row;        ///< its index
    std::uint32_t wordIndex;  ///< of that row
    Words words;
    std::string line;
    Words unusedWords;
    std::string unusedLine;
};

void PrintTo(const Case& tableCase, std::ostream* output) {
    *output << tableCase.name;
}

class DumpTest : public testing::TestWithParam<Case> {
protected:
    std::string dumped(std::uint32_t first, std::uint32_t count, bool includeAll) {
        std::ostringstream output;
        GetParam().dump(m_Memory, first, count, includeAll, output);
        return output.str();
    }

    FakeMemory m_Memory{0x20000 / 4};
};

TEST_P(DumpTest, LineShowsTheRow) {
    const Case& table = GetParam();
    m_Memory.writeBlock32(table.wordIndex, table.words);
    EXPECT_EQ(dumped(table.row, 1, false), table.line);
    m_Memory.writeBlock32(table.wordIndex, table.unusedWords);
    EXPECT_EQ(dumped(table.row, 1, false), "");
    EXPECT_EQ(dumped(table.row, 1, true), table.unusedLine);
}

TEST_P(DumpTest, RangeEndsWithTheTable) {
    const Case& table = GetParam();
    const std::string last = dumped(table.rows - 1, 1, true);
    EXPECT_EQ(last.find(std::to_string(table.rows - 1)), last.find_first_not_of('0')) << last;

    std::ostringstream output;
    EXPECT_EQ(errorText<CppUtil::InvalidArgumentError>(
                  [&] { table.dump(m_Memory, table.rows - 1, 2, true, output); }),
              "Invalid Argument Error: Offset (" + std::to_string(table.rows - 1) +
                  ") and count (2) exceeds the size (" + std::to_string(table.rows) + ") of the ZEP " +
                  table.name + ".");
    EXPECT_EQ(output.str(), "");
}

INSTANTIATE_TEST_SUITE_P(
    Tables, DumpTest,
    testing::Values(
        Case{"IP LUT",
             IP_LUT_BANK_0,
             256,
             5,
             2058,
             {0xEF010203, 0x01051388},
             "005 (0x0000080a): IP:239.1.2.3, UDP_PORT:05000, TSIIDX:005, ENABLED:YES\n",
             {0xFFFFFFFF, 0x00FFFFFF},
             "005 (0x0000080a): IP:255.255.255.255, UDP_PORT:65535, TSIIDX:255, ENABLED:NO\n"},
        Case{"PHYS IN MAP",
             dumpPhysInMap,
             64,
             9,
             137,
             {5},
             "009 (0x00000089): PHYIIDX:09, TSIIDX:005\n",
             {255},
             "009 (0x00000089): PHYIIDX:09, TSIIDX:255\n"},
        Case{
            "IP OUTPUT TABLE",
            dumpIpOutTable,
            256,
            9,
            1060,
            {0x00000100, 0x5E010101, 0xEF010101, 0x00031388},
            "009 (0x00000424): TSOIDX:009, MAC:01:00:5E:01:01:01, IP:239.1.1.1, PORT:5000, RTP:YES, "
            "ENABLED:YES\n",
            {0, 0, 0, 7},
            "009 (0x00000424): TSOIDX:009, MAC:00:00:00:00:00:00, IP:0.0.0.0, PORT:07, RTP:NO, ENABLED:NO\n"},
        Case{"PHYS OUT MAP",
             dumpPhysOutMap,
             256,
             9,
             265,
             {0x00000111},
             "009 (0x00000109): TSOIDX:009, PHYOIDX:17, ENABLED:YES\n",
             {0x00000003},
             "009 (0x00000109): TSOIDX:009, PHYOIDX:03, ENABLED:NO\n"},
        Case{"PID LUT",
             PID_LUT_BANK_0,
             2048,
             5,
             8202,
             {0x0000A100, 0x03002007},
             "005 (0x0000200a): TSIIDX:005, PID:0x0100(0256), PIDIDX:0007, CPU_ROUTE:YES, OUT_ROUTE:NO, "
             "FILTIDX:003\n",
             {0x001FFFFF, 0xFF000FFF},
             "005 (0x0000200a): TSIIDX:255, PID:0x1fff(8191), PIDIDX:4095, CPU_ROUTE:NO, OUT_ROUTE:NO, "
             "FILTIDX:255\n"},
        Case{"TSI MAP",
             dumpTsiMap,
             256,
             9,
             265,
             {0x00001005},
             "009 (0x00000109): TSIIDX:009, PIDIDX:0005, ENABLED:YES\n",
             {0x00000FFF},
             "009 (0x00000109): TSIIDX:009, PIDIDX:4095, ENABLED:NO\n"},
        Case{"O-PID MAP",
             dumpOPidMap,
             4096,
             9,
             16402,
             {0x00610003, 7},
             "0009 (0x00004012): PIDIDX:0009, OPID:0x0100(0256), TSOIDX:003, NEXTPIDIDX:0007, ENABLED:YES, "
             "REMAP:YES\n",
             {0x001FFFFF, 0},
             "0009 (0x00004012): PIDIDX:0009, OPID:0x1fff(8191), TSOIDX:255, NEXTPIDIDX:0000, ENABLED:NO, "
             "REMAP:NO\n"}),
    [](const testing::TestParamInfo<Case>& tested) {
        std::string name = tested.param.name;
        std::erase_if(name, [](char c) { return c == ' ' || c == '-'; });
        return name;
    });

TEST(Dumps, PidLutRowIsShownWhenItDiffersInAnyField) {
    FakeMemory memory(0x20000 / 4);
    std::ostringstream output;
    memory.writeBlock32(12288, {0x001FFFFF, 0xFE000FFF});
    dumpPidLut(memory, 0, 1, 1, false, output);
    EXPECT_EQ(output.str(),
              "000 (0x00003000): TSIIDX:255, PID:0x1fff(8191), PIDIDX:4095, CPU_ROUTE:NO, "
              "OUT_ROUTE:NO, FILTIDX:254\n")
        << "in the bank that was asked for";
}

TEST(Dumps, RowZeroOfTheOPidMapIsReserved) {
    FakeMemory memory(0x20000 / 4);
    std::ostringstream output;
    EXPECT_EQ(errorText<CppUtil::InvalidArgumentError>([&] { dumpOPidMap(memory, 0, 1, true, output); }),
              "Invalid Argument Error: Offset value 0 is not permitted in the ZEP O-PID MAP, since this is a "
              "reserved value.");
}

TEST(Dumps, LinesBeforeAMemoryErrorStay) {
    FakeMemory memory(2048 + 2);
    std::ostringstream output;
    EXPECT_THROW(dumpIpLut(memory, 0, 2, 0, true, output), DevMemError);
    EXPECT_EQ(output.str(), "000 (0x00000800): IP:0.0.0.0, UDP_PORT:00000, TSIIDX:000, ENABLED:NO\n");
}

}  // namespace
}  // namespace Vel::Drivers::Zep
