#include "vel/userspace_drivers/drivers/zep/ts/diag/pidlut_diag.h"

#include "table_access.h"

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
    return readRows<PidLutEntry>(memory, getPidLutBase(memory, 0), offset, count,
                                 [&](const PidLutEntry& row) { return includeUnrouted || row.isRouted(); });
}

}  // namespace Vel::Drivers::Zep
