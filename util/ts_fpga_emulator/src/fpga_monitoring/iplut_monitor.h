#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "fpga_monitoring/lut_monitor.h"
#include "vel/userspace_drivers/drivers/zep/ts/ipinentry.h"

namespace Vel::Utils {

/// The IP LUT as a monitor sees it: every enabled row is an input.
struct IpLutTable {
    using Row = Drivers::Zep::IpInEntry;
    static constexpr const char* NAME = "IP LUT";
    static constexpr std::uint32_t WORDS = Drivers::Zep::IpLut::TABLE.rows * Row::WORDS;

    static std::uint32_t getControlBit(Drivers::IMemIf& memory);
    static void readWords(Drivers::IMemIf& memory, std::span<std::uint32_t> words);
    static std::vector<Row> decode(std::span<const std::uint32_t> words);
    static std::unique_ptr<FPGAMonEvent> makeRemoved(const Row& row);
    static std::unique_ptr<FPGAMonEvent> makeAdded(const Row& row);
};

/// Reports inputs that appear or disappear. A row that changes its TSIIDX, address or port is a removal and
/// an addition.
using IpLutMonitor = TableLutMonitor<IpLutTable>;

}  // namespace Vel::Utils
