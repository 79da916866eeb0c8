#include "vel/cpp_utils/network/ipadrcontainer.h"

#include <charconv>

#include "vel/cpp_utils/error.h"

namespace Vel::CppUtil {

namespace {

constexpr unsigned BITS_PER_OCTET = 8;
constexpr std::size_t TEXT_LENGTH_MIN = 7;
constexpr std::size_t TEXT_LENGTH_MAX = 15;
constexpr unsigned GROUP_DIGITS_MAX = 3;
constexpr unsigned DOTS = IpAdrContainer::OCTETS - 1;

}  // namespace

std::uint8_t IpAdrContainer::getOctet(unsigned index) const {
    if (index >= OCTETS) {
        throw OutOfRangeError("Octet index (" + std::to_string(index) + ") out of range.");
    }
    return static_cast<std::uint8_t>(m_Value >> (BITS_PER_OCTET * index));
}

std::vector<std::uint8_t> IpAdrContainer::toOctets() const {
    return {getOctet(0), getOctet(1), getOctet(2), getOctet(3)};
}

std::string IpAdrContainer::toString() const {
    return std::to_string(getOctet(3)) + "." + std::to_string(getOctet(2)) + "." +
           std::to_string(getOctet(1)) + "." + std::to_string(getOctet(0));
}

bool IpAdrContainer::isValidString(const std::string& text) {
    if (text.size() < TEXT_LENGTH_MIN || text.size() > TEXT_LENGTH_MAX) {
        return false;
    }
    unsigned dots = 0;
    unsigned groupDigits = 0;
    for (const char c : text) {
        if (c == '.') {
            if (groupDigits == 0 || ++dots > DOTS) {
                return false;
            }
            groupDigits = 0;
        } else if (c < '0' || c > '9' || ++groupDigits > GROUP_DIGITS_MAX) {
            return false;
        }
    }
    return true;
}

std::uint32_t IpAdrContainer::fromString(const std::string& text) {
    bool isValid = isValidString(text);
    std::uint32_t value = 0;
    const char* next = text.data();
    const char* const end = next + text.size();
    for (unsigned group = 0; isValid && group < OCTETS; ++group) {
        std::uint8_t octet = 0;
        const auto [stop, error] = std::from_chars(next, end, octet);
        isValid = error == std::errc() && (stop == end) == (group == OCTETS - 1);
        value = value << BITS_PER_OCTET | octet;
        next = stop == end ? end : stop + 1;
    }
    if (!isValid) {
        throw ParsingError("Unable to parse string representation of IPv4 address: \"" + text + "\"");
    }
    return value;
}

std::uint32_t IpAdrContainer::fromOctets(const std::vector<std::uint8_t>& octets) {
    if (octets.size() != OCTETS) {
        throw OutOfRangeError("Octet vector has invalid size (" + std::to_string(octets.size()) +
                              ") expected " + std::to_string(OCTETS));
    }
    std::uint32_t value = 0;
    for (unsigned i = 0; i < OCTETS; ++i) {
        value |= std::uint32_t{octets[i]} << (BITS_PER_OCTET * i);
    }
    return value;
}

}  // namespace Vel::CppUtil
