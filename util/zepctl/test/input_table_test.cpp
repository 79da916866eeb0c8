#include "tables/input_table.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "command_error.h"
#include "fpga_monitoring/iplut_monitor.h"
#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"
#include "tables/row_text.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/iplut_diag.h"
#include "watched_memory.h"

namespace Vel::Zepctl {

namespace {

using Drivers::Zep::IpInEntry;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using Texts = std::vector<std::string>;

constexpr std::uint32_t ROWS = Drivers::Zep::IpLut::TABLE.rows;

IpInEntry input(std::uint32_t tsiidx, std::uint32_t lastOctet, std::uint32_t port = 5000) {
    return {tsiidx, CppUtil::IpAdrContainer(0xEF010000U + lastOctet), port};
}

Texts textsOf(std::vector<IpInEntry> rows) {
    Texts texts;
    std::ranges::transform(rows, std::back_inserter(texts), formatInput);
    return texts;
}

class InputTableTest : public testing::Test {
protected:
    void add(const IpInEntry& row) { InputTable(*memory).add(row); }
    void remove(const IpInEntry& row) { InputTable(*memory).remove(row); }
    std::vector<IpInEntry> list() { return InputTable(*memory).list(); }

    void putRow(std::size_t row, const IpInEntry& content) {
        memory->putRow(Drivers::Zep::IpLut::TABLE.base + row * IpInEntry::WORDS, content);
    }

    void pollAndForget() {
        table.monitor.pollLut();
        table.events.take();
    }

    /// Lets a reader meet the stores of `change` at many places and speeds; `events` in any order.
    void expectMet(const std::function<void()>& change, const Texts& events) {
        const std::vector<std::uint32_t> initial = memory->words;
        memory->stores.clear();
        change();
        const std::vector<Store> stores = memory->stores;
        for (std::uint32_t seed = 0; seed < 200; ++seed) {
            memory->words = initial;
            pollAndForget();
            EXPECT_THAT(table.meet(stores, 1U << seed % 10, seed), testing::UnorderedElementsAreArray(events))
                << "seed " << seed;
        }
    }

