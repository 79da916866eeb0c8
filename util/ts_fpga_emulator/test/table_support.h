#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "fpga_monitoring/ifpga_event_consumer.h"
#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"
#include "vel/userspace_drivers/interfaces/lindevmemaccessor.h"

namespace Vel::Utils {

/// Both devices in one, with all words 0 at first: no used row in either table.
class TableMemory : public Drivers::LinDevMemAccessor {
public:
    static constexpr std::uint32_t SIZE = 128 * 1024;  // bytes

    Drivers::MemSegment getMemSegment() const override {
        return {SIZE, reinterpret_cast<std::uint8_t*>(const_cast<std::uint32_t*>(words.data()))};
    }
    void checkAccessible() const override {
        if (onRead) {
            onRead();
        }
    }
    template <typename Row>
    void setRow(const Drivers::Zep::Table& table, std::uint32_t index, Row row) {
        row.toWords();
        std::ranges::copy(row.getWords(), &words[table.base + index * table.wordsPerRow]);
    }

    std::vector<std::uint32_t> words = std::vector<std::uint32_t>(SIZE / sizeof(std::uint32_t));
    /// Called before every access, so that another program can write, or the access fail, at a chosen point.
    std::function<void()> onRead;
};

/// Keeps what it is told: "+" or "-", the URI or the PID, "@", the TSIIDX.
class RecordingConsumer : public IFPGAEventConsumer {
public:
    void handleEvent(std::unique_ptr<FPGAMonEvent> event) override { m_Events.push_back(describe(*event)); }
    std::vector<std::string> takeEvents() { return std::exchange(m_Events, {}); }

private:
    static std::string describe(const FPGAMonEvent& event) {
        switch (event.getType()) {
            case FPGAMonEventType::InputTSAdded:
                return "+" + input(dynamic_cast<const FPGAMonEvent_InputTSAdded&>(event));
            case FPGAMonEventType::InputTSRemoved:
                return "-" + input(dynamic_cast<const FPGAMonEvent_InputTSRemoved&>(event));
            case FPGAMonEventType::CPUPIDAdded:
                return "+" + pid(dynamic_cast<const FPGAMonEvent_CPUPIDAdded&>(event));
            case FPGAMonEventType::CPUPIDRemoved:
                return "-" + pid(dynamic_cast<const FPGAMonEvent_CPUPIDRemoved&>(event));
        }
        return "unknown kind";
    }
    static std::string input(const auto& event) {
        return event.getUri() + "@" + std::to_string(event.getTSIIDX());
    }
    static std::string pid(const auto& event) {
        return std::to_string(event.getPID()) + "@" + std::to_string(event.getTSIIDX());
    }

    std::vector<std::string> m_Events;
};

}  // namespace Vel::Utils
