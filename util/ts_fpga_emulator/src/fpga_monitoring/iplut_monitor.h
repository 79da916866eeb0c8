#pragma once

#include <memory>

#include "fpga_monitoring/lut_monitor.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/iplut_diag.h"

namespace Vel::Utils {

/// The IP LUT as a monitor sees it: every enabled row is an input.
struct IpLutTable {
    using Row = Drivers::Zep::IpInEntry;
    static constexpr const auto& LAYOUT = Drivers::Zep::IpLut::TABLE;
    static constexpr auto GET_BASE = Drivers::Zep::getIpLutBase;
    static constexpr auto GET_CONTROL_BIT = Drivers::Zep::getIpLutControlBit;
    static constexpr auto IS_USED = &Row::isEnabled;

    static std::unique_ptr<FPGAMonEvent> makeRemoved(const Row& row) {
        return std::make_unique<FPGAMonEvent_InputTSRemoved>(buildInputUri(row), row.getTSIIDX());
    }
    static std::unique_ptr<FPGAMonEvent> makeAdded(const Row& row) {
        return std::make_unique<FPGAMonEvent_InputTSAdded>(buildInputUri(row), row.getTSIIDX());
    }
};

/// Reports inputs that appear or disappear. A row that changes its TSIIDX, address or port is a removal and
/// an addition.
using IpLutMonitor = TableLutMonitor<IpLutTable>;

}  // namespace Vel::Utils
