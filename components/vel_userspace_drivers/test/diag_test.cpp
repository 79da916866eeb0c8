#include <sstream>

#include <gmock/gmock.h>

#include "fake_memory.h"
#include "thrown_text.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/iplut_diag.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/pidlut_diag.h"

namespace Vel::Drivers::Zep {
namespace {

using CppUtil::InvalidArgumentError;
using testing::ElementsAre;

TEST(Diag, ReadersKeepRowsInUseInRowOrder) {
    FakeMemory memory;  // router and tsio device in one
    memory.writeBlock32(2048, {0xEF010204, 0x01011388, 0xEF010203, 0x00021388, 0xEF010202, 0xFF031388});
    EXPECT_THAT(readIpLut(memory, 0, getIpLutSize(), false),
                ElementsAre(IpInEntry(1, "239.1.2.4", 5000), IpInEntry(3, "239.1.2.2", 5000)));
    EXPECT_THAT(readIpLut(memory, 1, 1, true), ElementsAre(IpInEntry(2, "239.1.2.3", 5000)));
    EXPECT_THAT(readIpLut(memory, 256, 0, true), testing::IsEmpty());
    // A row to the CPU, one without route, one to an output; the upper bank holds another.
    memory.writeBlock32(8192, {0x0000A100, 0x03002007, 0x0000A101, 0x03000007, 0x0000A102, 0x03001007});
    memory.writeBlock32(12288, {0x00004002, 0x00002002});
    const PidLutEntry toCpu(5, 256, 7, 3, false, true);
    EXPECT_THAT(readPidLut(memory, 0, getPidLutSize(), false),
                ElementsAre(toCpu, PidLutEntry(5, 258, 7, 3, true, false)));
    EXPECT_THAT(readPidLut(memory, 1, 1, true), ElementsAre(PidLutEntry(5, 257, 7, 3, false, false)));
    EXPECT_THAT(readPidLut(memory, 2047, 1, true), testing::SizeIs(1));
    EXPECT_EQ(getPidLutBase(memory, 1), 12288U);
    memory.words[1] = memory.words[129] = 0xFFFFFFFF;
    EXPECT_TRUE(getPidLutControlBit(memory) == 1 && getIpLutControlBit(memory) == 0);
    memory.words[0] = 1;
    EXPECT_EQ(getIpLutControlBit(memory), 1U);
    EXPECT_THAT(readPidLut(memory, 0, 1, false), ElementsAre(PidLutEntry(2, 2, 2, 0, false, true)));
    EXPECT_EQ(getPidLutBase(memory, 7), 8192U);
}

TEST(Diag, RangeIsRefusedBeforeAnythingIsRead) {
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
