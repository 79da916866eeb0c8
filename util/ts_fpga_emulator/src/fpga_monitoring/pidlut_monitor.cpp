#include "fpga_monitoring/pidlut_monitor.h"

#include "vel/userspace_drivers/drivers/zep/ts/diag/decode_rows.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/pidlut_diag.h"

namespace Vel::Utils {

using Drivers::Zep::PidLutEntry;

std::uint32_t PidLutTable::getControlBit(Drivers::IMemIf& memory) {
    return Drivers::Zep::getPidLutControlBit(memory);
}

void PidLutTable::readWords(Drivers::IMemIf& memory, std::span<std::uint32_t> words) {
    memory.readBlock32Into(Drivers::Zep::getPidLutBase(memory, 0), words);
}

std::vector<PidLutEntry> PidLutTable::decode(std::span<const std::uint32_t> words) {
    return Drivers::Zep::decodeRows<PidLutEntry>(words, &PidLutEntry::isRouted);
}

std::unique_ptr<FPGAMonEvent> PidLutTable::makeRemoved(const PidLutEntry& row) {
    return row.isCpuRoute() ? std::make_unique<FPGAMonEvent_CPUPIDRemoved>(row.getTSIIDX(), row.getPID())
                            : nullptr;
}

std::unique_ptr<FPGAMonEvent> PidLutTable::makeAdded(const PidLutEntry& row) {
    return row.isCpuRoute() ? std::make_unique<FPGAMonEvent_CPUPIDAdded>(row.getTSIIDX(), row.getPID())
                            : nullptr;
}

}  // namespace Vel::Utils
