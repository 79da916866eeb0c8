#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "vel/cpp_utils/error.h"
#include "vel/userspace_drivers/interfaces/memif.h"

namespace Vel::Drivers {

/// An access is outside the device's memory or is not aligned to its width.
using DevMemError = CategoryError<Error, "Device memory Error: ">;

/// Memory that an accessor may touch.
struct MemSegment {
    std::uint32_t size = 0;        ///< accessible bytes
    std::uint8_t* base = nullptr;  ///< the first of them, null when nothing is mapped
};

enum class MemAccessType { R32, R16, R8, W32, W16, W8 };

/// "R32" to "W8"; "undefined" for any other value.
const char* accessTypeToString(MemAccessType type);

/// Device memory as one linear segment, which a derived class supplies. Every operation first checks its
/// whole range, then makes exactly one load or store of its width per unit, in ascending order. A failed
/// access changes nothing.
///
/// All operations throw DevMemError when the range extends past the end of the segment, and whatever
/// checkAccessible() throws. Thread-bound: one thread at a time.
class LinDevMemAccessor : public IMemIf {
public:
    std::uint32_t read32(std::uint32_t index) override { return readUnit<std::uint32_t>(index); }
    std::uint16_t read16(std::uint32_t index) override { return readUnit<std::uint16_t>(index); }
    std::uint8_t read8(std::uint32_t index) override { return readUnit<std::uint8_t>(index); }
    void write32(std::uint32_t index, std::uint32_t value) override {
        writeUnits<std::uint32_t>(index, {&value, 1});
    }
    void write16(std::uint32_t index, std::uint16_t value) override {
        writeUnits<std::uint16_t>(index, {&value, 1});
    }
    void write8(std::uint32_t index, std::uint8_t value) override {
        writeUnits<std::uint8_t>(index, {&value, 1});
    }

    std::vector<std::uint32_t> readBlock32(std::uint32_t index, std::uint32_t count) override {
        return readUnits<std::uint32_t>(index, count);
    }
    std::vector<std::uint16_t> readBlock16(std::uint32_t index, std::uint32_t count) override {
        return readUnits<std::uint16_t>(index, count);
    }
    std::vector<std::uint8_t> readBlock8(std::uint32_t index, std::uint32_t count) override {
        return readUnits<std::uint8_t>(index, count);
    }
    void writeBlock32(std::uint32_t index, const std::vector<std::uint32_t>& values) override {
        writeUnits<std::uint32_t>(index, values);
    }
    void writeBlock16(std::uint32_t index, const std::vector<std::uint16_t>& values) override {
        writeUnits<std::uint16_t>(index, values);
    }
    void writeBlock8(std::uint32_t index, const std::vector<std::uint8_t>& values) override {
        writeUnits<std::uint8_t>(index, values);
    }

    void readBlock32Into(std::uint32_t index, std::span<std::uint32_t> words) override {
        load(locate<std::uint32_t>(index, words.size(), MemAccessType::R32), words);
    }

    /// The memory to access; called by every operation.
    virtual MemSegment getMemSegment() const = 0;
    /// Throws when the segment is currently not accessible; called before every access.
    virtual void checkAccessible() const {}

protected:
    /// Throws unless `byteSize` bytes from `byteOffset` on lie within `segmentSize` bytes and `byteOffset` is
    /// a multiple of the width of a defined access type.
    void checkAccess(std::uint32_t segmentSize, std::uint64_t byteOffset, std::uint64_t byteSize,
                     MemAccessType type) const;

private:
    template <typename Unit>
    static constexpr MemAccessType READ = sizeof(Unit) == 4   ? MemAccessType::R32
                                          : sizeof(Unit) == 2 ? MemAccessType::R16
                                                              : MemAccessType::R8;
    template <typename Unit>
    static constexpr MemAccessType WRITE = sizeof(Unit) == 4   ? MemAccessType::W32
                                           : sizeof(Unit) == 2 ? MemAccessType::W16
                                                               : MemAccessType::W8;

    template <typename Unit>
    Unit* locate(std::uint32_t index, std::uint64_t count, MemAccessType type) const {
        const MemSegment segment = getMemSegment();
        checkAccess(segment.size, std::uint64_t{index} * sizeof(Unit), count * sizeof(Unit), type);
        return static_cast<Unit*>(static_cast<void*>(segment.base)) + index;
    }

    // Only load() and writeUnits() touch device memory. It may change at any time, and stores have effects
    // that the compiler does not know. volatile makes it emit one load or store of the full width per unit,
    // in order, none merged, repeated or omitted.
    template <typename Unit>
    static void load(const volatile Unit* device, std::span<Unit> units) {
        for (Unit& unit : units) {
            unit = *device++;
        }
    }

    template <typename Unit>
    std::vector<Unit> readUnits(std::uint32_t index, std::uint32_t count) const {
        // Checked before the vector is allocated: an excessive count is a range error, not bad_alloc.
        const Unit* device = locate<Unit>(index, count, READ<Unit>);
        std::vector<Unit> units(count);
        load(device, std::span(units));
        return units;
    }

    template <typename Unit>
    Unit readUnit(std::uint32_t index) const {
        Unit unit = 0;
        load(locate<Unit>(index, 1, READ<Unit>), std::span(&unit, 1));
        return unit;
    }

    template <typename Unit>
    void writeUnits(std::uint32_t index, std::span<const Unit> units) const {
        volatile Unit* device = locate<Unit>(index, units.size(), WRITE<Unit>);
        for (const Unit unit : units) {
            *device++ = unit;
        }
    }
};

}  // namespace Vel::Drivers
