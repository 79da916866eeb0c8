#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "fake_memory.h"
#include "fpga_monitoring/iplut_monitor.h"
#include "recording_consumer.h"
#include "tables/input_table.h"
#include "tables/route_table.h"
#include "tables/stand_ins.h"

namespace Vel::Zepctl {
namespace {

using namespace Drivers::Zep;
using Words = std::vector<std::uint32_t>;

using Drivers::WatchedMemory;
using Stores = decltype(WatchedMemory::stores);

/// What zeptfem's monitor of the IP LUT reports, "+" or "-", the URI and the TSIIDX, if it knows the words
/// `initial` and reads on while `stores` are made: before each load, the next one with a chance of one in
/// `loadsPerStore`.
std::vector<std::string> eventsSeen(const Words& initial, const Stores& stores, unsigned loadsPerStore) {
    Utils::RecordingConsumer consumer;
    const auto memory = std::make_shared<WatchedMemory>();
    Utils::IpLutMonitor monitor(memory, consumer);
    memory->words = initial;
    monitor.pollLut();
    consumer.events.clear();
    std::size_t made = 0;
    std::mt19937 random(loadsPerStore);
    memory->beforeLoad = [&] {
        if (made < stores.size() && random() % loadsPerStore == 0) {
            memory->words[stores[made].first] = stores[made].second;
            ++made;
        }
    };
    while (made < stores.size()) {
        monitor.pollLut();
    }
    monitor.pollLut();
    std::erase(consumer.events, consumer.CHANGE_END);
    return consumer.events;
}

IpInEntry input(std::uint32_t tsiidx, std::uint32_t octets) {
    return {tsiidx, CppUtil::IpAdrContainer(0xEF000000U + octets), 5000};
}

class InputTableTest : public testing::Test {
protected:
    void add(const IpInEntry& row) { InputTable(memory).add(row); }
    void remove(const IpInEntry& row) { InputTable(memory).remove(row); }

    /// The last rows of the table: inputs of these addresses with the row as TSIIDX, or cleared if 0.
    void putLastRows(const Words& octets) {
        auto row = IpLut::TABLE.rows - static_cast<std::uint32_t>(octets.size());
        for (const std::uint32_t value : octets) {
            IpInEntry put = value == 0 ? IpInEntry() : input(row, value);
            put.toWords();
            std::ranges::copy(put.getWords(), &memory.words.at(IpLut::TABLE.base + row * IpInEntry::WORDS));
            ++row;
        }
    }
    Words lastRows(std::size_t count) const {
        Words octets;
        for (std::size_t row = IpLut::TABLE.rows - count; row < IpLut::TABLE.rows; ++row) {
            const std::uint32_t address = memory.words[IpLut::TABLE.base + row * IpInEntry::WORDS];
            octets.push_back(address == 0xFFFFFFFF ? 0 : address & 0xFFFFFF);
        }
        return octets;
    }

