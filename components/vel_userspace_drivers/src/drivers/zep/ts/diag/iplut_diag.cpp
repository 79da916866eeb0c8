#include "vel/userspace_drivers/drivers/zep/ts/diag/iplut_diag.h"

#include "table_access.h"

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
    return readRows<IpInEntry>(memory, getIpLutBase(memory, 0), offset, count,
                               [&](const IpInEntry& row) { return includeDisabled || row.isEnabled(); });
}

}  // namespace Vel::Drivers::Zep
