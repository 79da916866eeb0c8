#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vel/userspace_drivers/drivers/zep/ts/pidlutentry.h"
#include "vel/userspace_drivers/interfaces/memif.h"

namespace Vel::Zepctl {

/// The text form of a route, as `route list` prints it and `route add` accepts it, except for rows written by
/// other software that it refuses: "3 0x0100 --pididx 7 --filter 255", with "--out" and "--no-cpu" where they
/// apply, and without "--pididx" if it is 0. Reentrant.
[[nodiscard]] std::string formatRoute(const Drivers::Zep::PidLutEntry& route);

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
