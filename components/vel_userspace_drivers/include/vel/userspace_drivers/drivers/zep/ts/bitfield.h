#pragma once

#include <cstdint>
#include <initializer_list>

namespace Vel::Drivers::Zep {

/// Bits of one field within 32-bit words.
struct BitField {
    std::uint32_t word;   ///< index within the row for a table field, within the device for a register
    std::uint32_t shift;  ///< lowest bit
    std::uint32_t width;  ///< bits, 1..32

    /// Largest value that fits.
    constexpr std::uint32_t mask() const { return 0xFFFFFFFFU >> (32 - width); }
    /// The field's value in `wordValue`, the value of its word.
    constexpr std::uint32_t extract(std::uint32_t wordValue) const { return wordValue >> shift & mask(); }
    /// The word with this field set to `value`; all other bits are 0.
    constexpr std::uint32_t place(std::uint32_t value) const { return (value & mask()) << shift; }
};

/// Values that a field accepts, from `min` to `max` inclusive.
struct Range {
    std::uint32_t min;
    std::uint32_t max;

    constexpr bool contains(std::uint32_t value) const { return min <= value && value <= max; }
};

/// Position of a table in its device.
struct Table {
    const char* name;
    std::uint32_t base;  ///< word index of row 0
    std::uint32_t rows;
    std::uint32_t wordsPerRow;
};

/// Whether every field lies within a row of `table` and no two share a bit.
constexpr bool fitRow(const Table& table, std::initializer_list<BitField> fields) {
    for (std::uint32_t word = 0; word < table.wordsPerRow; ++word) {
        std::uint32_t taken = 0;
        for (const BitField& field : fields) {
            const std::uint32_t bits = field.word == word ? field.place(field.mask()) : 0;
            if (field.word >= table.wordsPerRow || field.shift + field.width > 32 || (taken & bits) != 0) {
                return false;
            }
            taken |= bits;
        }
    }
    return true;
}

}  // namespace Vel::Drivers::Zep
