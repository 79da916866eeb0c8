#pragma once

#include <algorithm>
#include <cstddef>
#include <span>
#include <vector>

#include "vel/cpp_utils/error.h"

namespace Vel::Drivers::Misc {

/// Base of the rows of hardware tables: a value with named fields and a serialized form of a fixed number of
/// words. toWords() and fromWords() carry the one over to the other; nothing else keeps them in step.
/// Reentrant.
template <typename T>
class SerilizeableEntry {
public:
    virtual ~SerilizeableEntry() = default;

    /// Writes the fields into the words.
    virtual void toWords() = 0;
    /// Reads the fields from the words; false when they hold no valid row.
    virtual bool fromWords() = 0;
    /// Resets the fields to those of a cleared row.
    virtual void clear() = 0;

    /// Takes over one row's words and reads the fields from them; an invalid row becomes a cleared one.
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

    /// The serialized form, as toWords() or deserialize() left it.
    const std::vector<T>& getWords() const { return m_Words; }

protected:
    explicit SerilizeableEntry(std::size_t wordCount) : m_Words(wordCount) {}
    // Copied as a part of a row only, never on its own.
    SerilizeableEntry(const SerilizeableEntry&) = default;
    SerilizeableEntry(SerilizeableEntry&&) noexcept = default;
    SerilizeableEntry& operator=(const SerilizeableEntry&) = default;
    SerilizeableEntry& operator=(SerilizeableEntry&&) noexcept = default;

    /// The fields were set rather than only read from words; so from construction on.
    void setModified() { m_Modified = true; }

    std::vector<T> m_Words;

private:
    bool m_Modified = true;
};

}  // namespace Vel::Drivers::Misc
