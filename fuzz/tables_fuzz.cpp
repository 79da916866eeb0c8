// Words of both tables, in two states: monitors, readers and dumps take them as they are, and the events of
// the two polls add up to the second state.

#include <cstdint>
#include <cstring>
#include <memory>
#include <sstream>
#include <vector>

#include "fpga_monitoring/iplut_monitor.h"
#include "fpga_monitoring/pidlut_monitor.h"
#include "require.h"
#include "vel/userspace_drivers/interfaces/lindevmemaccessor.h"

namespace {

using namespace Vel;

/// A device as a vector of words.
struct Memory : Drivers::LinDevMemAccessor {
    Drivers::MemSegment getMemSegment() const override {
        return {Drivers::Zep::ROUTER_DEVICE.size, reinterpret_cast<std::uint8_t*>(words.get())};
    }
    void checkAccessible() const override {}
    void load(const std::uint8_t* data, std::size_t size, std::uint32_t base) const {
        std::memcpy(words.get() + base, data, std::min<std::size_t>(size, 4096));
    }
    std::unique_ptr<std::uint32_t[]> words =
        std::make_unique<std::uint32_t[]>(Drivers::Zep::ROUTER_DEVICE.size / sizeof(std::uint32_t));
};

struct Counter : Utils::IFPGAEventConsumer {
    void handleEvent(std::unique_ptr<Utils::FPGAMonEvent> event) override {
        const auto type = event->getType();
        present +=
            type == Utils::FPGAMonEventType::InputTSAdded || type == Utils::FPGAMonEventType::CPUPIDAdded
                ? 1
                : -1;
    }
    int present = 0;
};

template <typename Monitor>
void poll(std::shared_ptr<Memory> memory, const std::uint8_t* data, std::size_t size, std::uint32_t base) {
    Counter counter;
    Monitor monitor(memory, counter);
    memory->load(data, size / 2, base);
    monitor.pollLut();
    memory->load(data + size / 2, size - size / 2, base);
    monitor.pollLut();
    const int afterChange = counter.present;
    monitor.pollLut();
    REQUIRE(counter.present == afterChange);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    namespace Zep = Drivers::Zep;
    const auto memory = std::make_shared<Memory>();
    poll<Utils::IpLutMonitor>(memory, data, size, Zep::IpLut::TABLE.base);
    poll<Utils::PidLutMonitor>(memory, data, size, Zep::PidLut::TABLE.base);
    memory->load(data, size, Zep::OPidMap::TABLE.base + 2);
    std::ostringstream lines;
    Zep::dumpIpLut(*memory, 0, Zep::IpLut::TABLE.rows, 0, false, lines);
    Zep::dumpIpOutTable(*memory, 0, Zep::IpOutTable::TABLE.rows, false, lines);
    Zep::dumpPhysInMap(*memory, 0, Zep::PhysInMap::TABLE.rows, false, lines);
    Zep::dumpPhysOutMap(*memory, 0, Zep::PhysOutMap::TABLE.rows, false, lines);
    Zep::dumpPidLut(*memory, 0, Zep::PidLut::TABLE.rows, 0, false, lines);
    Zep::dumpTsiMap(*memory, 0, Zep::TsiMap::TABLE.rows, false, lines);
    Zep::dumpOPidMap(*memory, 1, Zep::OPidMap::TABLE.rows - 1, false, lines);
    return 0;
}
