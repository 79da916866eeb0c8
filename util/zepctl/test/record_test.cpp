#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "records/record_reader.h"
#include "records/record_watch.h"

namespace Vel::Zepctl {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;

constexpr ArrivalTime START{milliseconds(5'000'000)};
constexpr std::uint64_t MS = 27'000;  // PCR ticks
constexpr double PACKET_BITS = 188 * 8;

/// Records, one for each word: a continuity counter, then any of
///   t TSIIDX 255 and T TSIIDX 256 instead of 3,   x a wrong sync byte,
///   q PID 0x101 and z null packet instead of PID 0x100,   f other bytes,
///   n no payload,   s scrambled,   e transport error,
///   d discontinuity indicator and D the same in an adaptation field that does not fit,
/// and at last p and a PCR in milliseconds.
std::string recordsOf(const std::string& notation) {
    std::string stream;
    std::istringstream words(notation);
    for (std::string word; words >> word;) {
        const auto has = [&word](char flag) { return word.find(flag) != std::string::npos; };
        const std::uint32_t pid = has('z') ? Ts::NULL_PID : has('q') ? 0x101 : 0x100;
        const bool discontinuity = has('d') || has('D');
        std::uint8_t b[Ts::RECORD_SIZE];
        std::fill(std::begin(b), std::end(b), has('f') ? 'f' : ' ');
        Ts::writeRecordHeader(b, has('t') ? 255 : has('T') ? 256 : 3);
        b[4] = has('x') ? 0x46 : Ts::SYNC_BYTE;
        b[5] = static_cast<std::uint8_t>((has('e') ? 0x80 : 0) | (pid >> 8));
        b[6] = static_cast<std::uint8_t>(pid);
        b[7] = static_cast<std::uint8_t>((has('s') ? 0x80 : 0) | (discontinuity || has('p') ? 0x20 : 0) |
                                         (has('n') ? 0 : 0x10) | std::stoi(word));
        if (discontinuity || has('p')) {
            b[8] = has('D') ? 184 : 7;
            b[9] = static_cast<std::uint8_t>((discontinuity ? 0x80 : 0) | (has('p') ? 0x10 : 0));
            const std::uint64_t base = has('p') ? std::stoull(word.substr(word.find('p') + 1)) * 90 : 0;
            for (int i = 0; i < 6; ++i) {
                b[10 + i] = static_cast<std::uint8_t>(base << 15 >> (40 - 8 * i));
            }
        }
        stream.append(std::begin(b), std::end(b));
    }
    return stream;
}

std::span<const std::uint8_t> bytesOf(const std::string& stream) {
    return {reinterpret_cast<const std::uint8_t*>(stream.data()), stream.size()};
}

/// An empty current directory, as long as this exists.
struct ScratchDirectory {
    std::string path = (std::filesystem::temp_directory_path() / "zepctl_XXXXXX").string();

