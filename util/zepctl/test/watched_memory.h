#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "fpga_monitoring/ifpga_event_consumer.h"
#include "vel/userspace_drivers/interfaces/lindevmemaccessor.h"

namespace Vel::Zepctl {

struct Store {
    std::uint32_t index;
    std::uint32_t value;
};

/// Device memory in a plain vector, that lets a test step in between any two stores or loads of a word.
class WatchedMemory : public Drivers::LinDevMemAccessor {
public:
    explicit WatchedMemory(std::size_t byteCount) : words(byteCount / sizeof(std::uint32_t)) {}

    Drivers::MemSegment getMemSegment() const override {
        return {.size = static_cast<std::uint32_t>(words.size() * sizeof(std::uint32_t)),
                .base = reinterpret_cast<std::uint8_t*>(const_cast<std::uint32_t*>(words.data()))};
    }

    void write32(std::uint32_t index, std::uint32_t value) override {
        LinDevMemAccessor::write32(index, value);
        stores.push_back({index, value});
        if (afterStore) {
            afterStore();
        }
    }
    void writeBlock32(std::uint32_t index, const std::vector<std::uint32_t>& values) override {
        for (const std::uint32_t value : values) {
            write32(index++, value);
        }
    }

    std::uint32_t read32(std::uint32_t index) override {
        if (beforeLoad) {
            beforeLoad();
        }
        return LinDevMemAccessor::read32(index);
    }
    void readBlock32Into(std::uint32_t index, std::span<std::uint32_t> target) override {
        for (std::uint32_t& word : target) {
            word = read32(index++);
        }
    }

    /// Puts a row at a word index as other software may, unseen and without regard to order.
    template <typename Row>
    void putRow(std::size_t index, Row row) {
        row.toWords();
        for (const std::uint32_t word : row.getWords()) {
            words.at(index++) = word;
        }
    }

    std::vector<std::uint32_t> words;
    std::vector<Store> stores;  ///< all that were made
    std::function<void()> afterStore;
    std::function<void()> beforeLoad;
};

/// What a monitor reported, a text an event: "+" or "-" and the row.
class EventTexts : public Utils::IFPGAEventConsumer {
public:
    void handleEvent(std::unique_ptr<Utils::FPGAMonEvent> event) override {
        m_Texts.push_back(textOf(*event));
    }

    /// The events since the last call.
    std::vector<std::string> take() { return std::exchange(m_Texts, {}); }

private:
    static std::string textOf(const Utils::FPGAMonEvent& event) {
        if (const auto* added = dynamic_cast<const Utils::FPGAMonEvent_InputTSAdded*>(&event)) {
            return "+" + added->getUri() + " " + std::to_string(added->getTSIIDX());
        }
        if (const auto* removed = dynamic_cast<const Utils::FPGAMonEvent_InputTSRemoved*>(&event)) {
            return "-" + removed->getUri() + " " + std::to_string(removed->getTSIIDX());
        }
        if (const auto* added = dynamic_cast<const Utils::FPGAMonEvent_CPUPIDAdded*>(&event)) {
            return "+" + std::to_string(added->getTSIIDX()) + " " + std::to_string(added->getPID());
        }
        const auto& removed = dynamic_cast<const Utils::FPGAMonEvent_CPUPIDRemoved&>(event);
        return "-" + std::to_string(removed.getTSIIDX()) + " " + std::to_string(removed.getPID());
    }

    std::vector<std::string> m_Texts;
};

/// A table under the monitor that the emulator uses.
template <typename Monitor>
struct WatchedTable {
    explicit WatchedTable(std::size_t byteCount)
        : memory(std::make_shared<WatchedMemory>(byteCount)), monitor(memory, events) {}

    void pollAtEveryStore() {
        memory->afterStore = [this] { monitor.pollLut(); };
    }

    /// What the monitor reports when it meets `stores`, which lead from the words that it knows to other
    /// ones, while it reads: before each load, the next store is made with a chance of one in `loadsAStore`.
    std::vector<std::string> meet(const std::vector<Store>& stores, unsigned loadsAStore,
                                  std::uint32_t seed) {
        auto next = stores.begin();
        std::mt19937 random(seed);
        memory->beforeLoad = [&] {
            if (next != stores.end() && random() % loadsAStore == 0) {
                memory->words[next->index] = next->value;
                ++next;
            }
        };
        while (next != stores.end()) {
            monitor.pollLut();
        }
        monitor.pollLut();
        memory->beforeLoad = nullptr;
        return events.take();
    }

    EventTexts events;
    std::shared_ptr<WatchedMemory> memory;
    Monitor monitor;
};

}  // namespace Vel::Zepctl
