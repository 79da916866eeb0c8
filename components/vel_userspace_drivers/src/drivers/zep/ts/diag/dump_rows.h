#pragma once

#include <fmt/format.h>

#include <array>
#include <cstdint>
#include <ostream>
#include <string>

#include "vel/userspace_drivers/interfaces/memif.h"

namespace Vel::Drivers::Zep {

/// What distinguishes the dump of one table.
template <class Row>
struct RowDump {
    int indexDigits;                                             ///< of the row index, padded with zeros
    bool (*isShown)(const Row& row);                             ///< unless all rows are asked for
    std::string (*fields)(std::uint32_t index, const Row& row);  ///< text of the fields of the row at `index`
};

/// Rows that a dump is asked for.
struct RowRange {
    std::uint32_t base;   ///< word index of row 0
    std::uint32_t first;  ///< row
    std::uint32_t count;
    bool includeAll;
};

inline const char* yesNo(bool flag) {
    return flag ? "YES" : "NO";
}

/// Writes one line a shown row, each as soon as its row is read.
template <class Row>
void dumpRows(IMemIf& memory, const RowDump<Row>& dump, const RowRange& range, std::ostream& output) {
    Row row;
    std::array<std::uint32_t, Row::WORDS> words{};
    for (std::uint32_t index = range.first; index < range.first + range.count; ++index) {
        const std::uint32_t wordIndex = range.base + index * Row::WORDS;
        memory.readBlock32Into(wordIndex, words);
        row.deserialize(words);
        if (range.includeAll || dump.isShown(row)) {
            output << fmt::format("{:0{}} (0x{:08x}): {}\n", index, dump.indexDigits, wordIndex,
                                  dump.fields(index, row))
                   << std::flush;
        }
    }
}

}  // namespace Vel::Drivers::Zep