    ScratchDirectory() { std::filesystem::current_path(::mkdtemp(path.data())); }
    ~ScratchDirectory() {
        std::filesystem::current_path("/");
        std::filesystem::remove_all(path);
    }
};

void writeFile(const std::string& name, const std::string& bytes) {
    std::ofstream(name, std::ios::binary) << bytes;
}

std::string readFile(const std::string& name) {
    return (std::ostringstream() << std::ifstream(name, std::ios::binary).rdbuf()).str();
}

/// What a shell command prints, errors included, and its exit status, where zepctl is the built program.
std::string shell(const std::string& command) {
    const std::string line = "exec >output 2>&1; zepctl() { " ZEPCTL_PROGRAM " \"$@\"; }\n" + command;
    const int status = std::system(line.c_str());
    return readFile("output") + "status " + std::to_string(WEXITSTATUS(status)) + "\n";
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
        {"one repeat", "1 1 2 2", 0},
        {"two repeats", "1 1 1", 1},
        {"a repeat after a packet without payload", "1 1n 1", 1},
        {"a repeat with other bytes", "1 1f", 1},
        {"a repeat with its own PCR", "1p5 1p6", 0},
        {"a repeat with other bytes beside its own PCR", "1p5 1fp6", 1},
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

TEST(PcrClock, AddsStepsAcrossTheWrapAndLeavesOutJumps) {
    PcrClock clock;
    EXPECT_FALSE(clock.add(Ts::PCR_WRAP - 270'000, false));
    EXPECT_TRUE(clock.add(Ts::PCR_WRAP + 211, false)) << "an extension of 511 lifts it past the wrap";
    EXPECT_TRUE(clock.add(211 + PcrClock::MAX_STEP, false));
    EXPECT_FALSE(clock.add(0, false)) << "a step back";
    EXPECT_FALSE(clock.add(PcrClock::MAX_STEP + 1, false)) << "a step too long";
    EXPECT_FALSE(clock.add(PcrClock::MAX_STEP + 2, true)) << "a new time base that looks like a step";
    EXPECT_NEAR(clock.getElapsed(), 1.010 + 211 / 27e6, 1e-9);
    EXPECT_EQ(clock.getTimeBases(), 4U);
}

TEST(RecordInput, RatesAreByTheFirstClockAndLeaveOutIntervalsWithANewTimeBase) {
    RecordCheck check;
    check.add(
        bytesOf(recordsOf("0z 0np0 0z 0z 0qnp7000 0np10 "  // the clock of q is that of another program
                          "0z 0z 0z 0np5 "                 // jumps
                          "0z 0z 0np15 "
                          "0nd 0z 0z 0z 0np25 "  // announced before the PCR it is about
                          "0z 0z 0np35 "
                          "0z 0z 0z 0ndp45 "
                          "0z 0z 0np55 0z")));  // the last one is not followed by a PCR
    const RecordInput& input = check.getInputs().at(3);
    EXPECT_EQ(input.getPids().at(Ts::NULL_PID).counts.timedPackets, 8U);
    EXPECT_EQ(input.getTotal().timedPackets, 8U + 1 + 4);
    EXPECT_DOUBLE_EQ(*input.getBitRate(8), 200 * 188 * 8);
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

TEST(RecordReader, JoinsRecordsOfAFifoThatComeInPieces) {
    const ScratchDirectory scratch;
    ASSERT_EQ(::mkfifo("fifo", 0600), 0);
    RecordReader reader("fifo");
    EXPECT_FALSE(reader.waitForData(std::chrono::milliseconds(1))) << "waits for the first writer";
    CppUtil::FileDescriptor writer(::open("fifo", O_WRONLY));
    const std::string stream = recordsOf("0 1 2 3");
    std::string read;
    for (std::size_t at = 0; at < 767; at += 59) {
        ASSERT_EQ(::write(writer.get(), &stream[at], 59), 59);
        read += readOnce(reader);
    }
    read += readOnce(reader);
    EXPECT_FALSE(reader.isAtEnd()) << "nothing is there for now";
    writer.close();
    EXPECT_EQ(read + readOnce(reader), "012");
    EXPECT_TRUE(reader.isAtEnd());
    EXPECT_EQ(reader.getTornBytes(), 191U);
}

TEST(RecordReader, FollowsAFileThatGrowsAndRestartsWhenItIsTruncated) {
    const ScratchDirectory scratch;
    const std::string stream = recordsOf("0 1 2");
    writeFile("file", stream.substr(0, 300));
    RecordReader reader("file");
    EXPECT_EQ(readOnce(reader), "0");
    writeFile("file", stream + "torn");
    EXPECT_FALSE(reader.restartIfTruncated());
    EXPECT_EQ(readOnce(reader), "12");
    writeFile("file", recordsOf("9") + "torn");
    EXPECT_TRUE(reader.restartIfTruncated());
    EXPECT_EQ(readOnce(reader), "9");
    EXPECT_EQ(reader.getTornBytes(), 4U);
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
    PcrClock clock;
    std::uint64_t pcr = Ts::PCR_WRAP - 5000 * MS;  // wraps on the way
    ArrivalTime now = START;

    void play(int bursts, double ppm) {
        for (int i = 0; i < 5 * bursts; ++i, pcr += 20 * MS) {
            clock.add(pcr, false);
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
        EXPECT_NEAR(stream.drift.get()->milliseconds, ppm * 0.028, 1) << "28 s between the windows' ends";
    }
    PacedStream stream;
    stream.play(50, 0);
    stream.now += milliseconds(300);
    stream.play(50, 0);
    EXPECT_NEAR(stream.drift.get()->milliseconds, 300, 0.1) << "a pause";
    stream.pcr += 10'000 * MS;
    stream.play(30, 0);
    EXPECT_FALSE(stream.drift.get()) << "restarts with a new time base";
    stream.play(30, 0);
    EXPECT_NEAR(stream.drift.get()->milliseconds, 0, 0.1);
}

TEST(RecordWatch, HasOneRowPerInputAndDoesNotTimeWhatWasThereBefore) {
    RecordWatch watch;
    EXPECT_THAT(watch.formatRows(1.4, START), testing::ElementsAre("      1  no records yet"));
    watch.add(bytesOf(recordsOf("0t 1 3")), std::nullopt);
    for (int i = 0; i <= 6; ++i) {
        const std::string record = recordsOf(std::to_string(4 + i) + "p" + std::to_string(999 * i));
        watch.add(bytesOf(record), START + milliseconds(1000) * i);
    }
    EXPECT_THAT(watch.formatRows(3725.4, START + milliseconds(6000)),
                testing::ElementsAre(
                    "   3725       3        1.5        1.5           9           1      +4.0    +1001",
                    "   3725     255          -          -           1           0         -        -"));
}

TEST(RecordCommands, CheckReportsCountsAndFaultsAsTextAndAsJson) {
    const ScratchDirectory scratch;
    writeFile("clean", recordsOf("0p0"));
    EXPECT_THAT(shell("zepctl records check clean"),
                HasSubstr("clean is right: 1 record, no fault\nstatus 0\n"));
    EXPECT_EQ(shell("zepctl records check - </dev/null"),
              "standard input is empty: no record, no fault\nstatus 0\n");
    writeFile("\xFF", recordsOf("0q 0p0 1q 2p10 0es 0T 0Tx 0ts") + std::string(100, ' '));
    EXPECT_EQ(shell("zepctl records check \xFF 2>/dev/null"), &R"(
TSIIDX     PID     PACKETS  CONTINUITY  SCRAMBLED  TRANSPORT    PCRS     KBIT/S
     3  0x0100           3           1          0          1       2      150.4
     3  0x0101           2           0          0          0       0      150.4
     3     all           5           1          0          1       2      300.8
   255  0x0100           1           0          1          0       0          -
   255     all           1           0          1          0       0          -
1 continuity error; the first at record 3 (byte 576): TSIIDX 3, PID 0x0100: continuity counter 2, expected 1
1 transport error; the first at record 4 (byte 768): TSIIDX 3, PID 0x0100: transport_error_indicator is set
2 unknown TSIIDX values; the first at record 5 (byte 960): TSIIDX 256, allowed 0..255
1 torn record; the first at record 8 (byte 1536): ends after 100 of 192 bytes
status 1
)"[1]);
    shell("zepctl records check --json \xFF >json");
    EXPECT_EQ(nlohmann::ordered_json::parse(readFile("json")), nlohmann::ordered_json::parse(R"(
{"file": "\uFFFD", "records": 8, "ok": false, "faults": {
 "continuity_errors":
  {"count": 1, "first": {"record": 3, "byte": 576, "tsiidx": 3, "pid": 256, "expected": 1, "found": 2}},
 "transport_errors":
  {"count": 1, "first": {"record": 4, "byte": 768, "tsiidx": 3, "pid": 256, "expected": 0, "found": 1}},
 "bad_sync": {"count": 0, "first": null},
 "unknown_tsiidx":
  {"count": 2, "first": {"record": 5, "byte": 960, "tsiidx": 256, "pid": null, "expected": 255, "found": 256}},
 "torn_record":
  {"count": 1, "first": {"record": 8, "byte": 1536, "tsiidx": null, "pid": null, "expected": 192, "found": 100}}},
"inputs": [
 {"tsiidx": 3, "packets": 5, "continuity_errors": 1, "pcr_pid": 256, "bit_rate": 300800, "pids": [
  {"pid": 256, "packets": 3, "continuity_errors": 1, "scrambled": 0, "transport_errors": 1, "pcrs": 2,
   "bit_rate": 150400},
  {"pid": 257, "packets": 2, "continuity_errors": 0, "scrambled": 0, "transport_errors": 0, "pcrs": 0,
   "bit_rate": 150400}]},
 {"tsiidx": 255, "packets": 1, "continuity_errors": 0, "pcr_pid": null, "bit_rate": null, "pids": [
  {"pid": 256, "packets": 1, "continuity_errors": 0, "scrambled": 1, "transport_errors": 0, "pcrs": 0,
   "bit_rate": null}]}]})"));
}

TEST(RecordCommands, SplitWritesTheGoodPacketsOfEachInputInOrder) {
    const ScratchDirectory scratch;
    std::string stream;
    std::string packets;
    for (int i = 0; i < 3000; ++i) {  // more than one block
        stream += recordsOf("0p" + std::to_string(i));
        packets += stream.substr(stream.size() - Ts::TS_PACKET_SIZE);
    }
    writeFile("records", stream + recordsOf("0x 0T 0t"));
    shell("mkdir -p a/b; echo stays >a/b/tsiidx-004.ts; head -c 1000000 /dev/zero >a/b/tsiidx-003.ts");
    EXPECT_EQ(shell("zepctl records split records a/b"), &R"(
a/b/tsiidx-003.ts: 3000 packets
a/b/tsiidx-255.ts: 1 packet
1 bad sync byte; the first at record 3000 (byte 576000): TSIIDX 3: sync byte 0x46, expected 0x47
1 unknown TSIIDX value; the first at record 3001 (byte 576192): TSIIDX 256, allowed 0..255
zepctl: records is faulty
status 1
)"[1]);
    EXPECT_TRUE(readFile("a/b/tsiidx-003.ts") == packets);
    EXPECT_TRUE(readFile("a/b/tsiidx-255.ts") == recordsOf("0t").substr(Ts::RECORD_HEADER_SIZE));
    EXPECT_EQ(readFile("a/b/tsiidx-004.ts"), "stays\n");
}

TEST(RecordCommands, ReportWhatCannotBeDone) {
    const ScratchDirectory scratch;
    writeFile("tsiidx-003.ts", recordsOf("0"));
    shell("ln -s tsiidx-003.ts in; mkdir -p full taken/tsiidx-003.ts; ln -s /dev/full full/tsiidx-003.ts");
    const char* cases[][2] = {
        {"check none", "Cannot open none: No such file or directory\nstatus 3"},
        {"watch .", "Cannot read .: Is a directory\nstatus 3"},
        {"split in .", "Cannot create ./tsiidx-003.ts: it is the file that is read\nstatus 3"},
        {"split in in", "Cannot create directory in: Not a directory\nstatus 3"},
        {"split in taken", "Cannot create taken/tsiidx-003.ts: Is a directory\nstatus 3"},
        {"split in full", "Cannot write full/tsiidx-003.ts: No space left on device\nstatus 3"},
        {"watch in --for 0", "--for 0 is not a number of seconds above 0, up to 31622400\nstatus 2"},
        {"watch in --for nan", "--for nan is not a number of seconds above 0, up to 31622400\nstatus 2"},
        {"watch in --for 4e7", "--for 40000000 is not a number of seconds above 0, up to 31622400\nstatus 2"},
        {"watch in --for 1s", "--for = 1s\nstatus 2"},
    };
    for (const auto& [arguments, error] : cases) {
        EXPECT_THAT(shell(std::string("zepctl records ") + arguments), HasSubstr(error));
    }
    EXPECT_EQ(readFile("in"), recordsOf("0")) << "the source of a split is not overwritten";
}

TEST(RecordCommands, WatchPrintsALinePerSecondAndEndsWithTheWriterASignalOrItsTime) {
    const ScratchDirectory scratch;
    writeFile("records", recordsOf("1 3").substr(0, 383));
    EXPECT_THAT(
        shell("mkfifo fifo; (cat records; while ! grep -q ' 3 ' output; do sleep 0.01; done) >fifo &"
              "zepctl records watch fifo"),
        testing::MatchesRegex("SECONDS [^\n]*\n( +[0-9]+ +3 +- +- +1 +0 +- +-\n)+"
                              "fifo watched for [0-9.]+ s: 1 record\n1 torn record; [^\n]*\nstatus 0\n"));
    EXPECT_THAT(shell(ZEPCTL_PROGRAM " records watch fifo & exec 3>fifo; kill $!; wait $!"),
                HasSubstr(" s: 0 records, no fault\nstatus 0\n"));
    EXPECT_THAT(shell("zepctl records watch records --for 0.01"),
                HasSubstr(" s: 1 record, no fault\nstatus 0"));
}

}  // namespace
}  // namespace Vel::Zepctl
