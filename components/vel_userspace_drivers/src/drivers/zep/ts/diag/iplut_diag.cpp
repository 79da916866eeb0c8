#include "vel/userspace_drivers/drivers/zep/ts/diag/iplut_diag.h"

#include "dump_rows.h"
#include "table_access.h"
#include "vel/userspace_drivers/drivers/zep/ts/ipoutentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/physinentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/physoutentry.h"

namespace Vel::Drivers::Zep {

namespace {

constexpr RowDump<IpInEntry> IP_LUT_DUMP{
    3, [](const IpInEntry& row) { return row.isEnabled(); },
    [](std::uint32_t /*index*/, const IpInEntry& row) {
        return fmt::format("IP:{}, UDP_PORT:{:05}, TSIIDX:{:03}, ENABLED:{}", row.getIp().toString(),
                           row.getUdpPort(), row.getTSIIDX(), yesNo(row.isEnabled()));
    }};

constexpr RowDump<PhysInEntry> PHYS_IN_MAP_DUMP{
    3, [](const PhysInEntry& row) { return row.getTSIIDX() != NO_TSIIDX; },
    [](std::uint32_t index, const PhysInEntry& row) {
        return fmt::format("PHYIIDX:{:02}, TSIIDX:{:03}", index, row.getTSIIDX());
    }};

constexpr RowDump<IpOutEntry> IP_OUT_TABLE_DUMP{
    3, [](const IpOutEntry& row) { return row.isEnabled(); },
    [](std::uint32_t index, const IpOutEntry& row) {
        return fmt::format("TSOIDX:{:03}, MAC:{}, IP:{}, PORT:{:02}, RTP:{}, ENABLED:{}", index,
                           row.getMac().toString(), row.getIp().toString(), row.getUdpPort(),
                           yesNo(row.isRtp()), yesNo(row.isEnabled()));
    }};

constexpr RowDump<PhysOutEntry> PHYS_OUT_MAP_DUMP{3, [](const PhysOutEntry& row) { return row.isEnabled(); },
                                                  [](std::uint32_t index, const PhysOutEntry& row) {
                                                      return fmt::format(
                                                          "TSOIDX:{:03}, PHYOIDX:{:02}, ENABLED:{}", index,
                                                          row.getPHYOIDX(), yesNo(row.isEnabled()));
                                                  }};

}  // namespace

std::uint32_t getIpLutBase(IMemIf& memory, std::uint32_t /*bank*/) {
    memory.read32(0);
    return IpLut::TABLE.base;
}

std::uint32_t getIpLutControlBit(IMemIf& memory) {
    return readRegister(memory, IpLut::CONTROL);
}

std::vector<IpInEntry> readIpLut(IMemIf& memory, std::uint32_t offset, std::uint32_t count,
                                 bool includeDisabled) {
    requireRows(IpLut::TABLE, offset, count);
    return readRows<IpInEntry>(memory, getIpLutBase(memory, 0), offset, count,
                               [&](const IpInEntry& row) { return includeDisabled || row.isEnabled(); });
}

void dumpIpLut(IMemIf& memory, std::uint32_t first, std::uint32_t count, std::uint32_t bank, bool includeAll,
               std::ostream& output) {
    requireRows(IpLut::TABLE, first, count);
    dumpRows(memory, IP_LUT_DUMP, {getIpLutBase(memory, bank), first, count, includeAll}, output);
}

void dumpPhysInMap(IMemIf& memory, std::uint32_t first, std::uint32_t count, bool includeAll,
                   std::ostream& output) {
    requireRows(PhysInMap::TABLE, first, count);
    dumpRows(memory, PHYS_IN_MAP_DUMP, {PhysInMap::TABLE.base, first, count, includeAll}, output);
}

void dumpIpOutTable(IMemIf& memory, std::uint32_t first, std::uint32_t count, bool includeAll,
                    std::ostream& output) {
    requireRows(IpOutTable::TABLE, first, count);
    dumpRows(memory, IP_OUT_TABLE_DUMP, {IpOutTable::TABLE.base, first, count, includeAll}, output);
}

void dumpPhysOutMap(IMemIf& memory, std::uint32_t first, std::uint32_t count, bool includeAll,
                    std::ostream& output) {
    requireRows(PhysOutMap::TABLE, first, count);
    dumpRows(memory, PHYS_OUT_MAP_DUMP, {PhysOutMap::TABLE.base, first, count, includeAll}, output);
}

}  // namespace Vel::Drivers::Zep
