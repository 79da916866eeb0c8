#include <functional>
#include <sstream>

#include <gmock/gmock.h>

#include "fake_memory.h"
#include "thrown_text.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/iplut_diag.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/pidlut_diag.h"

namespace Vel::Drivers::Zep {
namespace {

using testing::ElementsAre;
using Words = std::vector<std::uint32_t>;
using CppUtil::InvalidArgumentError;

/// Router and tsio device in one.
class Diag : public testing::Test {
protected:
    FakeMemory m_Memory{0x20000 / 4};
};

TEST_F(Diag, ReadersKeepRowsInUseInRowOrder) {
    m_Memory.writeBlock32(2048, {0xEF010204, 0x01011388, 0xEF010203, 0x00021388, 0xEF010202, 0xFF031388});
    EXPECT_THAT(readIpLut(m_Memory, 0, getIpLutSize(), false),
                ElementsAre(IpInEntry(1, "239.1.2.4", 5000), IpInEntry(3, "239.1.2.2", 5000)));
    EXPECT_THAT(readIpLut(m_Memory, 1, 1, true), ElementsAre(IpInEntry(2, "239.1.2.3", 5000)));
    EXPECT_THAT(readIpLut(m_Memory, 256, 0, true), testing::IsEmpty());
    // A row to the CPU, one without route, one to an output; the upper bank holds another.
    m_Memory.writeBlock32(8192, {0x0000A100, 0x03002007, 0x0000A101, 0x03000007, 0x0000A102, 0x03001007});
    m_Memory.writeBlock32(12288, {0x00004002, 0x00002002});
    const PidLutEntry toCpu(5, 256, 7, 3, false, true);
    EXPECT_THAT(readPidLut(m_Memory, 0, getPidLutSize(), false),
                ElementsAre(toCpu, PidLutEntry(5, 258, 7, 3, true, false)));
    EXPECT_THAT(readPidLut(m_Memory, 1, 1, true), ElementsAre(PidLutEntry(5, 257, 7, 3, false, false)));
    EXPECT_THAT(readPidLut(m_Memory, 2047, 1, true), testing::SizeIs(1));
    EXPECT_EQ(getPidLutBase(m_Memory, 1), 12288U);
    m_Memory.words[129] = 0xFFFFFFFF;
    EXPECT_THAT(readPidLut(m_Memory, 0, 1, false), ElementsAre(PidLutEntry(2, 2, 2, 0, false, true)));
    EXPECT_EQ(getPidLutBase(m_Memory, 7), 8192U);
}

TEST_F(Diag, ControlBitsAndBaseComeFromTheDevice) {
    m_Memory.words[0] = 0xFFFFFFFE;
    m_Memory.words[1] = 1;
    EXPECT_EQ(getIpLutControlBit(m_Memory), 0U);
    EXPECT_EQ(getPidLutControlBit(m_Memory), 1U);
    m_Memory.words[0] = 1;
    m_Memory.words[1] = 0xFFFFFFFE;
    EXPECT_EQ(getIpLutControlBit(m_Memory), 1U);
    EXPECT_EQ(getPidLutControlBit(m_Memory), 0U);
    EXPECT_EQ(getIpLutBase(m_Memory, 7), 2048U);
    FakeMemory absent(0);
    EXPECT_THROW(getIpLutBase(absent, 0), DevMemError);
    EXPECT_THROW(readPidLut(absent, 0, 1, true), DevMemError);
}

using Dump =
    std::function<void(IMemIf&, std::uint32_t first, std::uint32_t count, bool includeAll, std::ostream&)>;

class DumpTest : public Diag {
protected:
    /// @param words of a row in use, at `wordIndex` of the device
    /// @param line what is written of it
    /// @param unused words of a row that is not in use
    void expectDump(const std::string& name, const Dump& dump, std::uint32_t rows, std::uint32_t row,
                    std::uint32_t wordIndex, const Words& words, const std::string& line,
                    const Words& unused) {
        SCOPED_TRACE(name);
        const auto dumped = [&](std::uint32_t first, std::uint32_t count, bool includeAll) {
            std::ostringstream output;
            dump(m_Memory, first, count, includeAll, output);
            return output.str();
        };
        m_Memory.writeBlock32(wordIndex, words);
        EXPECT_EQ(dumped(row, 1, false), line);
        m_Memory.writeBlock32(wordIndex, unused);
        EXPECT_EQ(dumped(row, 1, false), "");
        EXPECT_EQ(dumped(row, 1, true).substr(0, 16), line.substr(0, 16));
        EXPECT_EQ(std::ranges::count(dumped(rows - 2, 2, true), '\n'), 2);
        EXPECT_EQ(thrownText<InvalidArgumentError>([&] { dumped(rows - 1, 2, true); }),
                  "Invalid Argument Error: Offset (" + std::to_string(rows - 1) +
                      ") and count (2) exceeds the size (" + std::to_string(rows) + ") of the ZEP " + name +
                      ".");
    }
};

TEST_F(DumpTest, OneLinePerRowUpToTheEndOfTheTable) {
    using namespace std::placeholders;
    expectDump("IP LUT", std::bind(dumpIpLut, _1, _2, _3, 0, _4, _5), 256, 5, 2058, {0xEF010203, 0x01051388},
               "005 (0x0000080a): IP:239.1.2.3, UDP_PORT:05000, TSIIDX:005, ENABLED:YES\n",
               {0xEF010203, 0x00051388});
    expectDump("PHYS IN MAP", dumpPhysInMap, 64, 9, 137, {5}, "009 (0x00000089): PHYIIDX:09, TSIIDX:005\n",
               {255});
    expectDump("IP OUTPUT TABLE", dumpIpOutTable, 256, 9, 1060, {0x0100, 0x5E010101, 0xEF010101, 0x00031388},
               "009 (0x00000424): TSOIDX:009, MAC:01:00:5E:01:01:01, IP:239.1.1.1, PORT:5000, RTP:YES, "
               "ENABLED:YES\n",
               {0x0100, 0x5E010101, 0xEF010101, 0x00011388});
    expectDump(
        "IP OUTPUT TABLE", dumpIpOutTable, 256, 9, 1060, {0, 0, 0, 0x00020007},
        "009 (0x00000424): TSOIDX:009, MAC:00:00:00:00:00:00, IP:0.0.0.0, PORT:07, RTP:NO, ENABLED:YES\n",
        {0, 0, 0, 7});
    expectDump("PHYS OUT MAP", dumpPhysOutMap, 256, 9, 265, {0x0111},
               "009 (0x00000109): TSOIDX:009, PHYOIDX:17, ENABLED:YES\n", {0x0011});
    expectDump("PID LUT", std::bind(dumpPidLut, _1, _2, _3, 1, _4, _5), 2048, 5, 12298,
               {0x001FFFFF, 0xFE000FFF},
               "005 (0x0000300a): TSIIDX:255, PID:0x1fff(8191), PIDIDX:4095, CPU_ROUTE:NO, OUT_ROUTE:NO, "
               "FILTIDX:254\n",
               {0x001FFFFF, 0xFF000FFF});
    expectDump("TSI MAP", dumpTsiMap, 256, 9, 265, {0x1005},
               "009 (0x00000109): TSIIDX:009, PIDIDX:0005, ENABLED:YES\n", {0x0FFF});
    expectDump("O-PID MAP", dumpOPidMap, 4096, 9, 16402, {0x00610003, 7},
               "0009 (0x00004012): PIDIDX:0009, OPID:0x0100(0256), TSOIDX:003, NEXTPIDIDX:0007, ENABLED:YES, "
               "REMAP:YES\n",
               {0x00210003, 7});
}

TEST_F(Diag, RangeIsRefusedBeforeAnythingIsRead) {
    FakeMemory absent(0);
    std::ostringstream output;
    const auto refusal = [](auto call) { return thrownText<InvalidArgumentError>(call); };
    EXPECT_EQ(refusal([&] { readPidLut(absent, 4294967295, 2, true); }),
              "Invalid Argument Error: Offset (4294967295) and count (2) exceeds the size (2048) of the ZEP "
              "PID LUT.");
    EXPECT_THROW(readIpLut(absent, 256, 1, true), InvalidArgumentError);
    EXPECT_THROW(dumpIpLut(absent, 256, 1, 0, true, output), InvalidArgumentError);
    EXPECT_THROW(dumpPidLut(absent, 2048, 1, 0, true, output), InvalidArgumentError);
    EXPECT_EQ(refusal([&] { dumpOPidMap(absent, 0, 1, true, output); }),
              "Invalid Argument Error: Offset value 0 is not permitted in the ZEP O-PID MAP, since this is a "
              "reserved value.");
    FakeMemory cut(2048 + 2);
    EXPECT_THROW(dumpIpLut(cut, 0, 2, 0, true, output), DevMemError);
    EXPECT_THAT(output.str(), testing::StartsWith("000 (0x00000800): "))
        << "lines before a memory error stay";
}

}  // namespace
}  // namespace Vel::Drivers::Zep
