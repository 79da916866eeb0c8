#pragma once

#include <memory>

#include "fpga_monitoring/fpga_mon_event.h"

namespace Vel::Utils {

/// Receives the monitor events, one call per event, always on the monitor thread.
class IFPGAEventConsumer {
public:
    /// Takes ownership of the event. Must not throw: a poll that has started to deliver events finishes.
    virtual void handleEvent(std::unique_ptr<FPGAMonEvent> event) = 0;
    virtual ~IFPGAEventConsumer() = default;
    /// Called after the last event of one change of one table. Must not throw.
    virtual void handleChangeEnd() {}
};

}  // namespace Vel::Utils
