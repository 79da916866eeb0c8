#pragma once

#include <cstdint>
#include <iosfwd>
#include <vector>

#include "vel/userspace_drivers/drivers/zep/ts/pidlutentry.h"
#include "vel/userspace_drivers/interfaces/memif.h"

/// Readers and dumps of the tables in the router device. The rules of iplut_diag.h apply.
namespace Vel::Drivers::Zep {

/// Rows of one bank of the PID LUT.
constexpr std::uint32_t getPidLutSize() {
    return PidLut::TABLE.rows;
}
/// Word index of row 0 of a bank. Bank 0 is the one that the select bit names at this moment; any other value
/// means the other bank.
std::uint32_t getPidLutBase(IMemIf& memory, std::uint32_t bank);
/// 0 or 1, like getIpLutControlBit().
std::uint32_t getPidLutControlBit(IMemIf& memory);

/// Rows `offset` to `offset + count - 1` of bank 0 of the PID LUT, in row order; those without a route only
/// on request. The bank is looked up once, before the first row is read. Throws InvalidArgumentError when the
/// range extends past the end of the table.
std::vector<PidLutEntry> readPidLut(IMemIf& memory, std::uint32_t offset, std::uint32_t count,
                                    bool includeUnrouted);

/// @param bank as for getPidLutBase()
void dumpPidLut(IMemIf& memory, std::uint32_t first, std::uint32_t count, std::uint32_t bank, bool includeAll,
                std::ostream& output);
void dumpTsiMap(IMemIf& memory, std::uint32_t first, std::uint32_t count, bool includeAll,
                std::ostream& output);
/// @param first not 0, since row 0 is reserved
void dumpOPidMap(IMemIf& memory, std::uint32_t first, std::uint32_t count, bool includeAll,
                 std::ostream& output);

}  // namespace Vel::Drivers::Zep
