#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Vel::CppUtil {

/// IPv4 address value. Octets are counted from the least significant byte, as the hardware tables hold them:
/// octet 3 is the first component of the dotted form, octet 0 the last. An octet vector has exactly four
/// elements, element i being octet i. Reentrant.
class IpAdrContainer {
public:
    static constexpr unsigned OCTETS = 4;

    /// 0.0.0.0
    IpAdrContainer() = default;
    explicit IpAdrContainer(std::uint32_t value) : m_Value(value) {}
    /// Throws as fromString() does.
    explicit IpAdrContainer(const std::string& text) : m_Value(fromString(text)) {}
    /// Throws as fromOctets() does.
    explicit IpAdrContainer(const std::vector<std::uint8_t>& octets) : m_Value(fromOctets(octets)) {}

    void setUint32(std::uint32_t value) { m_Value = value; }
    std::uint32_t toUint32() const { return m_Value; }

    /// @param index 0..3
    /// @throws OutOfRangeError for any other index
    std::uint8_t getOctet(unsigned index) const;
    std::vector<std::uint8_t> toOctets() const;

    /// Dotted decimal text without leading zeros, 7 to 15 characters.
    std::string toString() const;

    /// Whether the address lies in 224.0.0.0/4 (RFC 1112, 4).
    bool isMulticast() const { return m_Value >> 28 == 0xE; }

    /// Whether `text` looks like an address: length, characters, length of the groups, a group before each
    /// dot. Only fromString() checks that there are four groups, and their values.
    static bool isValidString(const std::string& text);
    /// Value of four decimal groups 0..255; leading zeros are allowed and do not make a group octal.
    /// @throws ParsingError for any other text
    static std::uint32_t fromString(const std::string& text);
    /// @throws OutOfRangeError unless there are four octets
    static std::uint32_t fromOctets(const std::vector<std::uint8_t>& octets);

private:
    std::uint32_t m_Value = 0;
};

}  // namespace Vel::CppUtil
