#include <filesystem>
#include <random>
#include <sstream>

#include <gmock/gmock.h>

#include "records/record_reader.h"
#include "records/record_watch.h"
#include "test_files.h"
#include "test_packet.h"

namespace Vel::Zepctl {
namespace {

using std::chrono::milliseconds;
using TestSupport::TemporaryFolder;
using TestSupport::writeFile;

constexpr ArrivalTime START{milliseconds(5'000'000)};
constexpr std::uint64_t MS = 27'000;  // PCR ticks
constexpr double PACKET_BITS = 188 * 8;

/// Records, one for each word: a continuity counter, then any of
///   t TSIIDX 255 and T TSIIDX 256 instead of 3,
///   q PID 0x101 and z null packet instead of PID 0x100,   f other bytes,
///   n no payload,   s scrambled,   e transport error,
///   d discontinuity indicator and D the same in an adaptation field that does not fit,
///   u an adaptation field that is too short for a PCR,
/// and finally p and a PCR in milliseconds.
std::string recordsOf(const std::string& notation) {
    std::string stream;
    std::istringstream words(notation);
    for (std::string word; words >> word;) {
        const auto has = [&word](char flag) { return word.find(flag) != std::string::npos; };
        TestSupport::TestPacket packet{
            .pid = has('z')   ? Ts::NULL_PID
                   : has('q') ? 0x101U
                              : 0x100U,
            .number = has('f') ? 1U : 0U,
            .counter = static_cast<std::uint32_t>(std::stoi(word)),
            .payload = !has('n'),
            .discontinuity = has('d') || has('D'),
            .transportError = has('e'),
            .scrambled = has('s'),
            .adaptationLength = static_cast<std::uint8_t>(has('D')   ? 184
                                                          : has('u') ? 6
                                                                     : 7),
        };
        if (has('p')) {
            packet.pcr = std::stoull(word.substr(word.find('p') + 1)) * MS;
        }
        const auto record = packet.record(has('t') ? 255 : has('T') ? 256 : 3);
        stream.append(record.begin(), record.end());
    }
    return stream;
}

std::span<const std::uint8_t> bytesOf(const std::string& stream) {
    return {reinterpret_cast<const std::uint8_t*>(stream.data()), stream.size()};
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
        {"one duplicate", "1 1 2 2", 0},
        {"every further duplicate is an error", "1 1 1 1", 2},
        {"a duplicate after a packet without payload", "1 1n 1", 1},
        {"a duplicate with other bytes", "1 1f", 1},
        {"a duplicate with its own PCR", "1p372827 1p372828", 0},
        {"a duplicate with other bytes beside its own PCR", "1p5 1fp6", 1},
        {"payload that a PCR flag without room claims", "1up5 1up6", 1},
        {"an announced restart", "1 9d 10", 0},
        {"a gap after a restart", "1 9d 2", 1},
        {"a restart in an adaptation field that does not fit", "1 9D", 1},
        {"null packets have no counter", "1z 7z", 0},
        {"PIDs and inputs are independent", "1 7q 9t 2 10t 8q", 0},
        {"any counter after a transport error", "1 5e 3", 0},
    };
    for (const auto& [rule, packets, errors] : cases) {
        RecordCheck check;
        check.add(bytesOf(recordsOf(packets)));
        EXPECT_EQ(check.getFaults().get(FaultKind::Continuity).count, errors) << rule;
    }
}

TEST(RecordInput, CountsPcrsThatJumpOrAreTooFarApart) {
    const struct {
        const char* packets;
        std::uint64_t jumps;
        std::uint64_t gaps;
    } cases[] = {
        {"0np0 0np100 0np100 0np200", 0, 0},
        {"0np0 0np101 0np1101 0np1102", 0, 2},
        {"0np0 0np1 0np1002 0np1001", 2, 0},  // ahead and back
        {"0np0 0np5000 0np0", 2, 0},          // before a PID has been chosen
        {"0np0 0np10 0ndp5000 0np4900", 1, 0},
        {"0np0 0np10 0nd 0np5000", 0, 0},  // announced
        {"0np95443710 0np20", 0, 0},       // wraps
        {"0np0 0np10 0qnp0 0enp5000 0qnp200 0np30", 0, 0},
    };
    for (const auto& [packets, jumps, gaps] : cases) {
        for (const bool isStrict : {false, true}) {
            RecordCheck check({}, isStrict);
            check.add(bytesOf(recordsOf(packets)));
            EXPECT_EQ(check.getInputs().at(3).getTime().jumps, jumps) << packets;
            EXPECT_EQ(check.getInputs().at(3).getTime().gaps, gaps) << packets;
            EXPECT_EQ(check.getFaults().get(FaultKind::PcrJump).count, isStrict ? jumps : 0) << packets;
            EXPECT_EQ(check.getFaults().get(FaultKind::PcrGap).count, isStrict ? gaps : 0) << packets;
        }
    }
}

TEST(RecordInput, TimesThePacketsOfEachStepAndNoOthers) {
    RecordCheck check;
    check.add(
        bytesOf(recordsOf("0zp0 1zp3 0ep5 0z 0np0 0z 0z 0qnp7000 0z 0np10 "  // q has another clock
                          "0z 0z 0z 0np5 "                                   // jumps
                          "0z 0z 0np15 "
                          "0nd 0z 0z 0z 0np25 "  // announced before the PCR it is about
                          "0z 0z 0np35 0z 0np35 0z 0np45 "
                          "0z 0z 0np55 0unp57 0z")));  // the last ones are not followed by a PCR
    const RecordInput& input = check.getInputs().at(3);
    EXPECT_EQ(input.getPids().at(Ts::NULL_PID).counts.timedPackets, 3U + 2 + 2 + 2 + 2);
    EXPECT_EQ(input.getTotal().timedPackets, 11U + 5 + 2);
    EXPECT_EQ(input.getTotal().pcrs, 10U);
    EXPECT_DOUBLE_EQ(*input.getBitRate(5), 100 * 188 * 8);
    EXPECT_EQ(input.getTime().timeBases, 3U);
    EXPECT_EQ(*input.getPcrPid(), 0x100U);

    // The choice of the PCR PID starts over, and the packets before the new choice are not timed.
    std::string silence;
    for (std::uint64_t i = 0; i < Ts::PcrClock::MAX_STEP_PACKETS; ++i) {
        silence += "0z ";
    }
    check.add(bytesOf(recordsOf(silence + "0qnp1 0z 0z 0qnp21")));
    EXPECT_EQ(input.getTotal().timedPackets, 18U + 3);
    EXPECT_EQ(input.getTime().timeBases, 4U);
    EXPECT_EQ(*input.getPcrPid(), 0x101U);
}

/// One packet per letter: a and A have the same PID and differ in their last byte.
std::string packetsOf(const std::string& letters, bool asRecords) {
    std::string stream;
    for (const char letter : letters) {
        const auto pid = static_cast<std::uint32_t>(letter | 0x20);
        const auto record = TestSupport::TestPacket{.pid = pid, .number = letter < 'a' ? 1U : 0U}.record(3);
        stream.append(record.begin() + (asRecords ? 0 : Ts::RECORD_HEADER_SIZE), record.end());
    }
    return stream;
}

TEST(RecordComparison, AcceptsExactlyThePacketsOfThePids) {
    const TemporaryFolder folder;
    const std::string path = folder / "a:b";
    std::minstd_rand random;
    const auto pick = [&random](const std::string& letters) { return letters[random() % letters.size()]; };
    int accepted = 0;
    for (int i = 0; i < 3000; ++i) {
        std::string packets(random() % 7, ' ');
        std::ranges::generate(packets, [&] { return pick("aAbc"); });
        const std::string pids = std::array{"", "a", "ab", "bc"}[random() % 4];
        const auto hasPid = [](const std::string& all, char letter) {
            return all.find(static_cast<char>(letter | 0x20)) != std::string::npos ||
                   all.find(static_cast<char>(letter & ~0x20)) != std::string::npos;
        };
        const auto filter = [&](const std::string& wanted) {
            std::string result;
            std::ranges::copy_if(packets, std::back_inserter(result),
                                 [&](char letter) { return hasPid(wanted, letter); });
            return result;
        };
        std::string records =
            filter(pids.empty() ? std::string{pick("abc"), pick("abc"), pick("abc")} : pids);
        for (auto changes = random() % 3; changes > 0; --changes) {
            const std::size_t at = random() % (records.size() + 1);
            const std::size_t removed = std::min<std::size_t>(records.size() - at, random() % 2);
            records.replace(at, removed, random() % 2 == 0 ? std::string{pick("aAbc")} : "");
        }
        const std::string seen = records.empty() ? packets : records;
        const std::string expected = filter(pids.empty() ? seen : pids);

        writeFile(path, packetsOf(packets, false) + "Gone");  // an incomplete packet
        std::string option = "3=" + path + ":";
        for (const char pid : pids) {
            option += (option.ends_with(":") ? "" : ",") + std::to_string(pid);
        }
        RecordCheck check({option});
        for (const char letter : records) {
            if (random() % 2 == 0) {
                check.isSettled();  // may look ahead in the file
            }
            check.add(bytesOf(packetsOf({letter}, true)));
        }
        const bool isSettled = check.isSettled();
        check.end(0);
        std::uint64_t differences = 0;
        for (const auto kind : {FaultKind::Unexpected, FaultKind::Missing, FaultKind::Extra}) {
            const auto& [count, first] = check.getFaults().get(kind);
            differences += count;
            const auto place = std::ranges::mismatch(records, expected).in1 - records.begin();
            if (count != 0 && !pids.empty()) {
                EXPECT_EQ(first.record, static_cast<std::uint64_t>(place)) << records << " " << expected;
            }
        }
        EXPECT_EQ(differences, records == expected ? 0U : 1U) << packets << ":" << pids << " " << records;
        EXPECT_EQ(isSettled, check.getFaults().get(FaultKind::Missing).count == 0);
        accepted += records == expected ? 1 : 0;
    }
    EXPECT_THAT(accepted, testing::AllOf(testing::Gt(750), testing::Lt(2250)));

    // Looking ahead at any time does not make it miss that the second b is missing before the first c.
    writeFile(path, packetsOf("aaAbbc", false));
    for (unsigned times = 0; times < 1U << 5; ++times) {
        RecordCheck check({"3=" + path + ":"});
        for (std::size_t n = 0; n < 5; ++n) {
            if ((times >> n & 1) != 0) {
                check.isSettled();
            }
            check.add(bytesOf(packetsOf({"aaAbc"[n]}, true)));
        }
        EXPECT_EQ(check.getFaults().get(FaultKind::Unexpected).count, 1U) << times;
    }
}

/// Reads once. Returns the continuity counters.
std::string readOnce(RecordReader& reader) {
    std::string result;
    const auto records = reader.read();
    for (std::size_t at = 0; at < records.size(); at += Ts::RECORD_SIZE) {
        result += std::to_string(records[at + 7] & 0x0F);
    }
    return result;
}

TEST(RecordReader, FollowsAFileThatGrowsAndRestartsWhenItIsRewritten) {
    const TemporaryFolder folder;
    const std::string path = folder / "file";
    const std::string old = recordsOf("0 1 2");
    int time = 0;
    const auto write = [&](const std::string& content) {
        writeFile(path, content);
        std::filesystem::last_write_time(
            path, std::filesystem::file_time_type(milliseconds(time += content.size() > 600 ? 1000 : 200)));
    };
    const struct {
        const char* now;
        std::string content;
        bool restarts;
        std::string read;
    } cases[] = {
        {"touched", old, false, ""},
        {"longer", old + recordsOf("3"), false, "3"},
        {"shorter", recordsOf("9") + "torn", true, "9"},
        {"empty", "", true, ""},
        {"rewritten to the same size", recordsOf("0 1 4"), true, "014"},
        {"rewritten to a larger size", recordsOf("0 4 2 3"), true, "0423"},
    };
    for (const auto& [now, content, restarts, expected] : cases) {
        SCOPED_TRACE(now);
        write(old.substr(0, 300));
        RecordReader reader(path);
        EXPECT_FALSE(reader.restartIfRewritten());
        EXPECT_EQ(readOnce(reader), "0");
        write(old);
        EXPECT_FALSE(reader.restartIfRewritten());
        EXPECT_EQ(readOnce(reader), "12");
        EXPECT_FALSE(reader.restartIfRewritten());
        EXPECT_EQ(readOnce(reader), "");
        write(content);
        EXPECT_EQ(reader.restartIfRewritten(), restarts);
        EXPECT_EQ(readOnce(reader), expected);
        EXPECT_EQ(reader.getTornBytes(), content.size() % Ts::RECORD_SIZE);
        write(content + recordsOf("5"));
        EXPECT_FALSE(reader.restartIfRewritten());
    }
    // Once a record has been read, bytes that look like packets are a damaged record.
    write(recordsOf("0"));
    RecordReader reader(path);
    EXPECT_EQ(readOnce(reader), "0");
    write(recordsOf("0") + 'G' + std::string(187, 'x') + 'G');
    EXPECT_EQ(readOnce(reader), "");
    EXPECT_EQ(reader.getTornBytes(), 189U);
}

TEST(ArrivalRate, IsThatOfWholeBursts) {
    ArrivalRate rate;
    EXPECT_EQ(rate.getLatest(START), std::nullopt);
    ArrivalTime at = START;
    for (int burst = 0; burst < 50; ++burst, at += milliseconds(100)) {
        rate.add(at, 30);  // a burst that is read in two pieces
        rate.add(at + milliseconds(1), 70);
        EXPECT_DOUBLE_EQ(rate.getLatest(at).value_or(0), burst == 0 ? 0 : 1000 * PACKET_BITS);
        EXPECT_EQ(rate.getOverall().has_value(), burst != 0);
    }
    for (int burst = 0; burst < 30; ++burst, at += milliseconds(100)) {
        rate.add(at, 50);
    }
    EXPECT_DOUBLE_EQ(*rate.getLatest(at), 500 * PACKET_BITS) << "bursts over two seconds ago do not count";
    EXPECT_NEAR(*rate.getOverall(), (50 * 100 + 29 * 50) / 7.9 * PACKET_BITS, 1e-3);
    EXPECT_EQ(*rate.getLatest(at + milliseconds(2500)), 0) << "it has stopped";
    rate.add(at + milliseconds(3900), 1);
    EXPECT_DOUBLE_EQ(*rate.getLatest(at + milliseconds(7500)), 50 / 4.0 * PACKET_BITS);
    EXPECT_EQ(*rate.getLatest(at + milliseconds(8000)), 0);
}

/// A stream with a PCR every 20 ms, in bursts of 100 ms.
struct PacedStream {
    ArrivalDrift drift;
    ClockTime clock{.timeBases = 1};
    ArrivalTime now = START;

