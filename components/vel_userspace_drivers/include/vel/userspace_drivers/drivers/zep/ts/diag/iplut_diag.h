#pragma once

#include <cstdint>
#include <iosfwd>
#include <vector>

#include "vel/userspace_drivers/drivers/zep/ts/ipinentry.h"
#include "vel/userspace_drivers/interfaces/memif.h"

/// Readers and dumps of the tables in the tsio device. All pass on the errors of the memory. They keep
/// nothing: as reentrant as the memory that they are given.
namespace Vel::Drivers::Zep {

/// Rows of the IP LUT.
constexpr std::uint32_t getIpLutSize() {
    return IpLut::TABLE.rows;
}
/// Word index of row 0, the same for every bank. Reads the device once, so that one that cannot be read fails
/// here.
std::uint32_t getIpLutBase(IMemIf& memory, std::uint32_t bank);
/// 0 or 1. A change between the reads of a table shows that the table was being rewritten meanwhile.
std::uint32_t getIpLutControlBit(IMemIf& memory);

/// Rows `offset` to `offset + count - 1` of the IP LUT, in row order; without the disabled ones unless they
/// are asked for. Throws InvalidArgumentError when the range passes the table's end.
std::vector<IpInEntry> readIpLut(IMemIf& memory, std::uint32_t offset, std::uint32_t count,
                                 bool includeDisabled);

/// Dumps write one line per row: of those in use, or of all, among `count` rows from row `first` on. Each
/// line is flushed. They throw InvalidArgumentError, before anything is written, when the range passes the
/// table's end.
void dumpIpLut(IMemIf& memory, std::uint32_t first, std::uint32_t count, std::uint32_t bank, bool includeAll,
               std::ostream& output);
void dumpPhysInMap(IMemIf& memory, std::uint32_t first, std::uint32_t count, bool includeAll,
                   std::ostream& output);
void dumpIpOutTable(IMemIf& memory, std::uint32_t first, std::uint32_t count, bool includeAll,
                    std::ostream& output);
void dumpPhysOutMap(IMemIf& memory, std::uint32_t first, std::uint32_t count, bool includeAll,
                    std::ostream& output);

}  // namespace Vel::Drivers::Zep
