#pragma once

#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "fpga_monitoring/fpga_mon_event.h"
#include "fpga_monitoring/ifpga_event_consumer.h"

namespace Vel::Utils {

/// Records each event as "+" or "-", the URI or the PID, a space and the TSIIDX; and the end of each change.
struct RecordingConsumer : IFPGAEventConsumer {
    static constexpr const char* CHANGE_END = "end";

    void handleEvent(std::unique_ptr<FPGAMonEvent> event) override {
        note<FPGAMonEvent_InputTSAdded>('+', *event, &FPGAMonEvent_InputTSAdded::getUri);
        note<FPGAMonEvent_InputTSRemoved>('-', *event, &FPGAMonEvent_InputTSRemoved::getUri);
        note<FPGAMonEvent_CPUPIDAdded>('+', *event, &FPGAMonEvent_CPUPIDAdded::getPID);
        note<FPGAMonEvent_CPUPIDRemoved>('-', *event, &FPGAMonEvent_CPUPIDRemoved::getPID);
    }
    void handleChangeEnd() override { events.emplace_back(CHANGE_END); }
    template <typename Event>
    void note(char sign, const FPGAMonEvent& event, auto what) {
        if (const auto* seen = dynamic_cast<const Event*>(&event)) {
            events.push_back(fmt::format("{}{} {}", sign, (seen->*what)(), seen->getTSIIDX()));
        }
    }

    std::vector<std::string> events;
};

}  // namespace Vel::Utils
