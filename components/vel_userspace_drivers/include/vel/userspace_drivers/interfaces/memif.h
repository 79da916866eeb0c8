#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

namespace Vel::Drivers {

/// Access to the memory of a device, in units of 32, 16 and 8 bits. All other code accesses registers and
/// tables only through this interface, so a test can replace the device with a plain vector.
///
/// An index counts units of the operation's width from the start of the accessible memory. An access that
/// extends past its end, or is not possible at all, throws and leaves the memory unchanged; see the
/// implementation for the errors. Thread-bound: one thread at a time.
class IMemIf {
public:
    virtual std::uint32_t read32(std::uint32_t index) = 0;
    virtual std::uint16_t read16(std::uint32_t index) = 0;
    virtual std::uint8_t read8(std::uint32_t index) = 0;
    virtual void write32(std::uint32_t index, std::uint32_t value) = 0;
    virtual void write16(std::uint32_t index, std::uint16_t value) = 0;
    virtual void write8(std::uint32_t index, std::uint8_t value) = 0;

    /// `count` units from `index` on, read in ascending order.
    virtual std::vector<std::uint32_t> readBlock32(std::uint32_t index, std::uint32_t count) = 0;
    virtual std::vector<std::uint16_t> readBlock16(std::uint32_t index, std::uint32_t count) = 0;
    virtual std::vector<std::uint8_t> readBlock8(std::uint32_t index, std::uint32_t count) = 0;
    /// Stores all of `values` from `index` on, in ascending order.
    virtual void writeBlock32(std::uint32_t index, const std::vector<std::uint32_t>& values) = 0;
    virtual void writeBlock16(std::uint32_t index, const std::vector<std::uint16_t>& values) = 0;
    virtual void writeBlock8(std::uint32_t index, const std::vector<std::uint8_t>& values) = 0;

    virtual ~IMemIf() = default;

    /// As readBlock32(), into the caller's buffer: a caller that polls a table can reuse one buffer.
    virtual void readBlock32Into(std::uint32_t index, std::span<std::uint32_t> words) {
        std::ranges::copy(readBlock32(index, static_cast<std::uint32_t>(words.size())), words.begin());
    }

    /// Throws when the words read so far may not come from the device any more. It may make a system call, so
    /// it is not part of every access: call it before acting on a change.
    virtual void verifyMemory() const {}

    /// Makes memory that was lost accessible again, if possible. Makes no system call while nothing is lost.
    virtual void restoreMemory() {}
};

}  // namespace Vel::Drivers
