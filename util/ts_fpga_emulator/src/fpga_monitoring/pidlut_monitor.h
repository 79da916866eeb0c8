#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "fpga_monitoring/lut_monitor.h"
#include "vel/userspace_drivers/drivers/zep/ts/pidlutentry.h"

namespace Vel::Utils {

/// The PID LUT as a monitor sees it: rows with a route are used, those with the CPU route matter.
struct PidLutTable {
    using Row = Drivers::Zep::PidLutEntry;
    static constexpr const char* NAME = "PID LUT";
    static constexpr std::uint32_t WORDS = Drivers::Zep::PidLut::TABLE.rows * Row::WORDS;

    static std::uint32_t getControlBit(Drivers::IMemIf& memory);
    static void readWords(Drivers::IMemIf& memory, std::span<std::uint32_t> words);
    static std::vector<Row> decode(std::span<const std::uint32_t> words);
    static std::unique_ptr<FPGAMonEvent> makeRemoved(const Row& row);
    static std::unique_ptr<FPGAMonEvent> makeAdded(const Row& row);
};

/// Reports CPU routes that appear or disappear. Any change of a row that keeps the CPU route is a removal and
/// an addition.
using PidLutMonitor = TableLutMonitor<PidLutTable>;

}  // namespace Vel::Utils