    WatchedTable<Utils::IpLutMonitor> table{Drivers::Zep::TSIO_DEVICE.size};
    std::shared_ptr<WatchedMemory> memory = table.memory;
};

}  // namespace

TEST_F(InputTableTest, EveryStoreIsSeenAsTheOneIntendedEventOrNone) {
    table.pollAtEveryStore();
    for (std::uint32_t tsiidx = 40; tsiidx-- > 0;) {
        add(input(tsiidx, tsiidx / 2, 5000 + tsiidx % 2));
        EXPECT_THAT(table.events.take(),
                    ElementsAre("+" + formatInput(input(tsiidx, tsiidx / 2, 5000 + tsiidx % 2))));
    }
    for (const std::uint32_t tsiidx : {0U, 39U, 20U}) {
        remove(input(0, tsiidx / 2, 5000 + tsiidx % 2));
        EXPECT_THAT(table.events.take(),
                    ElementsAre("-" + formatInput(input(tsiidx, tsiidx / 2, 5000 + tsiidx % 2))));
    }
    EXPECT_EQ(list().size(), 37U);
}

TEST_F(InputTableTest, AFreeRowAnywhereIsReachedWithoutDisturbingTheFullTable) {
    for (std::uint32_t i = 0; i < ROWS; ++i) {
        putRow(i, input(i, 2 * i));
    }
    pollAndForget();
    table.pollAtEveryStore();
    std::uint32_t place = 0;
    for (const std::uint32_t freed : {0U, 255U, 100U, 101U}) {
        remove(input(0, 2 * freed));
        place = (place + 170) % ROWS;
        add(input(freed, 2 * place + 1));
        EXPECT_THAT(table.events.take(), ElementsAre("-" + formatInput(input(freed, 2 * freed)),
                                                     "+" + formatInput(input(freed, 2 * place + 1))));
        EXPECT_TRUE(std::ranges::is_sorted(list(), [](const auto& a, const auto& b) { return a < b; }));
        EXPECT_EQ(list().size(), ROWS);
    }
}

TEST_F(InputTableTest, StoresBetweenTheLoadsOfAReaderAreNeverSeenHalf) {
    for (std::uint32_t i = 0; i < 20; ++i) {
        putRow(i, input(i, 10 * i));
    }
    expectMet(
        [&] {
            add(input(100, 5));
            remove(input(0, 70));
            add(input(101, 155));
            add(input(102, 1));
        },
        {"+udp://239.1.0.5:5000 100", "-udp://239.1.0.70:5000 7", "+udp://239.1.0.155:5000 101",
         "+udp://239.1.0.1:5000 102"});
    // Only a row in front is free, so rows move down.
    for (std::uint32_t i = 4; i < ROWS; ++i) {
        putRow(i, input(i, 10 * i));
    }
    expectMet(
        [&] {
            remove(input(0, 50));
            add(input(5, 1005));
        },
        {"-udp://239.1.0.50:5000 5", "+udp://239.1.3.237:5000 5"});
}

TEST_F(InputTableTest, AWriterEndedAtAnyStoreLeavesATableThatTheNextOneMends) {
    for (std::uint32_t i = 1; i <= 4; ++i) {
        add(input(i, 10 * i));
    }
    const std::vector<std::uint32_t> initial = memory->words;
    memory->stores.clear();
    add(input(9, 5));
    const std::vector<Store> stores = memory->stores;

    for (std::size_t made = 0; made <= stores.size(); ++made) {
        memory->words = initial;
        pollAndForget();
        for (const Store& store : std::span(stores).first(made)) {
            memory->words[store.index] = store.value;
        }
        std::vector<IpInEntry> expected{input(1, 10), input(2, 20), input(7, 25), input(3, 30), input(4, 40)};
        Texts events{"+" + formatInput(input(7, 25))};
        if (made == stores.size()) {
            expected.insert(expected.begin(), input(9, 5));
            events.insert(events.begin(), "+" + formatInput(input(9, 5)));
        }
        table.pollAtEveryStore();
        add(input(7, 25));
        memory->afterStore = nullptr;
        EXPECT_EQ(textsOf(list()), textsOf(expected)) << made << " stores";
        EXPECT_EQ(table.events.take(), events) << made << " stores";
    }
}

TEST_F(InputTableTest, RowsOutOfOrderAreSortedAndThoseInOrderDoNotNotice) {
    const std::vector<std::uint32_t> octets{30, 10, 20, 40, 5, 50};  // 30, 40 and 50 are found by a search
    for (std::uint32_t i = 0; i < octets.size(); ++i) {
        putRow(3 * i + 1, input(octets[i], octets[i]));
    }
    pollAndForget();
    table.pollAtEveryStore();
    add(input(45, 45));
    EXPECT_EQ(textsOf(list()), textsOf({input(5, 5), input(10, 10), input(20, 20), input(30, 30),
                                        input(40, 40), input(45, 45), input(50, 50)}));
    std::ptrdiff_t balance = 0;
    for (const std::string& event : table.events.take()) {
        EXPECT_THAT(event, testing::Not(testing::HasSubstr("0.30:")));
        EXPECT_THAT(event, testing::Not(testing::HasSubstr("0.40:")));
        EXPECT_THAT(event, testing::Not(testing::HasSubstr("0.50:")));
        balance += event == "+udp://239.1.0.45:5000 45" ? 1 : 0;
    }
    EXPECT_EQ(balance, 1);

    remove(input(0, 10));
    EXPECT_THAT(table.events.take(), ElementsAre("-udp://239.1.0.10:5000 10"));
}

TEST_F(InputTableTest, AFullTableOutOfOrderIsSortedByTheNextRemoval) {
    for (std::uint32_t i = 0; i < ROWS; ++i) {
        putRow(i, input(i, i * 37 % ROWS));
    }
    remove(input(0, 99));
    const auto rows = list();
    EXPECT_EQ(rows.size(), ROWS - 1);
    EXPECT_TRUE(std::ranges::is_sorted(rows, [](const auto& a, const auto& b) { return a < b; }));
    EXPECT_EQ(std::ranges::adjacent_find(rows), rows.end());
}

TEST_F(InputTableTest, RefusalsSayWhyAndChangeNothing) {
    add(input(3, 3));
    memory->stores.clear();
    const auto refusal = [](const auto& change) -> std::string {
        try {
            change();
        } catch (const CommandError& error) {
            return error.what();
        }
        return "none";
    };
    EXPECT_EQ(refusal([&] { add(input(3, 3)); }), "udp://239.1.0.3:5000 is there already, with TSIIDX 3");
    EXPECT_EQ(refusal([&] { add(input(4, 3)); }), "udp://239.1.0.3:5000 is there already, with TSIIDX 3");
    EXPECT_EQ(refusal([&] { add(input(3, 4)); }), "TSIIDX 3 is taken by udp://239.1.0.3:5000");
    EXPECT_EQ(refusal([&] { remove(input(3, 3, 5001)); }), "There is no input udp://239.1.0.3:5001");
    for (std::uint32_t i = 0; i < ROWS; ++i) {
        putRow(i, input(7, i));
    }
    EXPECT_EQ(refusal([&] { add(input(8, 300)); }), "The IP LUT is full: all 256 rows are in use");
    EXPECT_THAT(memory->stores, IsEmpty());
}

TEST_F(InputTableTest, ClearingRemovesEveryInputOnceAndNothingOutsideTheTableChanges) {
    memory->words[0] = 0xFFFFFFFF;
    for (std::uint32_t i = 1; i <= 3; ++i) {
        add(input(i, i));
    }
    pollAndForget();
    table.pollAtEveryStore();
    InputTable(*memory).clear();
    EXPECT_THAT(table.events.take(),
                UnorderedElementsAre("-udp://239.1.0.1:5000 1", "-udp://239.1.0.2:5000 2",
                                     "-udp://239.1.0.3:5000 3"));
    EXPECT_EQ(memory->words[0], 0xFFFFFFFF);
    for (const Store& store : memory->stores) {
        EXPECT_EQ(store.index / 512, 4U);
    }
}

}  // namespace Vel::Zepctl
