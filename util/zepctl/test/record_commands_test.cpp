#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "record_test_support.h"

namespace Vel::Zepctl {
namespace {

using testing::HasSubstr;
using Json = nlohmann::ordered_json;

TEST(RecordCommands, CheckReportsCountsAndFaultsAsTextAndAsJson) {
    const ScratchDirectory scratch;
    writeFile("clean", join({{.pcr = 0}}));
    EXPECT_THAT(shell("zepctl records check clean"),
                HasSubstr("          -\nclean is right: 1 record, no fault\nstatus 0\n"));
    EXPECT_EQ(shell("zepctl records check - </dev/null"),
              "standard input is empty: no record, no fault\nstatus 0\n");
    writeFile("\xFF", join({{.pid = 0x20},
                            {.pcr = 0},
                            {.pid = 0x20, .counter = 1},
                            {.counter = 2, .pcr = 10 * MS},
                            {.transportError = true, .scrambled = true},
                            {.tsiidx = 256},
                            {.tsiidx = 0xFFFFFFFF, .sync = 0},
                            {.tsiidx = 255, .sync = 0x46},
                            {.tsiidx = 255, .scrambled = true}}) +
                          std::string(100, 'x'));
    EXPECT_EQ(shell("zepctl records check \xFF 2>/dev/null"), &R"(
TSIIDX     PID     PACKETS  CONTINUITY  SCRAMBLED  TRANSPORT    PCRS     KBIT/S
     3  0x0020           2           0          0          0       0      150.4
     3  0x0100           3           1          0          1       2      150.4
     3     all           5           1          0          1       2      300.8
   255  0x0100           1           0          1          0       0          -
   255     all           1           0          1          0       0          -
1 continuity error; the first at record 3 (byte 576): TSIIDX 3, PID 0x0100: continuity counter 2, expected 1
1 transport error; the first at record 4 (byte 768): TSIIDX 3, PID 0x0100: transport_error_indicator is set
1 bad sync byte; the first at record 7 (byte 1344): TSIIDX 255: sync byte 0x46, expected 0x47
2 unknown TSIIDX values; the first at record 5 (byte 960): TSIIDX 256, allowed 0..255
1 torn record; the first at record 9 (byte 1728): ends after 100 of 192 bytes
status 1
)"[1]);
    shell("zepctl records check --json \xFF >json");
    EXPECT_EQ(Json::parse(readFile("json")).dump(), Json::parse(R"(
{"file": "\uFFFD", "records": 9, "ok": false, "faults": {
 "continuity_errors":
  {"count": 1, "first": {"record": 3, "byte": 576, "tsiidx": 3, "pid": 256, "expected": 1, "found": 2}},
 "transport_errors":
  {"count": 1, "first": {"record": 4, "byte": 768, "tsiidx": 3, "pid": 256, "expected": 0, "found": 1}},
 "bad_sync":
  {"count": 1, "first": {"record": 7, "byte": 1344, "tsiidx": 255, "pid": null, "expected": 71, "found": 70}},
 "unknown_tsiidx":
  {"count": 2, "first": {"record": 5, "byte": 960, "tsiidx": 256, "pid": null, "expected": 255, "found": 256}},
 "torn_record":
  {"count": 1, "first": {"record": 9, "byte": 1728, "tsiidx": null, "pid": null, "expected": 192, "found": 100}}},
"inputs": [
 {"tsiidx": 3, "packets": 5, "continuity_errors": 1, "pcr_pid": 256, "bit_rate": 300800, "pids": [
  {"pid": 32, "packets": 2, "continuity_errors": 0, "scrambled": 0, "transport_errors": 0, "pcrs": 0,
   "bit_rate": 150400},
  {"pid": 256, "packets": 3, "continuity_errors": 1, "scrambled": 0, "transport_errors": 1, "pcrs": 2,
   "bit_rate": 150400}]},
 {"tsiidx": 255, "packets": 1, "continuity_errors": 0, "pcr_pid": null, "bit_rate": null, "pids": [
  {"pid": 256, "packets": 1, "continuity_errors": 0, "scrambled": 1, "transport_errors": 0, "pcrs": 0,
   "bit_rate": null}]}]})")
                                                        .dump());
    shell("zepctl records check --json clean >json");
    EXPECT_EQ(Json::parse(readFile("json"))["faults"]["torn_record"].dump(), R"({"count":0,"first":null})");
}

TEST(RecordCommands, SplitWritesTheGoodPacketsOfEachInputInOrder) {
    const ScratchDirectory scratch;
    std::string stream;
    std::string packets;
    for (std::uint32_t i = 0; i < 3000; ++i) {  // more than one block
        const std::string record = TestRecord{.tsiidx = 0, .pid = i}.bytes();
        stream += record;
        packets += record.substr(Ts::RECORD_HEADER_SIZE);
    }
    const std::string last = TestRecord{.tsiidx = 255}.bytes();
    writeFile("records", stream + join({{.tsiidx = 0, .sync = 0}, {.tsiidx = 256}}) + last);
    shell("mkdir -p a/b; echo stays >a/b/tsiidx-004.ts; head -c 1000000 /dev/zero >a/b/tsiidx-000.ts");
    EXPECT_EQ(shell("zepctl records split records a/b"), &R"(
a/b/tsiidx-000.ts: 3000 packets
a/b/tsiidx-255.ts: 1 packet
1 bad sync byte; the first at record 3000 (byte 576000): TSIIDX 0: sync byte 0x00, expected 0x47
1 unknown TSIIDX value; the first at record 3001 (byte 576192): TSIIDX 256, allowed 0..255
zepctl: records is faulty
status 1
)"[1]);
    EXPECT_TRUE(readFile("a/b/tsiidx-000.ts") == packets);
    EXPECT_TRUE(readFile("a/b/tsiidx-255.ts") == last.substr(Ts::RECORD_HEADER_SIZE));
    EXPECT_EQ(readFile("a/b/tsiidx-004.ts"), "stays\n");
}

TEST(RecordCommands, ReportWhatCannotBeDone) {
    const ScratchDirectory scratch;
    const std::string records = join({{}});
    writeFile("tsiidx-003.ts", records);
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
        {"watch in --for 1e9",
         "--for 1000000000 is not a number of seconds above 0, up to 31622400\nstatus 2"},
        {"watch in --for 1s", "--for = 1s\nstatus 2"},
    };
    for (const auto& [arguments, error] : cases) {
        EXPECT_THAT(shell(std::string("zepctl records ") + arguments), HasSubstr(error));
    }
    EXPECT_EQ(readFile("in"), records) << "the source of a split is not overwritten";
}

TEST(RecordCommands, WatchPrintsALinePerSecondAndASummary) {
    const ScratchDirectory scratch;
    writeFile("records", join({{.counter = 1}, {.counter = 3}}).substr(0, 383));
    EXPECT_THAT(
        shell("mkfifo fifo; (cat records; while ! grep -q ' 3 ' output; do sleep 0.01; done) >fifo &"
              "zepctl records watch fifo"),
        testing::MatchesRegex("SECONDS [^\n]*\n( +[0-9]+ +3 +- +- +1 +0 +- +-\n)+"
                              "fifo watched for [0-9.]+ s: 1 record\n1 torn record; [^\n]*\nstatus 0\n"));
    EXPECT_THAT(shell(ZEPCTL_PROGRAM " records watch fifo & exec 3>fifo; kill $!; wait $!"),
                HasSubstr(" s: 0 records, no fault\nstatus 0\n"))
        << "ends on a signal";
    EXPECT_THAT(shell("zepctl records watch records --for 0.01"),
                HasSubstr(" s: 1 record, no fault\nstatus 0"))
        << "ends after its time";
}

}  // namespace
}  // namespace Vel::Zepctl
