#include "fpga_monitoring/iplut_monitor.h"

namespace Vel::Utils {

std::unique_ptr<FPGAMonEvent> IpLutTable::makeRemoved(const Row& row) {
    return std::make_unique<FPGAMonEvent_InputTSRemoved>(buildInputUri(row), row.getTSIIDX());
}

std::unique_ptr<FPGAMonEvent> IpLutTable::makeAdded(const Row& row) {
    return std::make_unique<FPGAMonEvent_InputTSAdded>(buildInputUri(row), row.getTSIIDX());
}

}  // namespace Vel::Utils
