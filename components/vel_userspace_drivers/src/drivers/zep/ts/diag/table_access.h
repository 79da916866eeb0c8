#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <ostream>
#include <vector>

#include <fmt/format.h>

#include "vel/cpp_utils/error.h"
#include "vel/userspace_drivers/drivers/zep/ts/bitfield.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/decode_rows.h"
#include "vel/userspace_drivers/interfaces/memif.h"

namespace Vel::Drivers::Zep {

/// Throws InvalidArgumentError unless `table` has all `count` rows from row `first` on.
inline void requireRows(const Table& table, std::uint32_t first, std::uint32_t count) {
    if (first > table.rows || count > table.rows - first) {
        throw CppUtil::InvalidArgumentError(
            fmt::format("Offset ({}) and count ({}) exceeds the size ({}) of the ZEP {}.", first, count,
                        table.rows, table.name));
    }
}

/// The current value of a register's field.
inline std::uint32_t readRegister(IMemIf& memory, const BitField& bits) {
    return bits.extract(memory.read32(bits.word));
}

/// The same table with row 0 at another word of its device.
constexpr Table moveTo(Table table, std::uint32_t base) {
    table.base = base;
    return table;
}

/// Reads `count` rows from row `first` on, and returns those that `keep` accepts.
template <class Row, class Keep>
std::vector<Row> readRows(IMemIf& memory, const Table& table, std::uint32_t first, std::uint32_t count,
                          Keep keep) {
    std::vector<std::uint32_t> words(std::size_t{count} * Row::WORDS);
    memory.readBlock32Into(table.base + first * Row::WORDS, words);
    return decodeRows<Row>(words, keep);
}

/// The rows to dump.
struct DumpRange {
    std::uint32_t first;
    std::uint32_t count;
    bool includeAll;
};

inline const char* yesNo(bool flag) {
    return flag ? "YES" : "NO";
}

/// Writes one line for each row, or only for those that `isShown(row)` accepts, as soon as the row is read.
/// Throws InvalidArgumentError when the range extends past the end of the table.
/// @param format called with index and row, returns the text of the row's fields
/// @param indexDigits width of the row index, padded with zeros
template <class Row, class IsShown, class Format>
void dumpRows(IMemIf& memory, const Table& table, const DumpRange& range, IsShown isShown, Format format,
              std::ostream& output, int indexDigits = 3) {
    requireRows(table, range.first, range.count);
    Row row;
    std::array<std::uint32_t, Row::WORDS> words{};
    for (std::uint32_t index = range.first; index < range.first + range.count; ++index) {
        const std::uint32_t wordIndex = table.base + index * Row::WORDS;
        memory.readBlock32Into(wordIndex, words);
        row.deserialize(words);
        if (range.includeAll || std::invoke(isShown, row)) {
            output << fmt::format("{:0{}} (0x{:08x}): {}\n", index, indexDigits, wordIndex,
                                  format(index, row))
                   << std::flush;
        }
    }
}

}  // namespace Vel::Drivers::Zep
