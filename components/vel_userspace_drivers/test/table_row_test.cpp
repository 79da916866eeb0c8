#include <gmock/gmock.h>

#include "error_text.h"
#include "vel/userspace_drivers/drivers/driver_error.h"
#include "vel/userspace_drivers/drivers/zep/ts/ipoutentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/physinentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/physoutentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/pidmapentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/tsimapentry.h"

namespace Vel::Drivers::Zep {
namespace {

using CppUtil::IpAdrContainer;
using CppUtil::MacAdrContainer;
using Words = std::vector<std::uint32_t>;

std::string rowError(auto call) {
    const std::string text = errorText<ZepDriverError>(call);
    const std::string prefix = "Driver (user space) error: ZEP Driver (user space) error: ";
    return text.starts_with(prefix) ? text.substr(prefix.size()) : text;
}

template <class Row>
Words encoded(Row row) {
    row.toWords();
    return row.getWords();
}

template <class Row>
Row decoded(const Words& words) {
    Row row;
    row.deserialize(words);
    return row;
}

const MacAdrContainer MAC(std::string("00:11:22:33:44:55"));
const IpAdrContainer IP(std::string("239.1.1.1"));

/// For each row type: words of a cleared row and of an example, and the words that are left of all ones once
/// they have been read and written again, which shows the bits in use.
TEST(TableRows, WordsMatchTheLayout) {
    EXPECT_EQ(encoded(IpOutEntry()), Words({0, 0, 0, 0x0000FFFF}));
    EXPECT_EQ(encoded(IpOutEntry(9, MAC, IP, 5000, true)),
              Words({0x00000011, 0x22334455, 0xEF010101, 0x00031388}));
    EXPECT_EQ(encoded(decoded<IpOutEntry>(Words(4, 0xFFFFFFFF))),
              Words({0xFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0x3FFFF}));

    EXPECT_EQ(encoded(PhysInEntry()), Words({255}));
    EXPECT_EQ(encoded(PhysInEntry(9, 3)), Words({3}));
    EXPECT_EQ(encoded(decoded<PhysInEntry>({0xFFFFFFFF})), Words({0xFFFFFFFF}));

    PidMapEntry linked(9, 3, 0x100);
    linked.setNextPIDIDX(7);
    EXPECT_EQ(encoded(PidMapEntry()), Words({0x001FFFFF, 0}));
    EXPECT_EQ(encoded(PidMapEntry(9, 3)), Words({0x00400003, 0}));
    EXPECT_EQ(encoded(linked), Words({0x00610003, 7}));
    EXPECT_EQ(encoded(decoded<PidMapEntry>(Words(2, 0xFFFFFFFF))), Words({0x007FFFFF, 0xFFF}));

    EXPECT_EQ(encoded(TsiMapEntry()), Words({0x00000FFF}));
    EXPECT_EQ(encoded(TsiMapEntry(9, 5)), Words({0x00001005}));
    EXPECT_EQ(encoded(decoded<TsiMapEntry>({0xFFFFFFFF})), Words({0x00001FFF}));

    EXPECT_EQ(encoded(PhysOutEntry()), Words({0x0000001F}));
    EXPECT_EQ(encoded(PhysOutEntry(9, 17)), Words({0x00000111}));
    EXPECT_EQ(encoded(decoded<PhysOutEntry>({0xFFFFFFFF})), Words({0x0000011F}));
}

TEST(IpOutEntry, DecodesItsFields) {
    const auto row = decoded<IpOutEntry>({0x00000011, 0x22334455, 0xEF010101, 0x00011388});
    EXPECT_EQ(row.getMac().toString(), "00:11:22:33:44:55");
    EXPECT_EQ(row.getIp().toString(), "239.1.1.1");
    EXPECT_EQ(row.getUdpPort(), 5000U);
    EXPECT_TRUE(row.isRtp());
    EXPECT_FALSE(row.isEnabled());
    EXPECT_EQ(row.getTSOIDX(), 255U);
}

TEST(IpOutEntry, SettersEnableExceptTheIndex) {
    const auto enabledBy = [](auto set) {
        IpOutEntry row;
        set(row);
        return row.isEnabled();
    };
    EXPECT_FALSE(enabledBy([](IpOutEntry& row) { row.setTSOIDX(3); }));
    EXPECT_TRUE(enabledBy([](IpOutEntry& row) { row.setMac(MAC); }));
    EXPECT_TRUE(enabledBy([](IpOutEntry& row) { row.setIp(IP); }));
    EXPECT_TRUE(enabledBy([](IpOutEntry& row) { row.setUdpPort(1); }));
    EXPECT_TRUE(enabledBy([](IpOutEntry& row) { row.setRtp(false); }));
    EXPECT_FALSE(IpOutEntry(3).isEnabled());

    IpOutEntry row(9, MAC, IP, 5000, true);
    row.clear();
    EXPECT_EQ(encoded(row), Words({0x00000011, 0x22334455, 0, 0x0000FFFF})) << "the MAC address stays";
}

TEST(IpOutEntry, OrderAndEquality) {
    const IpOutEntry row(9, MAC, IP, 5000, true);
    EXPECT_EQ(row, IpOutEntry(9, MacAdrContainer(), IP, 5000, false));
    EXPECT_FALSE(row == IpOutEntry(8, MAC, IP, 5000, true));
    EXPECT_LT(row, IpOutEntry(1, MAC, IP, 5001, true));
    EXPECT_GT(IpOutEntry(1, MAC, IpAdrContainer(0xEF010102), 1, true), row);
}

TEST(TableRows, RefusedValueOfAConstructorIsNamed) {
    EXPECT_EQ(rowError([] { IpOutEntry(256); }), "TSOIdx out of range");
    EXPECT_EQ(rowError([] { IpOutEntry(256, MAC, IP, 65536, true); }), "TSOIdx out of range");
    EXPECT_EQ(rowError([] { IpOutEntry(255, MAC, IP, 65536, true); }), "UDPPort out of range");

    EXPECT_EQ(rowError([] { PhysInEntry(64); }), "Cannot create PhysInEntry - invalid PHYIidx (64)");
    EXPECT_EQ(rowError([] { PhysInEntry(64, 256); }), "Cannot create PhysInEntry - invalid TSIidx (256)");
    EXPECT_EQ(rowError([] { PhysInEntry(63, 255); }), "no error");

    EXPECT_EQ(rowError([] { PidMapEntry(0); }), "Cannot create PidMapEntry - invalid PIDidx (0)");
    EXPECT_EQ(rowError([] { PidMapEntry(4096, 256); }), "Cannot create PidMapEntry - invalid PIDidx (4096)");
    EXPECT_EQ(rowError([] { PidMapEntry(4095, 256, 8192); }),
              "Cannot create PidMapEntry - invalid TSOidx (256)");
    EXPECT_EQ(rowError([] { PidMapEntry(1, 255, 8192); }),
              "Cannot create PidMapEntry - invalid PID value (8192)");
    EXPECT_EQ(rowError([] { PidMapEntry(1, 255, 8191); }), "no error");

    EXPECT_EQ(rowError([] { TsiMapEntry(256); }), "Cannot create TsiMapEntry - invalid TSIidx (256)");
    EXPECT_EQ(rowError([] { TsiMapEntry(255, 0); }), "Cannot create TsiMapEntry - invalid PIDidx (0)");
    EXPECT_EQ(rowError([] { TsiMapEntry(255, 4096); }), "Cannot create TsiMapEntry - invalid PIDidx (4096)");

    EXPECT_EQ(rowError([] { PhysOutEntry(256); }), "Cannot create PhysOutEntry - invalid TSOidx (256)");
    EXPECT_EQ(rowError([] { PhysOutEntry(255, 24); }), "Cannot create PhysOutEntry - invalid PHYOidx (24)");
    EXPECT_EQ(rowError([] { PhysOutEntry(255, 23); }), "no error");
}

TEST(TableRows, RefusedValueOfASetterIsNamedAndChangesNothing) {
    PhysInEntry physIn(63, 3);
    EXPECT_EQ(rowError([&] { physIn.setTSIIDX(256); }), "Cannot set TSIidx - invalid TSIidx (256)");
    EXPECT_EQ(rowError([&] { physIn.setPHYIIDX(64); }), "Cannot set PHYIidx invalid PHYIidx (64)");
    EXPECT_EQ(physIn.getPHYIIDX(), 63U);
    EXPECT_EQ(encoded(physIn), Words({3}));

    PidMapEntry pidMap(9, 3);
    EXPECT_EQ(rowError([&] { pidMap.setTSOIDX(256); }), "Cannot set TSOidx - invalid TSOidx (256)");
    EXPECT_EQ(rowError([&] { pidMap.setRemapPID(8192); }),
              "Cannot set remap PID value - invalid PID value (8192)");
    EXPECT_EQ(encoded(pidMap), Words({0x00400003, 0}));

    TsiMapEntry tsiMap(9, 5);
    EXPECT_EQ(rowError([&] { tsiMap.setTSIIDX(256); }), "Cannot set TSIidx - invalid TSIidx given (256)");
    EXPECT_EQ(rowError([&] { tsiMap.setPIDIDX(4096); }), "Cannot set PIDidx - invalid PIDidx given (4096)");
    EXPECT_EQ(tsiMap.getTSIIDX(), 9U);
    EXPECT_EQ(encoded(tsiMap), Words({0x00001005}));

    PhysOutEntry physOut(9, 17);
    EXPECT_EQ(rowError([&] { physOut.setTSOIDX(256); }), "Cannot create PhysOutEntry - invalid TSOidx (256)");
    EXPECT_EQ(rowError([&] { physOut.setPHYOIDX(24); }), "Cannot create PhysOutEntry - invalid PHYOidx (24)");
    EXPECT_EQ(physOut.getTSOIDX(), 9U);
    EXPECT_EQ(encoded(physOut), Words({0x00000111}));

    IpOutEntry ipOut(9, MAC, IP, 5000, true);
    EXPECT_EQ(rowError([&] { ipOut.setTSOIDX(256); }), "TSOIdx out of range");
    EXPECT_EQ(rowError([&] { ipOut.setUdpPort(65536); }), "UDPPort out of range");
    EXPECT_EQ(ipOut, IpOutEntry(9, MAC, IP, 5000, true));
}

TEST(PidMapEntry, NeverLinksToItself) {
    PidMapEntry row(9);
    row.setNextPIDIDX(7);
    for (const std::uint32_t refused : {0U, 4096U, 7U}) {
        EXPECT_EQ(rowError([&] { row.setPIDIDX(refused); }),
                  "Cannot set PIDix - invalid PIDidx (" + std::to_string(refused) + ")");
    }
    for (const std::uint32_t refused : {4096U, 9U}) {
        EXPECT_EQ(rowError([&] { row.setNextPIDIDX(refused); }),
                  "Cannot set NEXT PIDIX - invalid NEXT_PIDidx value (" + std::to_string(refused) + ")");
    }
    EXPECT_EQ(row.getPIDIDX(), 9U);
    EXPECT_EQ(row.getNextPIDIDX(), 7U);
    row.setNextPIDIDX(0);
    row.setPIDIDX(7);
    EXPECT_EQ(row.getPIDIDX(), 7U);

    row.deserialize(Words({0x00610003, 7}));
    EXPECT_EQ(row.getPIDIDX(), 4095U) << "the words do not hold it";
}

TEST(PidMapEntry, RemapPidSetsTheFlagAndNothingEnables) {
    PidMapEntry row(9);
    EXPECT_FALSE(row.isRemap());
    EXPECT_EQ(row.getRemapPID(), 8191U);
    row.setRemapPID(0x100);
    EXPECT_TRUE(row.isRemap());
    EXPECT_FALSE(row.isEnabled());
    EXPECT_TRUE(PidMapEntry(9, 3).isEnabled());
}

}  // namespace
}  // namespace Vel::Drivers::Zep
