#include "vel/userspace_drivers/interfaces/lindevmemaccessor.h"

#include <iterator>

namespace Vel::Drivers {

namespace {

struct AccessType {
    const char* name;
    std::uint64_t width;  // bytes, 0 for a type that no access has
};

const AccessType& describe(MemAccessType type) {
    // In the order of MemAccessType.
    static constexpr AccessType TYPES[] = {{"R32", 4}, {"R16", 2}, {"R8", 1},
                                           {"W32", 4}, {"W16", 2}, {"W8", 1}};
    static constexpr AccessType UNDEFINED{"undefined", 0};
    const auto index = static_cast<std::size_t>(type);
    return index < std::size(TYPES) ? TYPES[index] : UNDEFINED;
}

}  // namespace

const char* accessTypeToString(MemAccessType type) {
    return describe(type).name;
}

void LinDevMemAccessor::checkAccess(std::uint32_t segmentSize, std::uint64_t byteOffset,
                                    std::uint64_t byteSize, MemAccessType type) const {
    checkAccessible();
    // An index and a count have 32 bits and a unit at most 4 bytes, so both values stay below 2^34.
    if (byteOffset > segmentSize || byteSize > segmentSize - byteOffset) {
        throw DevMemError("Cannot access device memory. Byte offset " + std::to_string(byteOffset) +
                          " and byte size " + std::to_string(byteSize) + " crosses memory segment boundary");
    }
    if (const std::uint64_t width = describe(type).width; width == 0 || byteOffset % width != 0) {
        throw DevMemError("Cannot access device memory. Byte offset " + std::to_string(byteOffset) +
                          ", byte size " + std::to_string(byteSize) + " and memory access type \"" +
                          accessTypeToString(type) + "\" causes invalid allignment.");
    }
}

}  // namespace Vel::Drivers
