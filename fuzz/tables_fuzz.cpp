// Two states of the words of both tables: monitors and dumps accept any words, and an unchanged table yields
// no events.

#include <cstdint>
#include <cstring>
#include <memory>
#include <sstream>
#include <vector>

#include "fake_memory.h"
#include "fpga_monitoring/iplut_monitor.h"
#include "fpga_monitoring/pidlut_monitor.h"
#include "require.h"

namespace {

using namespace Vel;

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

void load(Drivers::FakeMemory& memory, const std::uint8_t* data, std::size_t size, std::uint32_t base) {
    std::memcpy(&memory.words[base], data, std::min<std::size_t>(size, 4096));
}

template <typename Monitor>
void poll(const std::shared_ptr<Drivers::FakeMemory>& memory, const std::uint8_t* data, std::size_t size,
          std::uint32_t base) {
    Counter counter;
    Monitor monitor(memory, counter);
    load(*memory, data, size / 2, base);
    monitor.pollLut();
    load(*memory, data + size / 2, size - size / 2, base);
    monitor.pollLut();
    const int afterChange = counter.present;
    monitor.pollLut();
    REQUIRE(counter.present == afterChange);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    namespace Zep = Drivers::Zep;
    const auto memory = std::make_shared<Drivers::FakeMemory>();
    poll<Utils::IpLutMonitor>(memory, data, size, Zep::IpLut::TABLE.base);
    poll<Utils::PidLutMonitor>(memory, data, size, Zep::PidLut::TABLE.base);
    load(*memory, data, size, Zep::OPidMap::TABLE.base + 2);
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
