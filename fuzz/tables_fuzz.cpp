// Two states of the words of both tables: a monitor that has seen both reports in sum what one reports that
// sees only the second, unless rows are out of order. An unchanged table yields no events. Dumps accept any
// words.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "fake_memory.h"
#include "fpga_monitoring/iplut_monitor.h"
#include "fpga_monitoring/pidlut_monitor.h"
#include "recording_consumer.h"
#include "require.h"

namespace {

using namespace Vel;

/// The rows that have been reported as added and not as removed.
std::set<std::string> presentRows(const Utils::RecordingConsumer& consumer) {
    std::set<std::string> rows;
    for (const std::string& event : consumer.events) {
        event[0] == '+' ? static_cast<void>(rows.insert(event.substr(1)))
                        : static_cast<void>(rows.erase(event.substr(1)));
    }
    return rows;
}

void load(Drivers::FakeMemory& memory, const std::uint8_t* data, std::size_t size, std::uint32_t base) {
    std::memcpy(&memory.words[base], data, std::min<std::size_t>(size, 4096));
}

template <typename Table>
bool isSorted(Drivers::FakeMemory& memory) {
    std::vector<std::uint32_t> words(std::size_t{Table::LAYOUT.rows} * Table::LAYOUT.wordsPerRow);
    memory.readBlock32Into(Table::GET_BASE(memory, 0), words);
    const auto rows = Drivers::Zep::decodeRows<typename Table::Row>(words, Table::IS_USED);
    // Rows that are equal in order alone count as out of order.
    return std::ranges::adjacent_find(rows, [](const auto& a, const auto& b) { return !(a < b); }) ==
           rows.end();
}

template <typename Table>
void poll(const std::shared_ptr<Drivers::FakeMemory>& memory, const std::uint8_t* data, std::size_t size) {
    Utils::RecordingConsumer consumer;
    Utils::TableLutMonitor<Table> monitor(memory, consumer);
    load(*memory, data, size / 2, Table::LAYOUT.base);
    bool isOrdered = isSorted<Table>(*memory);
    monitor.pollLut();
    load(*memory, data + size / 2, size - size / 2, Table::LAYOUT.base);
    isOrdered = isOrdered && isSorted<Table>(*memory);
    monitor.pollLut();
    const std::size_t events = consumer.events.size();
    monitor.pollLut();
    REQUIRE(consumer.events.size() == events);
    Utils::RecordingConsumer atOnce;
    Utils::TableLutMonitor<Table>(memory, atOnce).pollLut();
    REQUIRE(!isOrdered || presentRows(consumer) == presentRows(atOnce));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    namespace Zep = Drivers::Zep;
    const auto memory = std::make_shared<Drivers::FakeMemory>();
    poll<Utils::IpLutTable>(memory, data, size);
    poll<Utils::PidLutTable>(memory, data, size);
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