    void play(int bursts, double ppm) {
        for (int i = 0; i < 5 * bursts; ++i) {
            clock.elapsed += milliseconds(20);
            drift.add(now + milliseconds(i % 5 == 1 ? i / 20 : 0), clock);  // one is taken later and later
            now += std::chrono::nanoseconds(i % 5 == 4 ? static_cast<std::int64_t>(1e8 + 100 * ppm) : 0);
        }
    }
};

TEST(ArrivalDrift, IsHowFarArrivalMovesAwayFromThePcr) {
    for (const double ppm : {0.0, 500.0, -500.0}) {
        PacedStream stream;
        stream.play(30, ppm);
        EXPECT_FALSE(stream.drift.get()) << "two windows are not complete";
        stream.play(271, ppm);
        EXPECT_NEAR(stream.drift.get()->ppm, ppm, 1);
        EXPECT_NEAR(stream.drift.get()->lateness.count(), ppm * 0.028, 1) << "28 s between the windows' ends";
    }
    PacedStream stream;
    stream.play(50, 0);
    stream.now += milliseconds(300);
    stream.play(50, 0);
    EXPECT_NEAR(stream.drift.get()->lateness.count(), 300, 0.1) << "a pause";
    ++stream.clock.timeBases;
    stream.play(30, 0);
    EXPECT_FALSE(stream.drift.get()) << "restarts with a new time base";
    stream.play(30, 0);
    EXPECT_NEAR(stream.drift.get()->lateness.count(), 0, 0.1);
}

TEST(RecordWatch, HasOneRowPerInputAndDoesNotTimeWhatWasThereBefore) {
    RecordWatch watch(true);
    EXPECT_THAT(watch.formatRows(Seconds(1.4), START, false),
                testing::ElementsAre("      1  no records yet"));
    watch.add(bytesOf(recordsOf("1 3")), std::nullopt);
    watch.add(bytesOf(recordsOf("0t 1t")), START);
    for (int i = 0; i <= 7; ++i) {
        const std::string record = recordsOf(std::to_string(4 + i) + "p" + std::to_string(999 * i));
        watch.add(bytesOf(record), START + milliseconds(1000) * i);
    }
    watch.add(bytesOf(recordsOf("2t")), START + milliseconds(7000));
    EXPECT_THAT(watch.formatRows(Seconds(3725.4), START + milliseconds(7000), false),
                testing::ElementsAre(
                    "   3725       3        1.5        1.5          10           1      +4.0    +1001",
                    "   3725     255        0.4        0.4           3           0         -        -"));
    // The first two seconds are the reference: their earliest PCR is 1 ms late.
    EXPECT_EQ(watch.takeCsvRows(Seconds(7), START + milliseconds(7000)),
              "7.000,3,1504,2.000,4.000,6.000,1\n7.000,255,430,,,,0\n");
    watch.add(bytesOf(recordsOf("12p7500 13p8000 15p8500e")), START + milliseconds(8500));
    EXPECT_EQ(watch.takeCsvRows(Seconds(8.5), START + milliseconds(8500)),
              "8.500,3,1203,499.000,999.000,999.000,1\n8.500,255,430,,,,0\n");
}

}  // namespace
}  // namespace Vel::Zepctl
