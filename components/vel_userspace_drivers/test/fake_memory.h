#pragma once

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"
#include "vel/userspace_drivers/interfaces/lindevmemaccessor.h"

namespace Vel::Drivers {

/// Device memory in a plain vector of words, all zero at first; by default as much as the larger device has.
class FakeMemory : public LinDevMemAccessor {
public:
    explicit FakeMemory(std::size_t wordCount = Zep::ROUTER_DEVICE.size / sizeof(std::uint32_t))
        : words(wordCount) {}

    MemSegment getMemSegment() const override {
        return {.size = static_cast<std::uint32_t>(words.size() * sizeof(std::uint32_t)),
                .base = reinterpret_cast<std::uint8_t*>(const_cast<std::uint32_t*>(words.data()))};
    }
    using LinDevMemAccessor::checkAccess;

    std::vector<std::uint32_t> words;
};

/// Calls the test before each word is read, and records every read and every store.
class WatchedMemory : public FakeMemory {
public:
    std::uint32_t read32(std::uint32_t index) override {
        std::uint32_t word = 0;
        readBlock32Into(index, std::span(&word, 1));
        return word;
    }
    void readBlock32Into(std::uint32_t index, std::span<std::uint32_t> target) override {
        for (std::size_t i = 0; i < target.size(); ++i) {
            beforeLoad();
            target[i] = words.at(index + i);
        }
        reads.emplace_back(index, std::vector(target.begin(), target.end()));
    }
    void write32(std::uint32_t index, std::uint32_t value) override {
        LinDevMemAccessor::write32(index, value);
        stores.emplace_back(index, value);
    }
    void writeBlock32(std::uint32_t index, const std::vector<std::uint32_t>& values) override {
        for (const std::uint32_t value : values) {
            write32(index++, value);
        }
    }
    void verifyMemory() const override {
        if (isLost) {
            throw DevMemError("lost", "memory", 1);
        }
    }

    std::function<void()> beforeLoad = [] {};
    bool isLost = false;
    std::vector<std::pair<std::uint32_t, std::vector<std::uint32_t>>> reads;  // first index, words
    std::vector<std::pair<std::uint32_t, std::uint32_t>> stores;              // index, value
};

}  // namespace Vel::Drivers
