#pragma once

#include <cstdint>
#include <vector>

#include "vel/userspace_drivers/drivers/zep/ts/pidlutentry.h"
#include "vel/userspace_drivers/interfaces/memif.h"

namespace Vel::Zepctl {

/// Writes the PID LUT while the hardware, and whoever watches in its place, reads it. The bank that is not in
/// use gets the whole new table, then one store flips the select bit: readers see the old table or the new
/// one. The other bits of that word, and the control bit, stay as they are.
///
/// A row is in use when it has a route. Every change leaves these rows, sorted by TSIIDX, then PID, at the
/// start of the bank and cleared rows after them; rows without a route are not carried over, whatever they
/// hold.
///
/// Reads the table once, at construction; nobody else may write it until the object is gone. Thread-bound.
class RouteTable {
public:
    explicit RouteTable(Drivers::IMemIf& memory);

    /// The routed rows in the table's order.
    const std::vector<Drivers::Zep::PidLutEntry>& list() const { return m_Routes; }

    /// The lowest PIDIDX, from 1 on, that no route has. There is always one: PIDIDX has more values than the
    /// table rows.
    std::uint32_t findFreePididx() const;

    /// Throws CommandError when the TSIIDX and PID have a route already, when `route` has neither route, and
    /// when all rows are in use.
    void add(const Drivers::Zep::PidLutEntry& route);

    /// Throws CommandError when there is no such route.
    void remove(std::uint32_t tsiidx, std::uint32_t pid);

    void clear();

private:
    void write();

    Drivers::IMemIf& m_Memory;
    std::vector<Drivers::Zep::PidLutEntry> m_Routes;
};

}  // namespace Vel::Zepctl
