#include "vel/userspace_drivers/drivers/zep/ts/diag/pidlut_diag.h"

#include "table_access.h"
#include "vel/userspace_drivers/drivers/zep/ts/pidmapentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/tsimapentry.h"

namespace Vel::Drivers::Zep {

std::uint32_t getPidLutBase(IMemIf& memory, std::uint32_t bank) {
    const bool upperFirst = readRegister(memory, PidLut::BANK_SELECT) != 0;
    return (bank == 0) == upperFirst ? PidLut::UPPER_BASE : PidLut::TABLE.base;
}

std::uint32_t getPidLutControlBit(IMemIf& memory) {
    return readRegister(memory, PidLut::CONTROL);
}

std::vector<PidLutEntry> readPidLut(IMemIf& memory, std::uint32_t offset, std::uint32_t count,
                                    bool includeUnrouted) {
    requireRows(PidLut::TABLE, offset, count);
    return readRows<PidLutEntry>(memory, moveTo(PidLut::TABLE, getPidLutBase(memory, 0)), offset, count,
                                 [&](const PidLutEntry& row) { return includeUnrouted || row.isRouted(); });
}

void dumpPidLut(IMemIf& memory, std::uint32_t first, std::uint32_t count, std::uint32_t bank, bool includeAll,
                std::ostream& output) {
    requireRows(PidLut::TABLE, first, count);
    dumpRows<PidLutEntry>(
        memory, moveTo(PidLut::TABLE, getPidLutBase(memory, bank)), {first, count, includeAll},
        [cleared = PidLutEntry()](const PidLutEntry& row) { return row != cleared; },
        [](std::uint32_t /*index*/, const PidLutEntry& row) {
            return fmt::format(
                "TSIIDX:{:03}, PID:0x{:04x}({:04}), PIDIDX:{:04}, CPU_ROUTE:{}, OUT_ROUTE:{}, FILTIDX:{:03}",
                row.getTSIIDX(), row.getPID(), row.getPID(), row.getPIDIDX(), yesNo(row.isCpuRoute()),
                yesNo(row.isOutRoute()), row.getFiltTabIDX());
        },
        output);
}

void dumpTsiMap(IMemIf& memory, std::uint32_t first, std::uint32_t count, bool includeAll,
                std::ostream& output) {
    dumpRows<TsiMapEntry>(
        memory, TsiMap::TABLE, {first, count, includeAll}, &TsiMapEntry::isEnabled,
        [](std::uint32_t index, const TsiMapEntry& row) {
            return fmt::format("TSIIDX:{:03}, PIDIDX:{:04}, ENABLED:{}", index, row.getPIDIDX(),
                               yesNo(row.isEnabled()));
        },
        output);
}

void dumpOPidMap(IMemIf& memory, std::uint32_t first, std::uint32_t count, bool includeAll,
                 std::ostream& output) {
    requireRows(OPidMap::TABLE, first, count);
    if (first == 0) {
        throw CppUtil::InvalidArgumentError(
            "Offset value 0 is not permitted in the ZEP O-PID MAP, since this is a reserved value.");
    }
    dumpRows<PidMapEntry>(
        memory, OPidMap::TABLE, {first, count, includeAll}, &PidMapEntry::isEnabled,
        [](std::uint32_t index, const PidMapEntry& row) {
            return fmt::format(
                "PIDIDX:{:04}, OPID:0x{:04x}({:04}), TSOIDX:{:03}, NEXTPIDIDX:{:04}, ENABLED:{}, REMAP:{}",
                index, row.getRemapPID(), row.getRemapPID(), row.getTSOIDX(), row.getNextPIDIDX(),
                yesNo(row.isEnabled()), yesNo(row.isRemap()));
        },
        output, 4);
}

}  // namespace Vel::Drivers::Zep
