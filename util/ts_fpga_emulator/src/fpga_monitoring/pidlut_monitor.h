#pragma once

#include <memory>

#include "fpga_monitoring/lut_monitor.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/pidlut_diag.h"

namespace Vel::Utils {

/// The PID LUT as a monitor sees it: rows with a route are used, and only those with the CPU route yield
/// events.
struct PidLutTable {
    using Row = Drivers::Zep::PidLutEntry;
    static constexpr const auto& LAYOUT = Drivers::Zep::PidLut::TABLE;
    static constexpr auto GET_BASE = Drivers::Zep::getPidLutBase;
    static constexpr auto GET_CONTROL_BIT = Drivers::Zep::getPidLutControlBit;
    static constexpr auto IS_USED = &Row::isRouted;

    static std::unique_ptr<FPGAMonEvent> makeRemoved(const Row& row) {
        return row.isCpuRoute() ? std::make_unique<FPGAMonEvent_CPUPIDRemoved>(row.getTSIIDX(), row.getPID())
                                : nullptr;
    }
    static std::unique_ptr<FPGAMonEvent> makeAdded(const Row& row) {
        return row.isCpuRoute() ? std::make_unique<FPGAMonEvent_CPUPIDAdded>(row.getTSIIDX(), row.getPID())
                                : nullptr;
    }
};

/// Reports CPU routes that appear or disappear. Any change of a row that keeps the CPU route is a removal and
/// an addition.
using PidLutMonitor = TableLutMonitor<PidLutTable>;

}  // namespace Vel::Utils
