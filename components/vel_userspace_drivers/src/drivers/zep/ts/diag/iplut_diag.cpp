#include "vel/userspace_drivers/drivers/zep/ts/diag/iplut_diag.h"

#include "table_access.h"
#include "vel/userspace_drivers/drivers/zep/ts/ipoutentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/physinentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/physoutentry.h"

namespace Vel::Drivers::Zep {

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
    return readRows<IpInEntry>(memory, moveTo(IpLut::TABLE, getIpLutBase(memory, 0)), offset, count,
                               [&](const IpInEntry& row) { return includeDisabled || row.isEnabled(); });
}

void dumpIpLut(IMemIf& memory, std::uint32_t first, std::uint32_t count, std::uint32_t bank, bool includeAll,
               std::ostream& output) {
    requireRows(IpLut::TABLE, first, count);
    dumpRows<IpInEntry>(
        memory, moveTo(IpLut::TABLE, getIpLutBase(memory, bank)), {first, count, includeAll},
        &IpInEntry::isEnabled,
        [](std::uint32_t /*index*/, const IpInEntry& row) {
            return fmt::format("IP:{}, UDP_PORT:{:05}, TSIIDX:{:03}, ENABLED:{}", row.getIp().toString(),
                               row.getUdpPort(), row.getTSIIDX(), yesNo(row.isEnabled()));
        },
        output);
}

void dumpPhysInMap(IMemIf& memory, std::uint32_t first, std::uint32_t count, bool includeAll,
                   std::ostream& output) {
    dumpRows<PhysInEntry>(
        memory, PhysInMap::TABLE, {first, count, includeAll},
        [](const PhysInEntry& row) { return row.getTSIIDX() != NO_TSIIDX; },
        [](std::uint32_t index, const PhysInEntry& row) {
            return fmt::format("PHYIIDX:{:02}, TSIIDX:{:03}", index, row.getTSIIDX());
        },
        output);
}

void dumpIpOutTable(IMemIf& memory, std::uint32_t first, std::uint32_t count, bool includeAll,
                    std::ostream& output) {
    dumpRows<IpOutEntry>(
        memory, IpOutTable::TABLE, {first, count, includeAll}, &IpOutEntry::isEnabled,
        [](std::uint32_t index, const IpOutEntry& row) {
            return fmt::format("TSOIDX:{:03}, MAC:{}, IP:{}, PORT:{:02}, RTP:{}, ENABLED:{}", index,
                               row.getMac().toString(), row.getIp().toString(), row.getUdpPort(),
                               yesNo(row.isRtp()), yesNo(row.isEnabled()));
        },
        output);
}

void dumpPhysOutMap(IMemIf& memory, std::uint32_t first, std::uint32_t count, bool includeAll,
                    std::ostream& output) {
    dumpRows<PhysOutEntry>(
        memory, PhysOutMap::TABLE, {first, count, includeAll}, &PhysOutEntry::isEnabled,
        [](std::uint32_t index, const PhysOutEntry& row) {
            return fmt::format("TSOIDX:{:03}, PHYOIDX:{:02}, ENABLED:{}", index, row.getPHYOIDX(),
                               yesNo(row.isEnabled()));
        },
        output);
}

}  // namespace Vel::Drivers::Zep
