#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "vel/cpp_utils/error.h"
#include "vel/userspace_drivers/interfaces/memif.h"

namespace Vel::Drivers {

/// An access does not lie within the device's memory, or not on a multiple of its width.
class DevMemError : public Error {
public:
    DevMemError(const std::string& detail, const char* file, int line)
        : Error("Device memory Error: " + detail, file, line) {}
};

/// Memory that an accessor may touch.
struct MemSegment {
    std::uint32_t size = 0;        ///< accessible bytes
    std::uint8_t* base = nullptr;  ///< the first of them, null when nothing is mapped
};

enum class MemAccessType { R32, R16, R8, W32, W16, W8 };

/// "R32" to "W8"; "undefined" for any other value.
const char* accessTypeToString(MemAccessType type);

/// Device memory as one linear segment, which a derived class supplies. Every operation tests its whole range
/// first, then makes exactly one load or store of its width a unit, in ascending order: a failed access
/// changes nothing.
///
/// All operations throw DevMemError when the range passes the segment's end, and whatever checkAccessible()
/// throws. Thread-bound: one thread at a time.
class LinDevMemAccessor : public IMemIf {
public:
    std::uint32_t read32(std::uint32_t index) override;
    std::uint16_t read16(std::uint32_t index) override;
    std::uint8_t read8(std::uint32_t index) override;
    void write32(std::uint32_t index, std::uint32_t value) override;
    void write16(std::uint32_t index, std::uint16_t value) override;
    void write8(std::uint32_t index, std::uint8_t value) override;

    std::vector<std::uint32_t> readBlock32(std::uint32_t index, std::uint32_t count) override;
    std::vector<std::uint16_t> readBlock16(std::uint32_t index, std::uint32_t count) override;
    std::vector<std::uint8_t> readBlock8(std::uint32_t index, std::uint32_t count) override;
    void writeBlock32(std::uint32_t index, const std::vector<std::uint32_t>& values) override;
    void writeBlock16(std::uint32_t index, const std::vector<std::uint16_t>& values) override;
    void writeBlock8(std::uint32_t index, const std::vector<std::uint8_t>& values) override;

    void readBlock32Into(std::uint32_t index, std::span<std::uint32_t> words) override;

    /// The memory to access; asked for on every operation.
    virtual MemSegment getMemSegment() const = 0;
    /// Throws when the segment cannot be accessed at present; called before every access.
    virtual void checkAccessible() const {}

protected:
    /// Throws unless `byteSize` bytes from `byteOffset` on lie within `segmentSize` bytes and start on a
    /// multiple of the access' width.
    void checkAccess(std::uint32_t segmentSize, std::uint64_t byteOffset, std::uint64_t byteSize,
                     MemAccessType type) const;

private:
    template <typename Unit>
    Unit* checkedUnits(std::uint32_t index, std::uint64_t count, MemAccessType type) const;
    template <typename Unit>
    std::vector<Unit> readUnits(std::uint32_t index, std::uint32_t count) const;
    template <typename Unit>
    void readUnitsInto(std::uint32_t index, std::span<Unit> units) const;
    template <typename Unit>
    void writeUnits(std::uint32_t index, std::span<const Unit> units) const;
};

}  // namespace Vel::Drivers
