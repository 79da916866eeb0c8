#pragma once

#include <cstdint>
#include <vector>

#include "vel/userspace_drivers/drivers/zep/ts/bitfield.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/decode_rows.h"
#include "vel/userspace_drivers/interfaces/memif.h"

namespace Vel::Drivers::Zep {

/// Throws InvalidArgumentError unless `table` has all of the `count` rows from row `offset` on.
void requireRows(const Table& table, std::uint32_t offset, std::uint32_t count);

/// The present value of a register's field.
inline std::uint32_t readRegister(IMemIf& memory, const BitField& bits) {
    return bits.extract(memory.read32(bits.word));
}

/// Reads `count` rows from row `offset` on and returns those that `keep` accepts.
/// @param base word index of row 0
template <class Row, class Keep>
std::vector<Row> readRows(IMemIf& memory, std::uint32_t base, std::uint32_t offset, std::uint32_t count,
                          Keep keep) {
    std::vector<std::uint32_t> words(std::size_t{count} * Row::WORDS);
    memory.readBlock32Into(base + offset * Row::WORDS, words);
    return decodeRows<Row>(words, keep);
}

}  // namespace Vel::Drivers::Zep
