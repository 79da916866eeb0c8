#include "records/record_commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "command_error.h"
#include "record_test_support.h"

namespace Vel::Zepctl {
namespace {

using testing::HasSubstr;

class RecordCommandsTest : public testing::Test {
protected:
    struct Outcome {
        int status = DONE;
        std::string output;
        std::string error;
    };

    const ScratchDirectory m_Scratch;

    static Outcome run(std::vector<std::string> arguments) {
        CLI::App app("", "zepctl");
        const RecordCommands commands(app);
        std::reverse(arguments.begin(), arguments.end());  // as CLI11 wants them
        arguments.push_back("records");
        Outcome outcome;
        testing::internal::CaptureStdout();
        try {
            app.parse(arguments);
        } catch (const CommandError& error) {
            outcome = {error.getStatus(), "", error.what()};
        } catch (const CLI::ParseError& error) {
            outcome = {WRONG_USE, "", error.what()};
        }
        outcome.output = testing::internal::GetCapturedStdout();
        return outcome;
    }
};

TEST_F(RecordCommandsTest, CheckPrintsWhatItFound) {
    const std::string clean = m_Scratch.write("clean", join({{.pcr = 0}, {.counter = 1, .pcr = 270'000}}));
    EXPECT_EQ(run({"check", clean}).output,
              "TSIIDX     PID     PACKETS  CONTINUITY  SCRAMBLED  TRANSPORT    PCRS     KBIT/S\n"
              "     3  0x0100           2           0          0          0       2      150.4\n"
              "     3     all           2           0          0          0       2      150.4\n" +
                  clean + " is right: 2 records, no fault\n");
    const std::string empty = m_Scratch.write("empty", "");
    EXPECT_EQ(run({"check", empty}).output, empty + " is empty: no record, no fault\n");

    const std::string faulty = m_Scratch.write("\xFF", join({{.pid = 0x20},
                                                             {.pcr = 0},
                                                             {.pid = 0x20, .counter = 1},
                                                             {.counter = 2, .pcr = 10 * MS},
                                                             {.transportError = true, .scrambled = true},
                                                             {.tsiidx = 256},
                                                             {.tsiidx = 0xFFFFFFFF, .sync = 0},
                                                             {.tsiidx = 255, .sync = 0x46},
                                                             {.tsiidx = 255, .scrambled = true}}) +
                                                           std::string(100, 'x'));
    const Outcome text = run({"check", faulty});
    EXPECT_EQ(text.status, STREAM_FAULTY);
    EXPECT_EQ(text.error, faulty + " is faulty");
    EXPECT_EQ(text.output, R"(TSIIDX     PID     PACKETS  CONTINUITY  SCRAMBLED  TRANSPORT    PCRS     KBIT/S
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
)");
    const Outcome json = run({"check", "--json", faulty});
    EXPECT_EQ(json.status, STREAM_FAULTY);
    EXPECT_EQ(nlohmann::ordered_json::parse(json.output),
              nlohmann::ordered_json::parse(R"({"file": ")" + m_Scratch.file("\xEF\xBF\xBD") +
                                            R"(", "records": 9, "ok": false, "faults": {
        "continuity_errors": {"count": 1, "first":
            {"record": 3, "byte": 576, "tsiidx": 3, "pid": 256, "expected": 1, "found": 2}},
        "transport_errors": {"count": 1, "first":
            {"record": 4, "byte": 768, "tsiidx": 3, "pid": 256, "expected": 0, "found": 1}},
        "bad_sync": {"count": 1, "first":
            {"record": 7, "byte": 1344, "tsiidx": 255, "pid": null, "expected": 71, "found": 70}},
        "unknown_tsiidx": {"count": 2, "first":
            {"record": 5, "byte": 960, "tsiidx": 256, "pid": null, "expected": 255, "found": 256}},
        "torn_record": {"count": 1, "first":
            {"record": 9, "byte": 1728, "tsiidx": null, "pid": null, "expected": 192, "found": 100}}},
    "inputs": [{"tsiidx": 3, "packets": 5, "continuity_errors": 1, "pcr_pid": 256, "bit_rate": 300800, "pids": [
        {"pid": 32, "packets": 2, "continuity_errors": 0, "scrambled": 0, "transport_errors": 0, "pcrs": 0,
         "bit_rate": 150400},
        {"pid": 256, "packets": 3, "continuity_errors": 1, "scrambled": 0, "transport_errors": 1, "pcrs": 2,
         "bit_rate": 150400}]},
        {"tsiidx": 255, "packets": 1, "continuity_errors": 0, "pcr_pid": null, "bit_rate": null, "pids": [
        {"pid": 256, "packets": 1, "continuity_errors": 0, "scrambled": 1, "transport_errors": 0, "pcrs": 0,
         "bit_rate": null}]}]})"));
    EXPECT_THAT(run({"check", "--json", empty}).output, HasSubstr(R"("torn_record": {
      "count": 0,
      "first": null
    })"));
}

TEST_F(RecordCommandsTest, SplitWritesTheGoodPacketsOfEachInputInOrder) {
    std::string stream;
    std::string packets;
    for (std::uint32_t i = 0; i < 3000; ++i) {  // more than one block
        const std::string record = TestRecord{.tsiidx = 0, .pid = i}.bytes();
        stream += record;
        packets += record.substr(Ts::RECORD_HEADER_SIZE);
    }
    const std::string last = TestRecord{.tsiidx = 255}.bytes();
    stream += join({{.tsiidx = 0, .sync = 0}, {.tsiidx = 256}}) + last + "torn";
    std::filesystem::create_directories(m_Scratch.file("a/b"));
    m_Scratch.write("a/b/tsiidx-000.ts", std::string(1'000'000, 'x'));
    m_Scratch.write("a/b/tsiidx-004.ts", "stays");
    const std::string file = m_Scratch.write("records", stream);
    const Outcome outcome = run({"split", file, m_Scratch.file("a/b")});
    EXPECT_EQ(outcome.status, STREAM_FAULTY);
    EXPECT_EQ(outcome.error, file + " is faulty");
    EXPECT_THAT(outcome.output,
                testing::StartsWith(m_Scratch.file("a/b/tsiidx-000.ts") + ": 3000 packets\n" +
                                    m_Scratch.file("a/b/tsiidx-255.ts") + ": 1 packet\n1 bad sync byte; "));
    EXPECT_TRUE(m_Scratch.read("a/b/tsiidx-000.ts") == packets);
    EXPECT_TRUE(m_Scratch.read("a/b/tsiidx-255.ts") == last.substr(Ts::RECORD_HEADER_SIZE));
    EXPECT_EQ(m_Scratch.read("a/b/tsiidx-004.ts"), "stays");
}

TEST_F(RecordCommandsTest, ReportWhatCannotBeDone) {
    const std::string none = m_Scratch.file("none");
    const std::string directory = m_Scratch.file(".");
    const std::string source = m_Scratch.write("tsiidx-003.ts", join({{}}));
    std::filesystem::create_directory(m_Scratch.file("full"));
    std::filesystem::create_symlink("/dev/full", m_Scratch.file("full/tsiidx-003.ts"));
    std::filesystem::create_directories(m_Scratch.file("taken/tsiidx-003.ts"));
    const struct {
        std::vector<std::string> arguments;
        int status;
        std::string error;
    } cases[] = {
        {{"check", none}, DEVICE_UNUSABLE, "Cannot open " + none + ": No such file or directory"},
        {{"watch", directory}, DEVICE_UNUSABLE, "Cannot read " + directory + ": Is a directory"},
        {{"split", source, directory},
         DEVICE_UNUSABLE,
         "Cannot create " + directory + "/tsiidx-003.ts: it is the file that is read"},
        {{"split", source, source},
         DEVICE_UNUSABLE,
         "Cannot create directory " + source + ": Not a directory"},
        {{"split", source, m_Scratch.file("taken")},
         DEVICE_UNUSABLE,
         "Cannot create " + m_Scratch.file("taken/tsiidx-003.ts") + ": Is a directory"},
        {{"split", source, m_Scratch.file("full")},
         DEVICE_UNUSABLE,
         "Cannot write " + m_Scratch.file("full/tsiidx-003.ts") + ": No space left on device"},
        {{"watch", source, "--for", "0"},
         WRONG_USE,
         "--for 0 is not a number of seconds above 0, up to 31622400"},
        {{"watch", source, "--for", "nan"}, WRONG_USE, "--for nan is not a number of seconds"},
        {{"watch", source, "--for", "1e9"}, WRONG_USE, "--for 1000000000 is not a number of seconds"},
        {{"watch", source, "--for", "1s"}, WRONG_USE, "1s"},
        {{"split", source}, WRONG_USE, "DIR is required"},
    };
    for (const auto& [arguments, status, error] : cases) {
        const Outcome outcome = run(arguments);
        EXPECT_EQ(outcome.status, status) << error;
        EXPECT_THAT(outcome.error, HasSubstr(error));
    }
    EXPECT_EQ(m_Scratch.read("tsiidx-003.ts"), join({{}})) << "the source of a split is not overwritten";
}

}  // namespace
}  // namespace Vel::Zepctl