    WatchedMemory memory;
};

/// Whatever a command reads or stores after the loss is invalid.
TEST(Tables, ADeviceThatIsLostIsReportedByEveryCommand) {
    WatchedMemory memory;
    InputTable inputs(memory);
    RouteTable routes(memory);
    inputs.add(input(1, 1));
    routes.add({3, 0x100, 7, false, true});
    memory.isLost = true;
    const std::function<void()> commands[] = {
        [&] { InputTable again(memory); },   [&] { inputs.add(input(2, 2)); },
        [&] { inputs.remove(input(1, 1)); }, [&] { inputs.clear(); },
        [&] { RouteTable again(memory); },   [&] { routes.add({4, 0x100, 8, false, true}); },
        [&] { routes.remove(3, 0x100); },    [&] { routes.clear(); },
        [&] { clearTsio(memory); },
    };
    for (const auto& command : commands) {
        EXPECT_THROW(command(), Drivers::DevMemError) << &command - commands;
    }
}

TEST_F(InputTableTest, RowsMoveAsLittleAsPossible) {
    const struct {
        Words before;
        std::uint32_t added;
        Words after;
        std::size_t moves;
    } cases[] = {
        {{10, 0, 30, 0, 0, 0}, 20, {10, 20, 30, 0, 0, 0}, 0},
        {{10, 30, 40, 0, 50, 0}, 20, {10, 20, 30, 40, 50, 0}, 2},
        {{0, 10, 30, 0, 0, 0}, 20, {0, 10, 20, 30, 0, 0}, 1},
        {{0, 10, 0, 20, 30, 40}, 35, {0, 10, 20, 30, 35, 40}, 2},
        {{0, 10, 20, 30, 40, 50}, 60, {10, 20, 30, 40, 50, 60}, 5},
    };
    for (const auto& [before, added, after, moves] : cases) {
        SCOPED_TRACE(testing::PrintToString(before));
        putLastRows(before);
        memory.stores.clear();
        add(input(0, added));
        EXPECT_EQ(lastRows(after.size()), after);
        EXPECT_EQ(memory.stores.size(), 4 * moves + 2);
        remove(input(0, added));
        EXPECT_EQ(memory.stores.size(), 4 * moves + 4);
    }
    InputTable(memory).clear();
    EXPECT_EQ(lastRows(IpLut::TABLE.rows), Words(IpLut::TABLE.rows));
    for (const auto& store : memory.stores) {
        EXPECT_LT(store.first - IpLut::TABLE.base, IpLut::TABLE.rows * IpInEntry::WORDS);
    }
}

TEST_F(InputTableTest, AReaderNeverSeesAnotherInputComeOrGo) {
    std::mt19937 random(1);
    std::vector<IpInEntry> inputs;
    const auto addRandom = [&](std::uint32_t tsiidx) {
        add(inputs[tsiidx] = input(tsiidx, static_cast<std::uint32_t>(random() % 0x1000000)));
    };
    for (const std::uint32_t count : {20U, IpLut::TABLE.rows - 2, IpLut::TABLE.rows}) {
        while (inputs.size() < count) {
            inputs.emplace_back();
            addRandom(static_cast<std::uint32_t>(inputs.size() - 1));
        }
        for (std::uint32_t tsiidx = 5; tsiidx < 15; ++tsiidx) {
            const Words initial = memory.words;
            memory.stores.clear();
            const std::string removal = "-" + formatInput(inputs[tsiidx]);
            remove(inputs[tsiidx]);
            addRandom(tsiidx);
            for (const unsigned loadsPerStore : {1U, 2U, 10U, 100U, 2000U}) {
                EXPECT_THAT(eventsSeen(initial, memory.stores, loadsPerStore),
                            testing::UnorderedElementsAre(removal, "+" + formatInput(inputs[tsiidx])));
            }
        }
        auto sorted = inputs;
        std::sort(sorted.begin(), sorted.end());
        EXPECT_EQ(InputTable(memory).list(), sorted);
    }
}

TEST_F(InputTableTest, ATableThatIsEmptiedShowsNoOtherInputs) {
    putLastRows({10, 20});
    const Words initial = memory.words;
    clearTsio(memory);
    EXPECT_THAT(eventsSeen(initial, memory.stores, 2000),
                testing::UnorderedElementsAre("-udp://239.0.0.10:5000 254", "-udp://239.0.0.20:5000 255"));
}

TEST_F(InputTableTest, AWriterKilledAtAnyStoreLeavesATableThatTheNextOneMends) {
    putLastRows({10, 20, 30, 40, 0});
    Words killed = memory.words;
    add(input(9, 15));
    for (const auto& store : Stores(memory.stores)) {
        memory.words = killed;
        add(input(7, 25));
        EXPECT_EQ(InputTable(memory).list(), (std::vector{input(251, 10), input(252, 20), input(7, 25),
                                                          input(253, 30), input(254, 40)}));
        memory.words = killed;
        for (const std::uint32_t host : {10, 20, 30, 40}) {
            remove(input(0, host));
        }
        EXPECT_THAT(InputTable(memory).list(), testing::Each(input(9, 15)));
        killed[store.first] = store.second;
    }
}

TEST(RouteTable, AChangePreparesTheOtherBankAndFlipsTheSelectBit) {
    WatchedMemory memory;
    constexpr std::uint32_t BANK_WORDS = PidLut::TABLE.rows * PidLutEntry::WORDS;
    for (std::uint32_t& word : memory.words) {
        word = 0xA5A5A5A5;  // the upper bank is in use
    }
    Words expected = memory.words;
    RouteTable(memory).clear();
    for (std::uint32_t i = 0; i < BANK_WORDS; ++i) {
        expected[PidLut::TABLE.base + i] = i % 2 == 0 ? 0x001FFFFF : 0xFF000FFF;
    }
    expected[PidLut::BANK_SELECT.word] = 0xA5A5A5A4;
    EXPECT_TRUE(memory.words == expected);
    EXPECT_EQ(memory.stores.size(), BANK_WORDS + 1);
    EXPECT_EQ(memory.stores.back().first, PidLut::BANK_SELECT.word);

    RouteTable(memory).add({3, 0x100, 7, false, true});
    EXPECT_EQ(memory.words[PidLut::BANK_SELECT.word], 0xA5A5A5A5);
}

}  // namespace
}  // namespace Vel::Zepctl
