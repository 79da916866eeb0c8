#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "vel/cpp_utils/assertion.h"

namespace Vel::Drivers::Zep {

/// Decodes the words of successive table rows, and returns the rows that `keep` accepts, in row order. A
/// poller can thus compare plain words and decode them only when they differ. Reentrant.
/// @param words whole rows of `Row::WORDS` words each
/// @param keep called with a row, true to keep it; may be a getter such as `&PidLutEntry::isRouted`
template <class Row, class Keep>
std::vector<Row> decodeRows(std::span<const std::uint32_t> words, Keep keep) {
    VEL_ASSERT(words.size() % Row::WORDS == 0);
    std::vector<Row> rows;
    Row row;
    for (; !words.empty(); words = words.subspan(Row::WORDS)) {
        row.deserialize(words.first(Row::WORDS));
        if (std::invoke(keep, row)) {
            rows.push_back(row);
        }
    }
    return rows;
}

}  // namespace Vel::Drivers::Zep
