#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "vel/userspace_drivers/drivers/zep/ts/ipinentry.h"
#include "vel/userspace_drivers/interfaces/memif.h"

namespace Vel::Zepctl {

/// Writes the IP LUT while the hardware or zeptfem reads it. The table has one bank and a row has two words,
/// so a change takes several stores. After each of them the table is right:
///
/// - A row is enabled by the store of its last word, once it is complete, and disabled by the first store
///   that changes it.
/// - Enabled rows ascend by address, then port, as the hardware's search needs them. Disabled rows may lie
///   between them.
/// - A row moves by one place: it is copied to the free row next to it, then disabled where it was. So it is
///   there once or, for a moment, twice in succession, and the search finds it either way.
///
/// A reader that waits for a stable table thus sees one change for an input that is added or removed, and
/// none for any other input. The control bit stays as it is.
///
/// A table whose enabled rows do not ascend is not changed, only cleared: no order of stores would keep its
/// inputs from being seen as removed and added.
///
/// Reads the table once, at construction; nobody else may write it until the object is gone. Thread-bound.
class InputTable {
public:
    explicit InputTable(Drivers::IMemIf& memory);

    /// The enabled rows in the table's order.
    std::vector<Drivers::Zep::IpInEntry> list() const;

    /// Takes a free row between the neighbours of the new one, or moves the rows up to the next free one;
    /// only if all rows above are in use, the rows down to the next free one move down. Throws CommandError
    /// if the rows are out of order, if the address and port or the TSIIDX have a row already, and if all
    /// rows are in use.
    void add(const Drivers::Zep::IpInEntry& input);

    /// Clears the row of that address and port, whatever its TSIIDX; no row moves. Throws CommandError if the
    /// rows are out of order, and if there is no such input.
    void remove(const Drivers::Zep::IpInEntry& input);

    /// Clears all rows, also what disabled ones still hold.
    void clear();

private:
    void checkOrder() const;
    void clearCopies();
    void insert(const Drivers::Zep::IpInEntry& input);
    void moveRow(std::size_t from, std::size_t to);
    void writeRow(std::size_t index, const Drivers::Zep::IpInEntry& row);

    Drivers::IMemIf& m_Memory;
    std::uint32_t m_Base;                          // word index of row 0
    std::vector<Drivers::Zep::IpInEntry> m_Rows;   // as the table holds them, the disabled ones too
    const Drivers::Zep::IpInEntry m_Cleared = {};  // at hand, so that no lack of memory interrupts a change
};

}  // namespace Vel::Zepctl
