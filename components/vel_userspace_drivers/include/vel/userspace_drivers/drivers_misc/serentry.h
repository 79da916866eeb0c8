#pragma once

#include <algorithm>
#include <cstddef>
#include <span>
#include <vector>

#include "vel/cpp_utils/error.h"

namespace Vel::Drivers::Misc {

/// Base of the rows of hardware tables: a value with named fields and a serialized form of a fixed number of
/// words. Only toWords() and fromWords() convert between the two. Reentrant.
template <typename T>
class SerilizeableEntry {
public:
    virtual ~SerilizeableEntry() = default;

    /// Writes the fields into the words.
    virtual void toWords() = 0;
    /// Reads the fields from the words; false if the words are not a valid row.
    virtual bool fromWords() = 0;
    /// Resets the fields to those of a cleared row.
    virtual void clear() = 0;

    /// Copies the words of one row and reads the fields from them; an invalid row becomes a cleared one.
    /// Throws ParsingError when `buffer` does not hold exactly one row. Allocates nothing.
    void deserialize(std::span<const T> buffer) {
        if (buffer.size() != m_Words.size()) {
            throw CppUtil::ParsingError("Incorrect length of serialized data buffer");
        }
        std::ranges::copy(buffer, m_Words.begin());
        if (!fromWords()) {
            clear();
        }
    }

    /// The serialized form, as last set by toWords() or deserialize().
    const std::vector<T>& getWords() const { return m_Words; }

protected:
    explicit SerilizeableEntry(std::size_t wordCount) : m_Words(wordCount) {}
    // Copied only as part of a row.
    SerilizeableEntry(const SerilizeableEntry&) = default;
    SerilizeableEntry(SerilizeableEntry&&) noexcept = default;
    SerilizeableEntry& operator=(const SerilizeableEntry&) = default;
    SerilizeableEntry& operator=(SerilizeableEntry&&) noexcept = default;

    std::vector<T> m_Words;
};

}  // namespace Vel::Drivers::Misc
