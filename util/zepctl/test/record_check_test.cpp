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

/// A packet for each word: its counter, then n for no payload, d for the discontinuity indicator, D for one
/// in an adaptation field that does not fit, p for a PCR of its own, f for other bytes, e for a transport
/// error, z for a null packet, q for another PID, t for another TSIIDX.
std::vector<TestRecord> packetsOf(const std::string& notation) {
    std::vector<TestRecord> records;
    std::istringstream words(notation);
    for (std::string word; words >> word;) {
        const auto has = [&word](char flag) { return word.find(flag) != std::string::npos; };
        records.push_back({.tsiidx = has('t') ? 4U : 3U,
                           .pid = has('z')   ? Ts::NULL_PID
                                  : has('q') ? 0x101
                                             : 0x100,
                           .counter = static_cast<std::uint32_t>(std::stoul(word)),
                           .payload = !has('n'),
                           .discontinuity = has('d') || has('D'),
                           .adaptationLength = static_cast<std::uint8_t>(has('D') ? 184 : 7),
                           .transportError = has('e'),
                           .fill = has('f') ? 'f' : ' '});
        if (has('p')) {
            records.back().pcr = records.size() * MS;
        }
    }
    return records;
}

TEST(RecordCheck, JudgesContinuityByTheStandard) {
    const struct {
        const char* rule;
        const char* packets;
        std::uint64_t errors;
    } cases[] = {
        {"incremented by one, and wraps", "14 15 0", 0},
        {"a gap is one error", "1 3 4", 1},
        {"not incremented without payload", "1 1n 1n 2", 0},
        {"an increment without payload", "1 2n", 1},
        {"no increment expected after a packet without payload", "1 1n 1", 1},
        {"one repeat", "1 1 2 2", 0},
        {"two repeats", "1 1 1", 1},
        {"a repeat with other bytes", "1 1f", 1},
        {"a repeat with its own PCR", "1p 1p", 0},
        {"a repeat with other bytes beside its own PCR", "1p 1fp", 1},
        {"an announced restart", "1 9d 10", 0},
        {"a gap after a restart", "1 9d 2", 1},
        {"a restart in an adaptation field that does not fit", "1 9D", 1},
        {"null packets have no counter", "1z 7z", 0},
        {"PIDs and inputs are independent", "1 7q 9t 2 10t 8q", 0},
        {"any counter after a transport error", "1 5e 3", 0},
    };
    for (const auto& [rule, packets, errors] : cases) {
        EXPECT_EQ(checkOf(packetsOf(packets)).getFaults().get(FaultKind::Continuity).count, errors) << rule;
    }
}

TEST(PcrClock, AddsStepsAcrossTheWrapAndLeavesOutJumps) {
    PcrClock clock;
    EXPECT_FALSE(clock.add(Ts::PCR_WRAP - 10 * MS, false));
    EXPECT_TRUE(clock.add(Ts::PCR_WRAP + 211, false)) << "an extension of 511 lifts it past the wrap";
    EXPECT_TRUE(clock.add(PcrClock::MAX_STEP, false));
    EXPECT_FALSE(clock.add(0, false)) << "a step back";
    EXPECT_FALSE(clock.add(1 * MS + PcrClock::MAX_STEP, false)) << "a step too long";
    EXPECT_FALSE(clock.add(2 * MS + PcrClock::MAX_STEP, true)) << "a new time base that looks like a step";
    EXPECT_NEAR(clock.getElapsed(), 1.010, 1e-9);
    EXPECT_EQ(clock.getTimeBases(), 4U);
}

TEST(RecordInput, RatesLeaveOutIntervalsWithANewTimeBase) {
    std::vector<TestRecord> records = {{.payload = false, .pcr = 0}};
    std::uint32_t counter = 0;
    const auto interval = [&](int packets, std::uint64_t milliseconds, bool announced) {
        for (int i = 0; i < packets; ++i) {
            records.push_back({.pid = 0x20, .counter = counter++});
        }
        records.push_back({.pid = 0x101, .payload = false, .pcr = 0});  // another program's clock
        records.push_back({.payload = false, .discontinuity = announced, .pcr = milliseconds * MS});
    };
    interval(2, 10, false);
    interval(9, 5, false);  // jumps
    interval(2, 15, false);
    records.push_back({.payload = false, .discontinuity = true});  // announced before the PCR it is about
    interval(9, 25, false);
    interval(2, 35, false);
    interval(9, 45, true);
    interval(2, 55, false);
    records.push_back({.pid = 0x20, .counter = counter});  // no PCR follows
    const RecordCheck check = checkOf(records);
    EXPECT_TRUE(check.getFaults().isEmpty());
    EXPECT_EQ(check.getInputs().at(3).getPids().at(0x20).counts.timedPackets, 8U);
    EXPECT_EQ(check.getInputs().at(3).getTotal().timedPackets, 8U + 4 + 4);
    EXPECT_DOUBLE_EQ(*check.getInputs().at(3).getBitRate(8), 200 * 188 * 8);
}

}  // namespace
}  // namespace Vel::Zepctl
