#pragma once

#include <cstdint>
#include <vector>

#include "vel/userspace_drivers/interfaces/lindevmemaccessor.h"

namespace Vel::Drivers {

/// Device memory in a plain vector of words, all zero at first.
class FakeMemory : public LinDevMemAccessor {
public:
    explicit FakeMemory(std::size_t wordCount) : words(wordCount) {}

    MemSegment getMemSegment() const override {
        return {.size = static_cast<std::uint32_t>(words.size() * sizeof(std::uint32_t)),
                .base = reinterpret_cast<std::uint8_t*>(const_cast<std::uint32_t*>(words.data()))};
    }
    using LinDevMemAccessor::checkAccess;

    std::vector<std::uint32_t> words;
};

}  // namespace Vel::Drivers
