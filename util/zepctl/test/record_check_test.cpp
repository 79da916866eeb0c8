#include "records/record_check.h"

#include <gtest/gtest.h>

#include "record_test_support.h"

namespace Vel::Zepctl {
namespace {

RecordCheck checkOf(const std::vector<TestRecord>& records) {
    RecordCheck check;
    give(check, records);
    return check;
}

TEST(RecordCheck, JudgesContinuityByTheStandard) {
    struct Case {
        const char* rule;
        std::vector<TestRecord> records;
        std::uint64_t errors;
    };
    const Case cases[] = {
        {"incremented by one, and wraps", {{.counter = 14}, {.counter = 15}, {.counter = 0}}, 0},
        {"a gap is one error", {{.counter = 1}, {.counter = 3}, {.counter = 4}}, 1},
        {"not incremented without payload",
         {{.counter = 1}, {.counter = 1, .payload = false}, {.counter = 1, .payload = false}, {.counter = 2}},
         0},
        {"an increment without payload", {{.counter = 1}, {.counter = 2, .payload = false}}, 1},
        {"one repeat", {{.counter = 1}, {.counter = 1}, {.counter = 2}, {.counter = 2}}, 0},
        {"two repeats", {{.counter = 1}, {.counter = 1}, {.counter = 1}}, 1},
        {"a repeat with other bytes", {{.counter = 1}, {.counter = 1, .fill = 0}}, 1},
        {"a repeat with its own PCR", {{.counter = 1, .pcr = 5 * MS}, {.counter = 1, .pcr = 6 * MS}}, 0},
        {"other bytes beside the PCR", {{.counter = 1, .pcr = 5}, {.counter = 1, .pcr = 6, .fill = 0}}, 1},
        {"a repeat comes at once", {{.counter = 1}, {.counter = 1, .payload = false}, {.counter = 1}}, 1},
        {"an announced restart", {{.counter = 1}, {.counter = 9, .discontinuity = true}, {.counter = 10}}, 0},
        {"a gap after a restart", {{.counter = 1}, {.counter = 9, .discontinuity = true}, {.counter = 2}}, 1},
        {"a restart in an adaptation field that does not fit",
         {{.counter = 1}, {.counter = 9, .discontinuity = true, .adaptationLength = 184}},
         1},
        {"null packets have no counter", {{.pid = 0x1FFF, .counter = 1}, {.pid = 0x1FFF, .counter = 7}}, 0},
        {"PIDs and inputs are independent",
         {{.counter = 1},
          {.pid = 0x101, .counter = 7},
          {.tsiidx = 4, .counter = 9},
          {.counter = 2},
          {.tsiidx = 4, .counter = 10}},
         0},
        {"any counter after a transport error",
         {{.counter = 1}, {.counter = 5, .transportError = true}, {.counter = 3}},
         0},
    };
    for (const auto& [rule, records, errors] : cases) {
        EXPECT_EQ(checkOf(records).getFaults().get(FaultKind::Continuity).count, errors) << rule;
    }
}

TEST(PcrClock, AddsStepsAcrossTheWrapAndLeavesOutJumps) {
    PcrClock clock;
    EXPECT_FALSE(clock.add(Ts::PCR_WRAP - 10 * MS, false));
    EXPECT_TRUE(clock.add(Ts::PCR_WRAP + 211, false)) << "an extension of 511 lifts it past the wrap";
    EXPECT_TRUE(clock.add(30 * MS, false));
    EXPECT_TRUE(clock.add(30 * MS + PcrClock::MAX_STEP, false));
    EXPECT_FALSE(clock.add(30 * MS, false)) << "a step back";
    EXPECT_FALSE(clock.add(31 * MS + PcrClock::MAX_STEP, false)) << "a step too long";
    EXPECT_FALSE(clock.add(32 * MS + PcrClock::MAX_STEP, true)) << "a new time base that looks like a step";
    EXPECT_NEAR(clock.getElapsed(), 1.040, 1e-9);
    EXPECT_EQ(clock.getTimeBases(), 4U);
}

TEST(RecordInput, RatesLeaveOutIntervalsWithANewTimeBase) {
    std::vector<TestRecord> records;
    std::uint32_t counter = 0;
    const auto interval = [&](int packets, std::uint64_t pcr, bool announced) {
        for (int i = 0; i < packets; ++i) {
            records.push_back({.pid = 0x20, .counter = counter++});
        }
        records.push_back({.pid = 0x101, .payload = false, .pcr = 77'000 * pcr});  // another program's clock
        records.push_back({.payload = false, .discontinuity = announced, .pcr = pcr});
    };
    records.push_back({.payload = false, .pcr = 0});
    interval(2, 10 * MS, false);
    interval(9, 5 * MS, false);  // jumps
    interval(2, 15 * MS, false);
    records.push_back({.payload = false, .discontinuity = true});  // announced before the PCR it is about
    interval(9, 25 * MS, false);
    interval(2, 35 * MS, false);
    interval(9, 45 * MS, true);
    interval(2, 55 * MS, false);
    records.push_back({.pid = 0x20, .counter = counter});  // no PCR follows
    const RecordCheck check = checkOf(records);
    EXPECT_TRUE(check.getFaults().isEmpty());
    const RecordInput& input = check.getInputs().at(3);
    EXPECT_EQ(input.getPids().at(0x20).counts.timedPackets, 8U);
    EXPECT_EQ(input.getTotal().timedPackets, 8U + 4 + 4);
    EXPECT_DOUBLE_EQ(*input.getBitRate(8), 200 * 188 * 8);
    EXPECT_EQ(checkOf({{.pcr = 0}, {}, {}}).getInputs().at(3).getBitRate(2), std::nullopt);
}

}  // namespace
}  // namespace Vel::Zepctl
