#include "vel/userspace_drivers/interfaces/lindevmemaccessor.h"

namespace Vel::Drivers {

namespace {

// The only places that touch device memory. The compiler cannot know that it changes
// and acts by itself: volatile keeps one load or store of the full width per unit, in order, none merged with
// a neighbour, repeated or left out.
template <typename Unit>
void load(const volatile Unit* device, std::span<Unit> units) {
    for (Unit& unit : units) {
        unit = *device++;
    }
}

template <typename Unit>
void store(volatile Unit* device, std::span<const Unit> units) {
    for (const Unit unit : units) {
        *device++ = unit;
    }
}

template <typename Unit>
constexpr MemAccessType READ = sizeof(Unit) == 4   ? MemAccessType::R32
                               : sizeof(Unit) == 2 ? MemAccessType::R16
                                                   : MemAccessType::R8;
template <typename Unit>
constexpr MemAccessType WRITE = sizeof(Unit) == 4   ? MemAccessType::W32
                                : sizeof(Unit) == 2 ? MemAccessType::W16
                                                    : MemAccessType::W8;

bool isAligned(std::uint64_t byteOffset, MemAccessType type) {
    switch (type) {
        case MemAccessType::R32:
        case MemAccessType::W32:
            return byteOffset % 4 == 0;
        case MemAccessType::R16:
        case MemAccessType::W16:
            return byteOffset % 2 == 0;
        case MemAccessType::R8:
        case MemAccessType::W8:
            return true;
    }
    return false;
}

}  // namespace

const char* accessTypeToString(MemAccessType type) {
    switch (type) {
        case MemAccessType::R32:
            return "R32";
        case MemAccessType::R16:
            return "R16";
        case MemAccessType::R8:
            return "R8";
        case MemAccessType::W32:
            return "W32";
        case MemAccessType::W16:
            return "W16";
        case MemAccessType::W8:
            return "W8";
    }
    return "undefined";
}

void LinDevMemAccessor::checkAccess(std::uint32_t segmentSize, std::uint64_t byteOffset,
                                    std::uint64_t byteSize, MemAccessType type) const {
    checkAccessible();
    // An index and a count have 32 bits and a unit at most 4 bytes, so both values stay below 2^34.
    if (byteOffset > segmentSize || byteSize > segmentSize - byteOffset) {
        throw DevMemError("Cannot access device memory. Byte offset " + std::to_string(byteOffset) +
                              " and byte size " + std::to_string(byteSize) +
                              " crosses memory segment boundary",
                          __FILE__, __LINE__);
    }
    if (!isAligned(byteOffset, type)) {
        throw DevMemError("Cannot access device memory. Byte offset " + std::to_string(byteOffset) +
                              ", byte size " + std::to_string(byteSize) + " and memory access type \"" +
                              accessTypeToString(type) + "\" causes invalid allignment.",
                          __FILE__, __LINE__);
    }
}

template <typename Unit>
Unit* LinDevMemAccessor::checkedUnits(std::uint32_t index, std::uint64_t count, MemAccessType type) const {
    const MemSegment segment = getMemSegment();
    const std::uint64_t byteOffset = std::uint64_t{index} * sizeof(Unit);
    checkAccess(segment.size, byteOffset, count * sizeof(Unit), type);
    return reinterpret_cast<Unit*>(segment.base) + index;
}

template <typename Unit>
void LinDevMemAccessor::readUnitsInto(std::uint32_t index, std::span<Unit> units) const {
    load(checkedUnits<Unit>(index, units.size(), READ<Unit>), units);
}

template <typename Unit>
std::vector<Unit> LinDevMemAccessor::readUnits(std::uint32_t index, std::uint32_t count) const {
    // Tested before the vector exists: a senseless count is a range error, not a lack of memory.
    const Unit* device = checkedUnits<Unit>(index, count, READ<Unit>);
    std::vector<Unit> units(count);
    load(device, std::span(units));
    return units;
}

template <typename Unit>
void LinDevMemAccessor::writeUnits(std::uint32_t index, std::span<const Unit> units) const {
    store(checkedUnits<Unit>(index, units.size(), WRITE<Unit>), units);
}

std::uint32_t LinDevMemAccessor::read32(std::uint32_t index) {
    std::uint32_t value = 0;
    readUnitsInto(index, std::span(&value, 1));
    return value;
}

std::uint16_t LinDevMemAccessor::read16(std::uint32_t index) {
    std::uint16_t value = 0;
    readUnitsInto(index, std::span(&value, 1));
    return value;
}

std::uint8_t LinDevMemAccessor::read8(std::uint32_t index) {
    std::uint8_t value = 0;
    readUnitsInto(index, std::span(&value, 1));
    return value;
}

void LinDevMemAccessor::write32(std::uint32_t index, std::uint32_t value) {
    writeUnits<std::uint32_t>(index, {&value, 1});
}

void LinDevMemAccessor::write16(std::uint32_t index, std::uint16_t value) {
    writeUnits<std::uint16_t>(index, {&value, 1});
}

void LinDevMemAccessor::write8(std::uint32_t index, std::uint8_t value) {
    writeUnits<std::uint8_t>(index, {&value, 1});
}

std::vector<std::uint32_t> LinDevMemAccessor::readBlock32(std::uint32_t index, std::uint32_t count) {
    return readUnits<std::uint32_t>(index, count);
}

std::vector<std::uint16_t> LinDevMemAccessor::readBlock16(std::uint32_t index, std::uint32_t count) {
    return readUnits<std::uint16_t>(index, count);
}

std::vector<std::uint8_t> LinDevMemAccessor::readBlock8(std::uint32_t index, std::uint32_t count) {
    return readUnits<std::uint8_t>(index, count);
}

void LinDevMemAccessor::writeBlock32(std::uint32_t index, const std::vector<std::uint32_t>& values) {
    writeUnits<std::uint32_t>(index, values);
}

void LinDevMemAccessor::writeBlock16(std::uint32_t index, const std::vector<std::uint16_t>& values) {
    writeUnits<std::uint16_t>(index, values);
}

void LinDevMemAccessor::writeBlock8(std::uint32_t index, const std::vector<std::uint8_t>& values) {
    writeUnits<std::uint8_t>(index, values);
}

void LinDevMemAccessor::readBlock32Into(std::uint32_t index, std::span<std::uint32_t> words) {
    readUnitsInto(index, words);
}

}  // namespace Vel::Drivers
