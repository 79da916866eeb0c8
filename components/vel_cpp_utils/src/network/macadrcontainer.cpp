#include "vel/cpp_utils/network/macadrcontainer.h"

#include <algorithm>
#include <cctype>
#include <charconv>

#include <fmt/format.h>

#include "vel/cpp_utils/error.h"

namespace Vel::CppUtil {

namespace {

constexpr int HEXADECIMAL = 16;
constexpr std::size_t PAIR_DIGITS = 2;
constexpr std::size_t PAIR_DISTANCE = PAIR_DIGITS + 1;  // a pair and its colon
constexpr std::size_t TEXT_LENGTH = MacAdrContainer::OCTETS * PAIR_DISTANCE - 1;

}  // namespace

MacAdrContainer::MacAdrContainer(const IpAdrContainer& group) {
    if (!group.isMulticast()) {
        throw InvalidArgumentError("IP address must be in the multicast range");
    }
    const auto groupBits16To22 = static_cast<std::uint8_t>(group.getOctet(2) & 0x7F);
    m_Octets = {group.getOctet(0), group.getOctet(1), groupBits16To22, 0x5E, 0x00, 0x01};
}

MacAdrContainer& MacAdrContainer::operator=(const std::string& text) {
    m_Octets = fromString(text);
    return *this;
}

std::uint8_t MacAdrContainer::getOctet(unsigned index) const {
    if (index >= OCTETS) {
        throw OutOfRangeError("Octet index is out of range of a 48bit MAC address. Got " +
                              std::to_string(index) + " expected less than " + std::to_string(OCTETS) + ".");
    }
    return m_Octets[index];
}

std::string MacAdrContainer::toString() const {
    return fmt::format("{:02X}", fmt::join(m_Octets.rbegin(), m_Octets.rend(), ":"));
}

bool MacAdrContainer::isValidString(const std::string& text) {
    if (text.size() != TEXT_LENGTH) {
        return false;
    }
    for (std::size_t i = 0; i < TEXT_LENGTH; ++i) {
        const bool isColonPlace = i % PAIR_DISTANCE == PAIR_DIGITS;
        if (isColonPlace ? text[i] != ':' : std::isxdigit(static_cast<unsigned char>(text[i])) == 0) {
            return false;
        }
    }
    return true;
}

MacAdrContainer::Octets MacAdrContainer::fromString(const std::string& text) {
    if (!isValidString(text)) {
        throw ParsingError("Unable to parse string representation of MAC address: \"" + text + "\"");
    }
    Octets octets{};
    for (std::size_t i = 0; i < OCTETS; ++i) {
        const char* pair = &text[(OCTETS - 1 - i) * PAIR_DISTANCE];
        std::from_chars(pair, pair + PAIR_DIGITS, octets[i], HEXADECIMAL);
    }
    return octets;
}

MacAdrContainer::Octets MacAdrContainer::fromOctets(const std::vector<std::uint8_t>& octets) {
    if (octets.size() != OCTETS) {
        throw OutOfRangeError("Invalid size of MAC address octet vector. Expected " + std::to_string(OCTETS) +
                              " octets, but got " + std::to_string(octets.size()));
    }
    Octets result{};
    std::copy(octets.begin(), octets.end(), result.begin());
    return result;
}

}  // namespace Vel::CppUtil
