#include "tables/route_table.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "command_error.h"
#include "fpga_monitoring/pidlut_monitor.h"
#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"
#include "tables/row_text.h"
#include "watched_memory.h"

namespace Vel::Zepctl {

namespace {

using Drivers::Zep::PidLutEntry;
using testing::ElementsAre;
using testing::IsEmpty;
using Texts = std::vector<std::string>;

constexpr std::uint32_t ROWS = Drivers::Zep::PidLut::TABLE.rows;
constexpr std::uint32_t LOWER_BANK = Drivers::Zep::PidLut::TABLE.base;
constexpr std::uint32_t UPPER_BANK = Drivers::Zep::PidLut::UPPER_BASE;
constexpr std::uint32_t SELECT_WORD = Drivers::Zep::PidLut::BANK_SELECT.word;

PidLutEntry route(std::uint32_t tsiidx, std::uint32_t pid, std::uint32_t pididx = 1) {
    return {tsiidx, pid, pididx, false, true};
}

class RouteTableTest : public testing::Test {
protected:
    void add(const PidLutEntry& row) { RouteTable(*memory).add(row); }
    void remove(std::uint32_t tsiidx, std::uint32_t pid) { RouteTable(*memory).remove(tsiidx, pid); }
    Texts list() {
        Texts texts;
        std::ranges::transform(RouteTable(*memory).list(), std::back_inserter(texts), formatRoute);
        return texts;
    }

    void putRow(std::size_t row, const PidLutEntry& content) {
        memory->putRow(LOWER_BANK + row * PidLutEntry::WORDS, content);
    }

    WatchedTable<Utils::PidLutMonitor> table{Drivers::Zep::ROUTER_DEVICE.size};
    std::shared_ptr<WatchedMemory> memory = table.memory;
};

}  // namespace

TEST_F(RouteTableTest, EveryChangeIsOneStepOneEventAndLeavesTheRowsSorted) {
    table.pollAtEveryStore();
    for (const std::uint32_t pid : {8191U, 256U, 0U}) {
        memory->stores.clear();
        add(route(pid == 256 ? 0 : 7, pid));
        EXPECT_THAT(table.events.take(), ElementsAre((pid == 256 ? "+0 " : "+7 ") + std::to_string(pid)));
        EXPECT_EQ(memory->stores.size(), 2 * ROWS + 1);
        EXPECT_EQ(memory->stores.back().index, SELECT_WORD);
    }
    EXPECT_EQ(list(), (Texts{"0 0x0100 --pididx 1 --filter 255", "7 0x0000 --pididx 1 --filter 255",
                             "7 0x1fff --pididx 1 --filter 255"}));
    remove(7, 0);
    EXPECT_THAT(table.events.take(), ElementsAre("-7 0"));
}

TEST_F(RouteTableTest, StoresBetweenTheLoadsOfAReaderAreNeverSeenHalf) {
    add(route(1, 100));
    add(route(5, 500));
    const std::vector<std::uint32_t> initial = memory->words;
    memory->stores.clear();
    add(route(0, 1));
    remove(1, 100);
    add(route(9, 900));
    const std::vector<Store> stores = memory->stores;

    for (std::uint32_t seed = 0; seed < 12; ++seed) {
        memory->words = initial;
        table.monitor.pollLut();
        table.events.take();
        EXPECT_THAT(table.meet(stores, 1U << seed % 4, seed),
                    testing::UnorderedElementsAre("+0 1", "-1 100", "+9 900"))
            << "seed " << seed;
    }
}

TEST_F(RouteTableTest, BitsThatAreNoRowsStayAsTheyAre) {
    memory->words[SELECT_WORD] = 0xA5A5A5A5;  // selects the upper bank
    memory->words[Drivers::Zep::PidLut::CONTROL.word] = 0xFFFFFFFF;
    memory->words[UPPER_BANK + 2 * ROWS] = 0x12345678;
    add(route(3, 0x100, 7));
    EXPECT_EQ(memory->words[SELECT_WORD], 0xA5A5A5A4);
    EXPECT_EQ(memory->words[Drivers::Zep::PidLut::CONTROL.word], 0xFFFFFFFF);
    EXPECT_EQ(memory->words[LOWER_BANK], 3U << 13 | 0x100U);
    EXPECT_EQ(memory->words[LOWER_BANK + 1], 0xFF002007);
    RouteTable(*memory).clear();
    EXPECT_EQ(memory->words[SELECT_WORD], 0xA5A5A5A5);
    EXPECT_EQ(memory->words[UPPER_BANK], 0x001FFFFF);
    EXPECT_EQ(memory->words[UPPER_BANK + 2 * ROWS - 1], 0xFF000FFF);
    EXPECT_EQ(memory->words[UPPER_BANK + 2 * ROWS], 0x12345678U);
    EXPECT_THAT(list(), IsEmpty());
}

TEST_F(RouteTableTest, RowsOfOtherSoftwareAreKeptWhenTheyHaveARoute) {
    putRow(100, route(9, 1));
    putRow(200, PidLutEntry(5, 1, 4095, 3, true, false));  // the out route alone
    putRow(300, PidLutEntry(5, 0, 9, false, false));       // none
    PidLutEntry withoutPididx;
    withoutPididx.deserialize(std::vector<std::uint32_t>{2U << 13 | 2U, 0x01002000});
    putRow(ROWS - 1, withoutPididx);
    table.monitor.pollLut();
    EXPECT_EQ(table.events.take().size(), 2U);

    add(route(5, 0));
    EXPECT_EQ(list(), (Texts{"2 0x0002 --filter 1", "5 0x0000 --pididx 1 --filter 255",
                             "5 0x0001 --out --no-cpu --pididx 4095 --filter 3",
                             "9 0x0001 --pididx 1 --filter 255"}));
    table.monitor.pollLut();
    for (const std::string& event : table.events.take()) {
        EXPECT_EQ(event.front(), '+') << event;
    }
}

TEST_F(RouteTableTest, RefusalsSayWhyAndChangeNothing) {
    add(route(3, 0x100));
    memory->stores.clear();
    const auto refusal = [](const auto& change) -> std::string {
        try {
            change();
        } catch (const CommandError& error) {
            return error.what();
        }
        return "none";
    };
    const std::string there = "There is a route for it already: 3 0x0100 --pididx 1 --filter 255";
    EXPECT_EQ(refusal([&] { add(route(3, 0x100)); }), there);
    EXPECT_EQ(refusal([&] { add(PidLutEntry(3, 0x100, 1, true, false)); }), there);
    EXPECT_EQ(refusal([&] { add(PidLutEntry(3, 0x101, 1, false, false)); }),
              "A route needs the CPU route, the out route or both");
    EXPECT_EQ(refusal([&] { remove(3, 0x101); }), "There is no route for TSIIDX 3, PID 0x0101");
    memory->words[SELECT_WORD] = 0;
    for (std::uint32_t i = 0; i < ROWS; ++i) {
        putRow(i, route(4, i));
    }
    EXPECT_EQ(refusal([&] { add(route(3, 0x100)); }), "The PID LUT is full: all 2048 rows are in use");
    EXPECT_THAT(memory->stores, IsEmpty());
}

TEST_F(RouteTableTest, TheFreePididxIsTheLowestThatNoRouteHas) {
    EXPECT_EQ(RouteTable(*memory).findFreePididx(), 1U);
    for (const std::uint32_t pididx : {3U, 1U, 4U}) {
        add(route(3, pididx, pididx));
    }
    EXPECT_EQ(RouteTable(*memory).findFreePididx(), 2U);
}

}  // namespace Vel::Zepctl
