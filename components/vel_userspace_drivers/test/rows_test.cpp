#include <functional>
#include <map>

#include <gmock/gmock.h>

#include "thrown_text.h"
#include "vel/userspace_drivers/drivers/driver_error.h"
#include "vel/userspace_drivers/drivers/zep/ts/ipinentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/ipoutentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/physinentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/physoutentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/pidlutentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/pidmapentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/portnames.h"
#include "vel/userspace_drivers/drivers/zep/ts/tsimapentry.h"

namespace Vel::Drivers::Zep {
namespace {

using CppUtil::IpAdrContainer;
using CppUtil::MacAdrContainer;
using Words = std::vector<std::uint32_t>;

const MacAdrContainer MAC(std::string("00:11:22:33:44:55"));
const IpAdrContainer IP(std::string("239.1.1.1"));

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

TEST(Rows, WordsMatchTheLayout) {
    PidMapEntry linked(9, 3, 0x100);
    linked.setNextPIDIDX(7);
    const std::vector<std::pair<Words, Words>> cases = {
        {encoded(IpInEntry(5)), {0, 0x01050000}},
        {encoded(IpInEntry(5, "239.1.2.3", 5000)), {0xEF010203, 0x01051388}},
        {encoded(IpOutEntry(9, MAC, IP, 5000, true)), {0x00000011, 0x22334455, 0xEF010101, 0x00031388}},
        {encoded(PhysInEntry(9, 3)), {3}},
        {encoded(PhysOutEntry(9, 17)), {0x00000111}},
        {encoded(PidLutEntry(0, 0, 1, true, false)), {0, 0xFF001001}},
        {encoded(PidLutEntry(5, 256, 7, 3, false, true)), {0x0000A100, 0x03002007}},
        {encoded(PidMapEntry(9, 3)), {0x00400003, 0}},
        {encoded(linked), {0x00610003, 7}},
        {encoded(TsiMapEntry(9, 5)), {0x00001005}},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(cases[i].first, cases[i].second) << "case " << i;
    }
    EXPECT_EQ(decoded<PidLutEntry>({0, 0}).getPIDIDX(), 0U) << "a table may hold what no setter accepts";
    EXPECT_EQ(decoded<PidMapEntry>({0x00610003, 7}).getPIDIDX(), 4095U) << "the words do not hold it";
    for (const std::size_t length : {0, 1, 3}) {
        EXPECT_EQ(thrownText<CppUtil::ParsingError>([&] { decoded<IpInEntry>(Words(length)); }),
                  "Generic parsing Error: Incorrect length of serialized data buffer");
    }
}

TEST(Rows, RefusedValueIsNamedAndChangesNothing) {
    IpInEntry in = decoded<IpInEntry>({0xEF010203, 0x00051388});
    IpOutEntry out(9, MAC, IP, 5000, true);
    PhysInEntry physIn(63, 3);
    PhysOutEntry physOut(9, 17);
    PidLutEntry lut(5, 256, 7, 3, true, true);
    PidMapEntry map(9, 3);
    map.setNextPIDIDX(7);
    TsiMapEntry tsi(9, 5);
    const std::vector<std::pair<std::function<void()>, std::string>> cases = {
        {[] { IpInEntry(256, IP, 65536); }, "IpInEntry created with invalid TSIidx (256)"},
        {[] { IpInEntry(255, IP, 65536); }, "IpInEntry created with invalid UDP port (65536)"},
        {[] { IpInEntry(256, "1.2.3", 5000); }, "IpInEntry created with invalid IP address (1.2.3)"},
        {[&] { in.setTSIIDX(256); }, "Attempt to set invalid TSIidx (256)"},
        {[&] { in.setUdpPort(65536); }, "Attempt to set invalid UDP port (65536)"},
        {[&] { in.setIp("1.2.3"); }, "Attempt to set invalid IP address (1.2.3)"},
        {[] { IpOutEntry(256, MAC, IP, 65536, true); }, "TSOIdx out of range"},
        {[] { IpOutEntry(255, MAC, IP, 65536, true); }, "UDPPort out of range"},
        {[&] { out.setTSOIDX(256); }, "TSOIdx out of range"},
        {[&] { out.setUdpPort(65536); }, "UDPPort out of range"},
        {[] { PhysInEntry(64); }, "Cannot create PhysInEntry - invalid PHYIidx (64)"},
        {[] { PhysInEntry(64, 256); }, "Cannot create PhysInEntry - invalid TSIidx (256)"},
        {[&] { physIn.setTSIIDX(256); }, "Cannot set TSIidx - invalid TSIidx (256)"},
        {[&] { physIn.setPHYIIDX(64); }, "Cannot set PHYIidx invalid PHYIidx (64)"},
        {[] { PhysOutEntry(256); }, "Cannot create PhysOutEntry - invalid TSOidx (256)"},
        {[] { PhysOutEntry(255, 24); }, "Cannot create PhysOutEntry - invalid PHYOidx (24)"},
        {[&] { physOut.setPHYOIDX(24); }, "Cannot create PhysOutEntry - invalid PHYOidx (24)"},
        {[] { PidLutEntry(256, 8192, 0, true, true); },
         "PidLutEntry created/modified with invalid TSIIDX (256)"},
        {[] { PidLutEntry(255, 8192, 0, true, true); },
         "PidLutEntry created/modified with invalid PID (8192)"},
        {[&] { lut.setPIDIDX(0); }, "PidLutEntry created/modified with invalid PIDIDX (0)"},
        {[&] { lut.setPIDIDX(4096); }, "PidLutEntry created/modified with invalid PIDIDX (4096)"},
        {[&] { lut.setFiltTabIDX(256); }, "PidLutEntry created/modified with invalid FiltTabIDX (256)"},
        {[] { PidMapEntry(0); }, "Cannot create PidMapEntry - invalid PIDidx (0)"},
        {[] { PidMapEntry(4096, 256); }, "Cannot create PidMapEntry - invalid PIDidx (4096)"},
        {[] { PidMapEntry(4095, 256, 8192); }, "Cannot create PidMapEntry - invalid TSOidx (256)"},
        {[] { PidMapEntry(1, 255, 8192); }, "Cannot create PidMapEntry - invalid PID value (8192)"},
        {[&] { map.setTSOIDX(256); }, "Cannot set TSOidx - invalid TSOidx (256)"},
        {[&] { map.setRemapPID(8192); }, "Cannot set remap PID value - invalid PID value (8192)"},
        {[] { PidMapEntry(1).setPIDIDX(0); }, "Cannot set PIDix - invalid PIDidx (0)"},
        {[&] { map.setPIDIDX(7); }, "Cannot set PIDix - invalid PIDidx (7)"},  // would link to itself
        {[] { PidMapEntry(1).setNextPIDIDX(1); }, "Cannot set NEXT PIDIX - invalid NEXT_PIDidx value (1)"},
        {[&] { map.setNextPIDIDX(4096); }, "Cannot set NEXT PIDIX - invalid NEXT_PIDidx value (4096)"},
        {[] { TsiMapEntry(256); }, "Cannot create TsiMapEntry - invalid TSIidx (256)"},
        {[] { TsiMapEntry(255, 4096); }, "Cannot create TsiMapEntry - invalid PIDidx (4096)"},
        {[&] { tsi.setTSIIDX(256); }, "Cannot set TSIidx - invalid TSIidx given (256)"},
        {[&] { tsi.setPIDIDX(0); }, "Cannot set PIDidx - invalid PIDidx given (0)"},
    };
    for (const auto& [call, text] : cases) {
        EXPECT_EQ(thrownText<ZepDriverError>(call),
                  "Driver (user space) error: ZEP Driver (user space) error: " + text);
    }
    EXPECT_EQ(encoded(in), Words({0xEF010203, 0x00051388}));
    EXPECT_EQ(encoded(out), encoded(IpOutEntry(9, MAC, IP, 5000, true)));
    EXPECT_EQ(encoded(physIn), Words({3}));
    EXPECT_EQ(physIn.getPHYIIDX(), 63U);
    EXPECT_EQ(encoded(physOut), Words({0x00000111}));
    EXPECT_EQ(lut, PidLutEntry(5, 256, 7, 3, true, true));
    EXPECT_EQ(encoded(map), Words({0x00400003, 7}));
    EXPECT_EQ(map.getPIDIDX(), 9U);
    EXPECT_EQ(encoded(tsi), Words({0x00001005}));
    // The largest values fit.
    EXPECT_NO_THROW(IpInEntry(255, IP, 65535).clear());
    EXPECT_NO_THROW(PhysInEntry(63, 255).clear());
    EXPECT_NO_THROW(PhysOutEntry(255, 23).clear());
    EXPECT_NO_THROW(PidLutEntry(255, 8191, 4095, 255, true, true).clear());
    EXPECT_NO_THROW(PidMapEntry(4095, 255, 8191).setNextPIDIDX(0));
    EXPECT_NO_THROW(TsiMapEntry(255, 4095).clear());
}

TEST(Rows, SettersEnableWhereTheyShould) {
    const auto enabledBy = [](auto row, auto set) {
        set(row);
        return row.isEnabled();
    };
    EXPECT_TRUE(enabledBy(IpInEntry(), [](auto& row) { row.setTSIIDX(0); }));
    EXPECT_TRUE(enabledBy(IpInEntry(), [](auto& row) { row.setIp("10.0.0.1"); }));
    EXPECT_TRUE(enabledBy(IpInEntry(), [](auto& row) { row.setUdpPort(1); }));
    EXPECT_FALSE(enabledBy(IpInEntry(1, IP, 1), [](auto& row) { row.clear(); }));
    EXPECT_FALSE(enabledBy(IpOutEntry(), [](auto& row) { row.setTSOIDX(0); }));
    EXPECT_TRUE(enabledBy(IpOutEntry(), [](auto& row) { row.setMac(MAC); }));
    EXPECT_TRUE(enabledBy(IpOutEntry(), [](auto& row) { row.setIp(IP); }));
    EXPECT_TRUE(enabledBy(IpOutEntry(), [](auto& row) { row.setUdpPort(1); }));
    EXPECT_TRUE(enabledBy(IpOutEntry(), [](auto& row) { row.setRtp(false); }));
    EXPECT_FALSE(enabledBy(PhysOutEntry(), [](auto& row) { row.setPHYOIDX(0); }));
    EXPECT_FALSE(enabledBy(TsiMapEntry(), [](auto& row) { row.setPIDIDX(3); }));
    PidMapEntry map(9);
    EXPECT_FALSE(map.isRemap());
    map.setRemapPID(0x100);
    EXPECT_TRUE(map.isRemap() && !map.isEnabled());
    IpOutEntry out(9, MacAdrContainer(), IP, 5000, true);
    out.setMac(MAC);
    out.clear();
    EXPECT_EQ(encoded(out), Words({0x00000011, 0x22334455, 0, 0x0000FFFF})) << "the MAC address stays";
    const auto cleared = [](auto row) {
        row.clear();
        return row;
    };
    EXPECT_EQ(encoded(cleared(IpInEntry(5, IP, 5000))), encoded(IpInEntry()));
    EXPECT_EQ(encoded(cleared(PhysInEntry(0, 5))), encoded(PhysInEntry()));
    EXPECT_EQ(cleared(PhysInEntry(5, 5)).getPHYIIDX(), 31U) << "a port that has no name";
    EXPECT_EQ(IpOutEntry().getTSOIDX() + PhysOutEntry().getTSOIDX() + TsiMapEntry().getTSIIDX(), 3 * 255U);
    EXPECT_EQ(encoded(cleared(PhysOutEntry(5, 5))), encoded(PhysOutEntry()));
    EXPECT_EQ(encoded(cleared(PidLutEntry(5, 5, 5, 5, true, true))), encoded(PidLutEntry()));
    EXPECT_EQ(encoded(cleared(PidMapEntry(5, 5, 5))), encoded(PidMapEntry()));
    EXPECT_EQ(encoded(cleared(TsiMapEntry(5, 5))), encoded(TsiMapEntry()));
}

TEST(Rows, OrderIsByKeyAndEqualityByTheRest) {
    EXPECT_EQ(IpInEntry(5, "239.1.2.3", 5000), decoded<IpInEntry>({0xEF010203, 0x00051388}))
        << "enabled or not";
    const IpOutEntry out(9, MAC, IP, 5000, true);
    EXPECT_EQ(out, IpOutEntry(9, MacAdrContainer(), IP, 5000, false));
    EXPECT_NE(out, IpOutEntry(8, MAC, IP, 5000, true));
    EXPECT_LT(out, IpOutEntry(1, MAC, IP, 5001, true));
    EXPECT_GT(IpOutEntry(1, MAC, IpAdrContainer(0xEF010102), 1, true), out);
}

TEST(PortNames, NameEachPortAndNoOther) {
    for (const auto& [index, name] : std::map<std::uint32_t, std::string>{
             {0, "tuner0"}, {15, "tuner15"}, {16, "cam0"}, {23, "cam7"}, {32, "tuner16"}, {37, "tuner21"}}) {
        EXPECT_EQ(getPhysInName(index), name);
        EXPECT_EQ(getPhysInIdxByName(name), index);
    }
    for (const std::uint32_t unnamed : {24U, 31U, 38U, 64U}) {
        EXPECT_THROW(getPhysInName(unnamed), std::out_of_range) << unnamed;
    }
    EXPECT_THROW(getPhysInIdxByName("modulator0"), std::out_of_range);
    EXPECT_EQ(getTunerPhysInIdx(16) + getCamPhysInIdx(7), 32U + 23U);
    EXPECT_EQ(getModulatorPhysOutIdx(15) + getCamPhysOutIdx(7), 15U + 23U);
    EXPECT_THROW(getModulatorPhysOutIdx(16), std::out_of_range);
}

}  // namespace
}  // namespace Vel::Drivers::Zep
