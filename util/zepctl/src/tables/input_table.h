#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "vel/userspace_drivers/drivers/zep/ts/ipinentry.h"
#include "vel/userspace_drivers/interfaces/memif.h"

namespace Vel::Zepctl {

/// Writes the IP LUT while the hardware, and whoever watches in its place, reads it. The table has one bank
/// and a row two words, so a change takes several stores, and each of them must leave a table that is right:
///
/// - A row is enabled when it is complete, by the store of its last word, and disabled before it is taken
/// apart.
/// - Enabled rows ascend by address, then port; disabled rows may lie between them. A watcher that reads the
/// rows in
///   this order and searches them for each row it knew finds every one.
/// - Where an input needs room, the rows behind it move up by one, the last of them first: copied into the
/// free row
///   above, then disabled where they were. So a row is there once or, for a moment, twice in a row, which
///   such a search does not tell apart, and one that reads upward meanwhile cannot miss it. Only when all
///   rows above are in use do the ones below move down.
///
/// Adding or removing an input is thus one event for a watcher, and no other input notices. The control bit
/// stays as it is.
///
/// Rows that others left out of order are put in order by the next add() or remove(), each by one copy at its
/// place before the old one goes. Inputs that were in order do not notice that either; the others may be seen
/// removed and added again, as at any change of an unordered table. A second copy of a row, left by a writer
/// that was ended half-way, goes as well.
///
/// Reads the table once, at construction; nobody else may write it until the object is gone. Thread-bound.
class InputTable {
public:
    explicit InputTable(Drivers::IMemIf& memory);

    /// The enabled rows in the table's order.
    std::vector<Drivers::Zep::IpInEntry> list() const;

    /// Throws CommandError when the address and port, or the TSIIDX, have a row already, or all rows are in
    /// use.
    void add(const Drivers::Zep::IpInEntry& input);

    /// Removes the input of that address and port, whatever its TSIIDX. Throws CommandError when there is
    /// none.
    void remove(const Drivers::Zep::IpInEntry& input);

    /// Removes all inputs, and what disabled rows still hold.
    void clear();

private:
    void putInOrder();
    void insert(const Drivers::Zep::IpInEntry& input, std::size_t end);
    void moveRow(std::size_t from, std::size_t to);
    void writeRow(std::size_t index, const Drivers::Zep::IpInEntry& row);
    void clearRow(std::size_t index);

    Drivers::IMemIf& m_Memory;
    std::uint32_t m_Base;                         // word index of row 0
    std::vector<Drivers::Zep::IpInEntry> m_Rows;  // as the table holds them, the disabled ones too
};

}  // namespace Vel::Zepctl
