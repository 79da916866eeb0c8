#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vel/userspace_drivers/drivers/zep/ts/ipinentry.h"
#include "vel/userspace_drivers/interfaces/memif.h"

namespace Vel::Zepctl {

// The text form of an input is what `input list` prints and `input add` accepts, so a listing is a backup.

/// An enabled row for that input, with TSIIDX 0. Throws CommandError, which shows the form, for a text that
/// buildInputUri() would not write: zeptfem compares URIs exactly. Reentrant.
[[nodiscard]] Drivers::Zep::IpInEntry parseInputUri(const std::string& text);

/// "udp://239.1.2.3:5000 3". Reentrant.
[[nodiscard]] std::string formatInput(const Drivers::Zep::IpInEntry& input);

/// Writes the IP LUT while the hardware or zeptfem reads it. The table has one bank and a row has two words,
/// so a change takes several stores. After each of them the table is valid:
///
/// - A row is enabled by the store of its last word, once it is complete, and disabled by the first store
///   that changes it.
/// - Enabled rows ascend by address, then port, as the hardware's search requires. Disabled rows may lie
///   between them.
/// - A row moves by one place: it is copied to the free row next to it, then disabled where it was. So the
///   table holds it once or, for a moment, twice in adjacent rows, and the search finds it either way.
///
/// So a reader that waits for a stable table sees one change for each input that is added or removed, and
/// none for any other input. The control bit is not changed.
///
/// If the enabled rows do not ascend, rows are only removed or cleared: no order of stores would keep other
/// inputs from being seen as removed and added.
///
/// Reads the table once, at construction; nobody else may write it during the lifetime of the object. All
/// calls that read or write the memory verify it before they return, and pass on its errors. Thread-bound.
class InputTable {
public:
    explicit InputTable(Drivers::IMemIf& memory);

    /// The enabled rows, in table order.
    [[nodiscard]] std::vector<Drivers::Zep::IpInEntry> list() const;

    /// Throws CommandError, which names the first row that is out of order, if the enabled rows do not
    /// ascend.
    void checkOrder() const;

    /// Writes the row between its neighbours. If no row is free there, the rows up to the next free one move
    /// up; if all rows above are in use, the rows down to the next free one move down. Throws CommandError if
    /// the rows are out of order, if the address and port or the TSIIDX already have a row, and if all rows
    /// are in use.
    void add(const Drivers::Zep::IpInEntry& input);

    /// Clears the row of that address and port, whatever its TSIIDX; no row moves. Throws CommandError if
    /// there is no such input.
    void remove(const Drivers::Zep::IpInEntry& input);

    /// Clears all rows, including what disabled ones still hold.
    void clear();

private:
    void clearCopies();
    void insert(const Drivers::Zep::IpInEntry& input);
    /// @param target one of m_Rows
    void writeRow(Drivers::Zep::IpInEntry& target, const Drivers::Zep::IpInEntry& row);

    Drivers::IMemIf& m_Memory;
    std::uint32_t m_Base;                         // word index of row 0
    std::vector<Drivers::Zep::IpInEntry> m_Rows;  // as in the table, including disabled ones
    // Allocated up front, so that a change cannot fail half-way for lack of memory.
    const Drivers::Zep::IpInEntry m_Cleared = {};
};

}  // namespace Vel::Zepctl
