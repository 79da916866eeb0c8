#include "fpga_monitoring/pidlut_monitor.h"

namespace Vel::Utils {

std::unique_ptr<FPGAMonEvent> PidLutTable::makeRemoved(const Row& row) {
    return row.isCpuRoute() ? std::make_unique<FPGAMonEvent_CPUPIDRemoved>(row.getTSIIDX(), row.getPID())
                            : nullptr;
}

std::unique_ptr<FPGAMonEvent> PidLutTable::makeAdded(const Row& row) {
    return row.isCpuRoute() ? std::make_unique<FPGAMonEvent_CPUPIDAdded>(row.getTSIIDX(), row.getPID())
                            : nullptr;
}

}  // namespace Vel::Utils
