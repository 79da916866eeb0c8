#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "vel/cpp_utils/network/ipadrcontainer.h"
#include "vel/cpp_utils/network/macadrcontainer.h"
#include "vel/userspace_drivers/drivers/driver_error.h"
#include "vel/userspace_drivers/drivers/zep/ts/bitfield.h"
#include "vel/userspace_drivers/drivers_misc/serentry.h"

namespace Vel::Drivers::Zep {

/// Returns `value`; throws ZepDriverError with `refusal`, the value and ")" when it lies outside `range`.
[[nodiscard]] inline std::uint32_t requireInRange(std::uint32_t value, const Range& range,
                                                  const char* refusal) {
    if (!range.contains(value)) {
        throw ZepDriverError(refusal + std::to_string(value) + ")");
    }
    return value;
}

/// Bits of a MAC address; element i holds octet i.
using MacBits = std::array<BitField, CppUtil::MacAdrContainer::OCTETS>;

/// Writes fields into the words of a row, which must be zero at first.
struct RowEncoder {
    std::span<std::uint32_t> words;

    void operator()(const BitField& bits, std::uint32_t value) const {
        words[bits.word] |= bits.place(value);
    }
    void operator()(const BitField& bits, const CppUtil::IpAdrContainer& address) const {
        (*this)(bits, address.toUint32());
    }
    void operator()(const MacBits& bits, const CppUtil::MacAdrContainer& address) const {
        for (unsigned octet = 0; octet < bits.size(); ++octet) {
            (*this)(bits[octet], address.getOctet(octet));
        }
    }
};

/// Reads fields from the words of a row.
struct RowDecoder {
    std::span<const std::uint32_t> words;

    std::uint32_t extract(const BitField& bits) const { return bits.extract(words[bits.word]); }
    void operator()(const BitField& bits, std::uint32_t& value) const { value = extract(bits); }
    void operator()(const BitField& bits, bool& flag) const { flag = extract(bits) != 0; }
    void operator()(const BitField& bits, CppUtil::IpAdrContainer& address) const {
        address.setUint32(extract(bits));
    }
    void operator()(const MacBits& bits, CppUtil::MacAdrContainer& address) const {
        std::vector<std::uint8_t> octets(bits.size());
        std::ranges::transform(bits, octets.begin(), [&](const BitField& octet) {
            return static_cast<std::uint8_t>(extract(octet));
        });
        address = CppUtil::MacAdrContainer(octets);
    }
};

/// A table row of `WORD_COUNT` words whose fields are bit fields of these words. A plain value; reentrant.
///
/// Its constructors and setters throw ZepDriverError for a value that does not fit its field; a setter that
/// throws changes nothing. Every combination of bits is a valid row, so reading from words never fails.
///
/// The derived class lists its fields once for both directions: a static `visitFields(row, visit)` calls
/// `visit(bits, field)` for every stored field.
template <class Row, std::uint32_t WORD_COUNT>
class TableRow : public Misc::SerilizeableEntry<unsigned int> {
public:
    static constexpr std::uint32_t WORDS = WORD_COUNT;

    void toWords() override {
        std::ranges::fill(m_Words, 0U);
        Row::visitFields(static_cast<const Row&>(*this), RowEncoder{m_Words});
    }
    bool fromWords() override {
        Row::visitFields(static_cast<Row&>(*this), RowDecoder{m_Words});
        return true;
    }

protected:
    TableRow() : SerilizeableEntry(WORD_COUNT) {}
};

}  // namespace Vel::Drivers::Zep
