#pragma once

#include <cstdint>
#include <iosfwd>
#include <vector>

#include "vel/userspace_drivers/drivers/zep/ts/ipinentry.h"
#include "vel/userspace_drivers/interfaces/memif.h"

/// Readers and dumps of the tables in the tsio device. Errors of the memory pass through. The functions keep
/// no state: they are as reentrant as the memory.
namespace Vel::Drivers::Zep {

/// Rows of the IP LUT.
constexpr std::uint32_t getIpLutSize() {
    return IpLut::TABLE.rows;
}
/// Word index of row 0, the same for every bank. Reads the device once, so an unreadable device fails here.
std::uint32_t getIpLutBase(IMemIf& memory, std::uint32_t bank);
/// 0 or 1. A change between two reads of the table shows that the table was being rewritten.
std::uint32_t getIpLutControlBit(IMemIf& memory);

/// Rows `offset` to `offset + count - 1` of the IP LUT, in row order; disabled ones only on request. Throws
/// InvalidArgumentError when the range extends past the end of the table.
std::vector<IpInEntry> readIpLut(IMemIf& memory, std::uint32_t offset, std::uint32_t count,
                                 bool includeDisabled);

/// Dumps write one line per row, for `count` rows from row `first` on: for rows in use, or for all. Each line
/// is flushed. They throw InvalidArgumentError, before anything is written, when the range extends past the
/// end of the table.
void dumpIpLut(IMemIf& memory, std::uint32_t first, std::uint32_t count, std::uint32_t bank, bool includeAll,
               std::ostream& output);
void dumpPhysInMap(IMemIf& memory, std::uint32_t first, std::uint32_t count, bool includeAll,
                   std::ostream& output);
void dumpIpOutTable(IMemIf& memory, std::uint32_t first, std::uint32_t count, bool includeAll,
                    std::ostream& output);
void dumpPhysOutMap(IMemIf& memory, std::uint32_t first, std::uint32_t count, bool includeAll,
                    std::ostream& output);

}  // namespace Vel::Drivers::Zep
