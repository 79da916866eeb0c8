#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "vel/cpp_utils/network/ipadrcontainer.h"

namespace Vel::CppUtil {

/// 48-bit Ethernet address value. Octets are counted from the end of the written form, as the hardware tables
/// hold them: octet 5 is written first, octet 0 last. Reentrant.
class MacAdrContainer {
public:
    static constexpr unsigned OCTETS = 6;
    /// Element i is octet i.
    using Octets = std::array<std::uint8_t, OCTETS>;

    /// 00:00:00:00:00:00
    MacAdrContainer() = default;
    /// Throws as fromString() does.
    explicit MacAdrContainer(const std::string& text) : m_Octets(fromString(text)) {}
    /// Throws as fromOctets() does.
    explicit MacAdrContainer(const std::vector<std::uint8_t>& octets) : m_Octets(fromOctets(octets)) {}
    /// The destination address of frames to an IPv4 multicast group: 01:00:5E followed by the low 23 bits of
    /// the group (RFC 1112, 6.4).
    /// @throws InvalidArgumentError if `group` is not a multicast address
    explicit MacAdrContainer(const IpAdrContainer& group);

    /// Throws as fromString() does, and then keeps the old address.
    MacAdrContainer& operator=(const std::string& text);

    /// @param index 0..5
    /// @throws OutOfRangeError for any other index
    std::uint8_t getOctet(unsigned index) const;

    /// Six pairs of upper-case hexadecimal digits separated by colons, 17 characters.
    std::string toString() const;

    /// Whether `text` is six pairs of hexadecimal digits, of either case, separated by colons.
    static bool isValidString(const std::string& text);
    /// @throws ParsingError unless isValidString()
    static Octets fromString(const std::string& text);
    /// @throws OutOfRangeError unless there are six octets
    static Octets fromOctets(const std::vector<std::uint8_t>& octets);

private:
    Octets m_Octets{};
};

}  // namespace Vel::CppUtil
