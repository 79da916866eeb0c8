#include "fpga_monitoring/iplut_monitor.h"

#include "vel/userspace_drivers/drivers/zep/ts/diag/decode_rows.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/iplut_diag.h"

namespace Vel::Utils {

using Drivers::Zep::IpInEntry;

std::uint32_t IpLutTable::getControlBit(Drivers::IMemIf& memory) {
    return Drivers::Zep::getIpLutControlBit(memory);
}

void IpLutTable::readWords(Drivers::IMemIf& memory, std::span<std::uint32_t> words) {
    memory.readBlock32Into(Drivers::Zep::getIpLutBase(memory, 0), words);
}

std::vector<IpInEntry> IpLutTable::decode(std::span<const std::uint32_t> words) {
    return Drivers::Zep::decodeRows<IpInEntry>(words, &IpInEntry::isEnabled);
}

std::unique_ptr<FPGAMonEvent> IpLutTable::makeRemoved(const IpInEntry& row) {
    return std::make_unique<FPGAMonEvent_InputTSRemoved>(buildInputUri(row), row.getTSIIDX());
}

std::unique_ptr<FPGAMonEvent> IpLutTable::makeAdded(const IpInEntry& row) {
    return std::make_unique<FPGAMonEvent_InputTSAdded>(buildInputUri(row), row.getTSIIDX());
}

}  // namespace Vel::Utils
