#include "records/record_commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "command_error.h"
#include "record_test_support.h"

namespace Vel::Zepctl {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class RecordCommands : public testing::Test {
protected:
    const ScratchDirectory m_Scratch;
    /// A clean input 3 of 2 PIDs: 2 intervals of 10 ms.
    const std::vector<TestRecord> m_Clean = {{.pcr = 0},
                                             {.pid = 0x20},
                                             {.counter = 1, .pcr = 270'000},
                                             {.counter = 2},
                                             {.counter = 3, .pcr = 540'000}};

    /// Runs a command; what it prints comes back, what it throws passes through.
    static std::string run(std::vector<std::string> arguments) {
        CLI::App app("", "zepctl");
        addRecordCommands(app);
        std::reverse(arguments.begin(), arguments.end());  // as CLI11 wants them
        testing::internal::CaptureStdout();
        try {
            app.parse(arguments);
        } catch (...) {
            s_Printed = testing::internal::GetCapturedStdout();
            throw;
        }
        return testing::internal::GetCapturedStdout();
    }
    inline static std::string s_Printed;  // by the command that threw
};

TEST_F(RecordCommands, CheckPrintsAnAlignedTableAndThatAllIsRight) {
    const std::string file = m_Scratch.write("clean", join(m_Clean));
    EXPECT_EQ(run({"records", "check", file}),
              "TSIIDX     PID     PACKETS  CONTINUITY  SCRAMBLED  TRANSPORT    PCRS     KBIT/S\n"
              "     3  0x0020           1           0          0          0       0       75.2\n"
              "     3  0x0100           4           0          0          0       3      225.6\n"
              "     3     all           5           0          0          0       3      300.8\n" +
                  file + " is right: 5 records, no fault\n");
    const std::string empty = m_Scratch.write("empty", {});
    EXPECT_EQ(run({"records", "check", empty}), empty + " is empty: no record, no fault\n");
}

TEST_F(RecordCommands, CheckFailsWithWhatIsWrong) {
    const std::string file = m_Scratch.write("faulty", join({{.counter = 1}, {.counter = 3}}));
    EXPECT_EQ(textOf<CommandError>([&] { run({"records", "check", file}); }), file + " is faulty");
    EXPECT_THAT(s_Printed,
                HasSubstr("\n1 continuity error; the first at record 1 (byte 192): TSIIDX 3, PID 0x0100: "
                          "continuity counter 3, expected 2\n"));
}

TEST_F(RecordCommands, JsonHoldsTheSame) {
    const auto clean =
        nlohmann::json::parse(run({"records", "check", "--json", m_Scratch.write("a", join(m_Clean))}));
    EXPECT_EQ(clean["ok"], true);
    EXPECT_EQ(clean["records"], 5);
    EXPECT_EQ(clean["faults"]["bad_sync"], (nlohmann::json{{"count", 0}, {"first", nullptr}}));
    const auto& input = clean["inputs"].at(0);
    EXPECT_EQ(input["tsiidx"], 3);
    EXPECT_EQ(input["pcr_pid"], 0x100);
    EXPECT_EQ(input["bit_rate"], 300'800);
    EXPECT_EQ(input["pids"].at(1), (nlohmann::json{{"pid", 0x100},
                                                   {"packets", 4},
                                                   {"continuity_errors", 0},
                                                   {"scrambled", 0},
                                                   {"transport_errors", 0},
                                                   {"pcrs", 3},
                                                   {"bit_rate", 225'600}}));

    const std::string file =
        m_Scratch.write("name that is no UTF-8 \xFF", join({{.counter = 1}, {.counter = 3}}));
    EXPECT_THROW(run({"records", "check", "--json", file}), CommandError);
    const auto faulty = nlohmann::json::parse(s_Printed);
    EXPECT_EQ(faulty["ok"], false);
    EXPECT_EQ(
        faulty["faults"]["continuity_errors"],
        (nlohmann::json{
            {"count", 1},
            {"first",
             {{"record", 1}, {"byte", 192}, {"tsiidx", 3}, {"pid", 0x100}, {"expected", 2}, {"found", 3}}}}));
    EXPECT_EQ(faulty["inputs"].at(0)["bit_rate"], nullptr);
}

TEST_F(RecordCommands, SplitListsItsFilesAlsoWhereTheStreamIsFaulty) {
    const std::string directory = m_Scratch.file("out");
    Bytes stream = join(m_Clean);
    EXPECT_EQ(run({"records", "split", m_Scratch.write("clean", stream), directory}),
              directory + "/tsiidx-003.ts: 5 packets\n");
    stream.pop_back();
    const std::string torn = m_Scratch.write("torn", stream);
    EXPECT_THAT(textOf<CommandError>([&] {
                    run({"records", "split", torn, directory});
                }),
                StartsWith(torn + " is faulty: 1 torn record"));
    EXPECT_EQ(s_Printed, directory + "/tsiidx-003.ts: 4 packets\n");
    EXPECT_EQ(m_Scratch.read("out/tsiidx-003.ts").size(), 4U * 188);
}

TEST_F(RecordCommands, WatchOfAFileEndsAfterItsTime) {
    const std::string file = m_Scratch.write("clean", join(m_Clean));
    EXPECT_THAT(
        run({"records", "watch", file, "--for", "0.05"}),
        HasSubstr(": 5 records, no fault\nTSIIDX 3: - kbit/s over all, 5 packets, 0 continuity errors"));
    for (const char* seconds : {"0", "-1", "nan", "1e9", "1s", "abc"}) {
        EXPECT_THAT(textOf<CommandError>([&] {
                        run({"records", "watch", file, "--for", seconds});
                    }),
                    StartsWith(std::string("--for \"") + seconds +
                               "\" is not a number of seconds above 0, up to 31622400"));
    }
}

TEST_F(RecordCommands, WhatCannotBeReadIsADeviceErrorAndWhatIsMissingAParseError) {
    for (const char* command : {"check", "watch"}) {
        EXPECT_THROW(run({"records", command, m_Scratch.file("none")}), CommandError);
        EXPECT_THROW(run({"records", command}), CLI::ParseError);
    }
    EXPECT_THROW(run({"records"}), CLI::ParseError);
}

}  // namespace
}  // namespace Vel::Zepctl
