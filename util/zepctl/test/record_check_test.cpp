#include "records/record_check.h"

#include <gtest/gtest.h>

#include "record_test_support.h"

namespace Vel::Zepctl {
namespace {

constexpr std::uint64_t MS = 27'000;  // PCR ticks

RecordCheck checkOf(const std::vector<TestRecord>& records) {
    RecordCheck check;
    check.add(join(records));
    return check;
}

struct ContinuityCase {
    const char* rule;
    std::vector<TestRecord> records;
    std::uint64_t errors;
};

class Continuity : public testing::TestWithParam<ContinuityCase> {};

TEST_P(Continuity, IsJudgedByTheStandard) {
    const RecordCheck check = checkOf(GetParam().records);
    EXPECT_EQ(check.getFaults().get(FaultKind::Continuity).count, GetParam().errors) << GetParam().rule;
    EXPECT_EQ(check.getInputs()[0]->getContinuityErrors(), GetParam().errors) << GetParam().rule;
}

INSTANTIATE_TEST_SUITE_P(
    Rules, Continuity,
    testing::Values(
        ContinuityCase{"steps by one and wraps", {{.counter = 14}, {.counter = 15}, {.counter = 0}}, 0},
        ContinuityCase{"a gap is told once", {{.counter = 1}, {.counter = 3}, {.counter = 4}}, 1},
        ContinuityCase{"stands without payload",
                       {{.counter = 1},
                        {.counter = 1, .payload = false},
                        {.counter = 1, .payload = false},
                        {.counter = 2}},
                       0},
        ContinuityCase{
            "does not step without payload", {{.counter = 1}, {.counter = 2, .payload = false}}, 1},
        ContinuityCase{"one repeat", {{.counter = 1}, {.counter = 1}, {.counter = 2}, {.counter = 2}}, 0},
        ContinuityCase{"not two repeats", {{.counter = 1}, {.counter = 1}, {.counter = 1}}, 1},
        ContinuityCase{"a repeat has the same bytes", {{.counter = 1}, {.counter = 1, .fill = 0}}, 1},
        ContinuityCase{"but for its PCR", {{.counter = 1, .pcr = 5 * MS}, {.counter = 1, .pcr = 6 * MS}}, 0},
        ContinuityCase{"and with a PCR as well",
                       {{.counter = 1, .pcr = 5 * MS}, {.counter = 1, .pcr = 6 * MS, .fill = 0}},
                       1},
        ContinuityCase{"a repeat follows at once",
                       {{.counter = 1}, {.counter = 1, .payload = false}, {.counter = 1}},
                       1},
        ContinuityCase{
            "a new start that is announced", {{.counter = 1}, {.counter = 9, .discontinuity = true}}, 0},
        ContinuityCase{"but not in an adaptation field that does not fit",
                       {{.counter = 1}, {.counter = 9, .discontinuity = true, .adaptationLength = 184}},
                       1},
        ContinuityCase{
            "goes on from there", {{.counter = 1}, {.counter = 9, .discontinuity = true}, {.counter = 2}}, 1},
        ContinuityCase{"null packets have no counter",
                       {{.pid = 0x1FFF, .counter = 1}, {.pid = 0x1FFF, .counter = 7}},
                       0},
        ContinuityCase{"PIDs and inputs do not mix",
                       {{.counter = 1},
                        {.pid = 0x101, .counter = 7},
                        {.tsiidx = 4, .counter = 9},
                        {.counter = 2},
                        {.tsiidx = 4, .counter = 10}},
                       0},
        ContinuityCase{"after a transport error any counter is right",
                       {{.counter = 1}, {.counter = 5, .transportError = true}, {.counter = 3}},
                       0}));

TEST(RecordCheck, FindsThePacketThatIsMissingFromAMillion) {
    constexpr std::uint64_t MISSING = 654'321;
    std::vector<TestRecord> round;
    for (std::uint32_t i = 0; i < 16; ++i) {
        round.push_back({.tsiidx = 7, .pid = 0x1234, .counter = i});
    }
    const Bytes block = join(round);
    const std::span<const std::uint8_t> records(block);
    RecordCheck check;
    for (std::uint64_t first = 0; first < 1'000'000; first += 16) {
        if (MISSING - first < 16) {
            const std::size_t cut = (MISSING - first) * Ts::RECORD_SIZE;
            check.add(records.first(cut));
            check.add(records.subspan(cut + Ts::RECORD_SIZE));
        } else {
            check.add(records);
        }
    }
    EXPECT_EQ(check.getRecords(), 999'999U);
    EXPECT_EQ(check.getFaults().toString(),
              "1 continuity error; the first at record 654321 (byte 125629632): TSIIDX 7, PID 0x1234: "
              "continuity counter 2, expected 1");
}

TEST(RecordCheck, TellsEachKindOfFaultWithItsFirstPlace) {
    RecordCheck check = checkOf({{.counter = 1},
                                 {.tsiidx = 256},
                                 {.tsiidx = 255, .sync = 0x46},
                                 {.counter = 2, .transportError = true, .scrambled = true},
                                 {.tsiidx = 0xFFFFFFFF, .sync = 0},
                                 {.tsiidx = 255},
                                 {.counter = 1, .scrambled = true},
                                 {.counter = 3}});
    check.end(100);
    EXPECT_EQ(
        check.getFaults().toLines(),
        "1 continuity error; the first at record 7 (byte 1344): TSIIDX 3, PID 0x0100: continuity counter 3, "
        "expected 2\n"
        "1 transport error; the first at record 3 (byte 576): TSIIDX 3, PID 0x0100: "
        "transport_error_indicator "
        "is set\n"
        "1 bad sync byte; the first at record 2 (byte 384): TSIIDX 255: sync byte 0x46, expected 0x47\n"
        "2 unknown TSIIDX values; the first at record 1 (byte 192): TSIIDX 256, allowed 0..255\n"
        "1 torn record; the first at record 8 (byte 1536): ends after 100 of 192 bytes\n");
    EXPECT_EQ(
        check.getFaults().toString(),
        "1 continuity error, 1 transport error, 1 bad sync byte, 2 unknown TSIIDX values, 1 torn record; "
        "the first at record 1 (byte 192): TSIIDX 256, allowed 0..255");
    ASSERT_EQ(check.getInputs().size(), 2U);
    const PidStatistics pid = check.getInputs()[0]->getPids().at(0);
    EXPECT_EQ(pid.packets, 4U);
    EXPECT_EQ(pid.scrambled, 1U) << "a packet with a transport error is not looked into";
    EXPECT_EQ(check.getInputs()[1]->getPackets(), 1U);
}

TEST(RecordCheck, ScrambledPacketsAndAWholeLastRecordAreNoFaults) {
    RecordCheck check = checkOf({{.scrambled = true}});
    check.end(0);
    EXPECT_TRUE(check.getFaults().isEmpty());
    EXPECT_EQ(check.getFaults().toString(), "");
}

TEST(PcrClock, AddsStepsAcrossTheWrapAndLeavesOutJumps) {
    PcrClock clock;
    EXPECT_FALSE(clock.add(Ts::PCR_WRAP - 10 * MS, false));
    EXPECT_TRUE(clock.add(Ts::PCR_WRAP + 211, false)) << "an extension of 511 lies behind the wrap";
    EXPECT_TRUE(clock.add(30 * MS, false));
    EXPECT_NEAR(clock.getElapsed(), 0.040, 1e-9);
    EXPECT_EQ(clock.getTimeBases(), 1U);
    EXPECT_TRUE(clock.add(30 * MS + PcrClock::MAX_STEP, false));
    EXPECT_FALSE(clock.add(30 * MS, false)) << "a step back";
    EXPECT_FALSE(clock.add(31 * MS + PcrClock::MAX_STEP, false)) << "a step too long";
    EXPECT_FALSE(clock.add(32 * MS + PcrClock::MAX_STEP, true)) << "a new time base that looks like a step";
    EXPECT_NEAR(clock.getElapsed(), 1.040, 1e-9);
    EXPECT_EQ(clock.getTimeBases(), 4U);
}

/// Packets a second of each PID, as the rates of a check tell.
std::vector<double> packetRates(const RecordInput& input) {
    std::vector<double> rates;
    for (const PidStatistics& pid : input.getPids()) {
        rates.push_back(input.getBitRate(pid.timedPackets).value_or(-1) / (188 * 8));
    }
    return rates;
}

TEST(RecordInput, BitRatesAreThoseOfThePacketsBetweenItsPcrs) {
    std::vector<TestRecord> records = {{.pid = 0x20}, {.pid = 0x20, .counter = 1}};  // before the first PCR
    records.push_back({.pcr = 0});
    records.push_back({.pid = 0x20, .counter = 2});
    records.push_back({.pid = 0x20, .counter = 3});
    records.push_back({.pid = 0x101, .pcr = 77'000 * MS});  // another program's clock
    records.push_back({.counter = 1, .pcr = 10 * MS});
    records.push_back({.pid = 0x20, .counter = 4});  // no PCR behind it
    const RecordCheck check = checkOf(records);
    const RecordInput& input = *check.getInputs()[0];
    EXPECT_EQ(input.getPcrPid(), 0x100U);
    EXPECT_EQ(packetRates(input), (std::vector<double>{200, 100, 100}));
    EXPECT_EQ(input.getPids()[2].pcrs, 1U);
    EXPECT_EQ(checkOf({{.pcr = 0}, {}, {}}).getInputs()[0]->getBitRate(2), std::nullopt);
}

TEST(RecordInput, IntervalsWithANewTimeBaseDoNotCountForRates) {
    std::vector<TestRecord> records;
    std::uint32_t counter = 0;
    const auto interval = [&](int packets, std::uint64_t pcr, bool announced) {
        for (int i = 0; i < packets; ++i) {
            records.push_back({.pid = 0x20, .counter = counter++ % 16});
        }
        records.push_back({.payload = false, .discontinuity = announced, .pcr = pcr});
    };
    interval(5, 500 * MS, false);
    interval(2, 510 * MS, false);
    interval(9, 100 * MS, false);  // jumps
    interval(2, 110 * MS, false);
    records.push_back({.payload = false, .discontinuity = true});  // announced before the PCR it is about
    interval(9, 120 * MS, false);
    interval(2, 130 * MS, false);
    interval(9, 140 * MS, true);
    interval(2, 150 * MS, false);
    const RecordCheck check = checkOf(records);
    EXPECT_TRUE(check.getFaults().isEmpty());
    EXPECT_EQ(packetRates(*check.getInputs()[0]), (std::vector<double>{200, 100}));
}

}  // namespace
}  // namespace Vel::Zepctl
