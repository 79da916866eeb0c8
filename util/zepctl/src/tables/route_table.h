#pragma once

#include <cstdint>
#include <vector>

#include "vel/userspace_drivers/drivers/zep/ts/pidlutentry.h"
#include "vel/userspace_drivers/interfaces/memif.h"

namespace Vel::Zepctl {

/// Writes the PID LUT while the hardware or zeptfem reads it. The whole new table is written to the bank that
/// is not in use, then one store flips the select bit: readers see the old table or the new one. The other
/// bits of that word and the control bit are not changed.
///
/// A row is in use if it has a route. After every change these rows are at the start of the bank, sorted by
/// TSIIDX, then PID, and cleared rows follow; rows without a route are dropped.
///
/// Reads the table once, at construction; nobody else may write it during the lifetime of the object. All
/// calls that read or write the memory verify it before they return, and pass on its errors. Thread-bound.
class RouteTable {
public:
    explicit RouteTable(Drivers::IMemIf& memory);

    /// The routed rows, in table order.
    [[nodiscard]] const std::vector<Drivers::Zep::PidLutEntry>& list() const { return m_Routes; }

    /// The lowest unused PIDIDX, at least 1. There is always one: PIDIDX has more values than the table has
    /// rows.
    [[nodiscard]] std::uint32_t findFreePididx() const;

    /// Throws CommandError if the TSIIDX and PID already have a route, and if all rows are in use.
    /// @param route with the CPU route, the out route or both
    void add(const Drivers::Zep::PidLutEntry& route);

    /// Throws CommandError if there is no such route.
    void remove(std::uint32_t tsiidx, std::uint32_t pid);

    void clear();

private:
    void write();

    Drivers::IMemIf& m_Memory;
    std::vector<Drivers::Zep::PidLutEntry> m_Routes;
};

}  // namespace Vel::Zepctl
