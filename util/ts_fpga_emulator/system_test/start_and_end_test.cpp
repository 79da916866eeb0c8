#include <csignal>
#include <thread>

#include "harness.h"

namespace Vel::SystemTest {
namespace {

TEST(CommandLine, MistakesAreReportedWithTheHelpAndStatus0) {
    struct Case {
        Texts arguments;
        std::string error;
    };
    const std::vector<Case> cases = {
        {{}, "Initialization Error: No file/URI pairs given via the -f/--file_uri_pair option.("},
        {{"-f"}, "Initialization Error: Invalid formatted URI/file pair \"\". ("},
        {{"-f", "udp://1.2.3.4\tx.ts"},
         "Initialization Error: Invalid formatted URI/file pair \"udp://1.2.3.4\tx.ts\". ("},
        {{"-f", "udp://1.2.3.4  x.ts"},
         "Initialization Error: Invalid formatted URI/file pair \"udp://1.2.3.4  x.ts\". ("},
        {{"-f", "u x", "--file_uri_pair=u y"},
         "Initialization Error: Rendundant URI in URI/file pair \"u y\". ("},
        {{"--nonsense"}, "Option"},
        {{"-r"}, "Option"},
    };
    for (const Case& c : cases) {
        Program program(ZEPTFEM_PROGRAM, c.arguments);
        EXPECT_EQ(program.wait(), 0) << c.error;
        EXPECT_TRUE(program.err().starts_with(c.error)) << program.err();
        EXPECT_NE(program.err().find("zeptfem (ZEP Transport stream FPGA Emulator).\nEmulates"),
                  std::string::npos);
        EXPECT_EQ(program.err().find("/ts_fpga_emulator/src/command_line.cpp:") == std::string::npos,
                  c.error.starts_with("Option"));
        // Paths in messages are the project's, not those of the machine that built it.
        EXPECT_EQ(program.err().find("(/"), std::string::npos) << program.err();
        const Texts expected =
            c.error.starts_with("Option") ? Texts{} : Texts{"[info] Starting the zeptfem application"};
        EXPECT_EQ(program.log(), expected);
    }
}

TEST(CommandLine, HelpIsPrintedOnStandardOutputAndNothingElseHappens) {
    Program program(ZEPTFEM_PROGRAM, {"-f", "bad", "-h"});
    EXPECT_EQ(program.wait(), 0);
    EXPECT_EQ(program.err(), "");
    for (const char* part :
         {"Emulates the software connected data paths", "--router_dev", "/dev/zeptsif_pidlut", "--tsio_dev",
          "/dev/zeptsif_iplut", "--pktioctrl_dev", "--pktiodata_dev", "/dev/zeptsif_pktio", "--file_uri_pair",
          "--help", "--pcrmode"}) {
        EXPECT_NE(program.out().find(part), std::string::npos) << part;
    }
    EXPECT_EQ(program.out().find("Starting"), std::string::npos);
}

TEST_F(EmulatorTest, SignalsEndTheProgramAlsoWhereTheParentHadThemIgnored) {
    for (const int number : {SIGINT, SIGTERM}) {
        startAndWait(link(1, {}), [] {
            std::signal(SIGINT, SIG_IGN);
            std::signal(SIGTERM, SIG_IGN);
        });
        emulator->signal(number);
        EXPECT_EQ(emulator->wait(), 0);
        EXPECT_EQ(emulator->err(),
                  number == SIGINT ? "\nReceived signal SIGINT\n" : "\nReceived signal SIGTERM\n");
        EXPECT_EQ(emulator->log().front(), "[info] Starting the zeptfem application");
        EXPECT_EQ(emulator->log().back(), "[info] Application exit has been signaled...");
    }
}

/// Signals at any moment of start, run and teardown, many of them, while a table is never stable: the program
/// ends once, in order.
TEST_F(EmulatorTest, ManySignalsAtAnyTimeEndTheProgramOnce) {
    const Texts pair = link(1, makeStream({0x100}, 3000));
    setInput(0, 1, 3);
    setRoute(0, 3, 0x100);
    std::jthread writer([&](const std::stop_token& stop) {
        for (std::uint32_t i = 0; !stop.stop_requested(); ++i) {
            router[PID_LUT + 2] = i;
            router[PID_LUT + 3] = CPU_ROUTE | (i & 0xFF);
        }
    });
    for (int delay = 0; delay < 24; ++delay) {
        start(pair);
        // Until the program has blocked the signals they would end it as they end every program.
        ASSERT_TRUE(eventually([&] {
            const std::string status =
                readFile<std::string>("/proc/" + std::to_string(emulator->pid()) + "/status");
            return status.find("Name:\tzeptfem") != std::string::npos &&
                   status.find("SigBlk:\t0000000000004002") != std::string::npos;
        }));
        std::this_thread::sleep_for(std::chrono::milliseconds(delay));
        for (int i = 0; i < 200 && emulator->isRunning(); ++i) {
            emulator->signal(i % 2 == 0 ? SIGINT : SIGTERM);
        }
        ASSERT_EQ(emulator->wait(), 0) << delay;
    }
}

}  // namespace
}  // namespace Vel::SystemTest
