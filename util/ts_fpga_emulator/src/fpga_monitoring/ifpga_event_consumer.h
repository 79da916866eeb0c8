#pragma once

#include <memory>

#include "fpga_monitoring/fpga_mon_event.h"

namespace Vel::Utils {

/// Receives the monitor events, one call an event, always on the monitor thread and never beside itself.
class IFPGAEventConsumer {
public:
    /// Takes the event over. Must not throw: a poll that has begun to deliver always finishes its passes.
    virtual void handleEvent(std::unique_ptr<FPGAMonEvent> event) = 0;
    virtual ~IFPGAEventConsumer() = default;
    /// The events of one change of one table stand between these two. Must not throw.
    virtual void handleChangeBegin() {}
    virtual void handleChangeEnd() {}
};

}  // namespace Vel::Utils
