#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <vector>

#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"

namespace Vel::Zepctl {

namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

struct Outcome {
    int status;
    std::string output;
    std::string errors;
};

std::string contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::ptrdiff_t linesIn(const std::string& text) {
    return std::ranges::count(text, '\n');
}

/// Runs the built program on stand-in files in a directory of its own.
class ProgramTest : public testing::Test {
protected:
    ProgramTest() {
        std::string pattern = (fs::temp_directory_path() / "zepctl_test.XXXXXX").string();
        m_Directory = ::mkdtemp(pattern.data());
        run("create " + path("zep"));
    }
    void TearDown() override { fs::remove_all(m_Directory); }

    std::string path(const std::string& name) const { return (m_Directory / name).string(); }
    std::string program(const std::string& zep = "zep") const {
        return std::string(ZEPCTL_PROGRAM) + " -t " + path(zep) + "/tsio -r " + path(zep) + "/router ";
    }

    Outcome runShell(const std::string& script) const {
        const std::string redirected =
            "{ " + script + "\n} >'" + path("output") + "' 2>'" + path("errors") + "'";
        const int status = std::system(redirected.c_str());  // NOLINT(cert-env33-c)
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contentOf(path("output")),
                contentOf(path("errors"))};
    }
    Outcome run(const std::string& arguments) const { return runShell(program() + arguments); }

    /// The output of a run that must go well.
    std::string outputOf(const std::string& arguments) const {
        const Outcome outcome = run(arguments);
        EXPECT_EQ(outcome.status, 0) << arguments;
        EXPECT_THAT(outcome.errors, IsEmpty()) << arguments;
        return outcome.output;
    }

    fs::path m_Directory;
};

}  // namespace

TEST_F(ProgramTest, WhatListsPrintAddsTheSameRowsElsewhere) {
    outputOf("input add udp://239.1.2.4 0x10");
    outputOf("input add udp://239.1.2.3:5000 3");
    outputOf("route add 3 0x100");
    outputOf("route add 3 16 --out --no-cpu --pididx 0xFFF --filter 32");
    outputOf("route add 0 8191 --out");
    EXPECT_EQ(outputOf("input list"), "udp://239.1.2.3:5000 3\nudp://239.1.2.4 16\n");
    EXPECT_EQ(outputOf("route list"),
              "0 0x1fff --out --pididx 2 --filter 255\n"
              "3 0x0010 --out --no-cpu --pididx 4095 --filter 32\n"
              "3 0x0100 --pididx 1 --filter 255\n");

    outputOf("create " + path("copy"));
    const Outcome copy =
        runShell(program() + "input list | xargs -L1 " + program("copy") + "input add\n" +  //
                 program() + "route list | xargs -L1 " + program("copy") + "route add\n" +  //
                 program("copy") + "input list; " + program("copy") + "route list");
    EXPECT_THAT(copy.errors, IsEmpty());
    EXPECT_EQ(copy.output, outputOf("input list") + outputOf("route list"));

    outputOf("route remove 3 0x100");
    outputOf("clear inputs");
    EXPECT_THAT(outputOf("input list"), IsEmpty());
    EXPECT_EQ(linesIn(outputOf("route list")), 2);
    outputOf("clear");
    EXPECT_THAT(outputOf("route list"), IsEmpty());
}

TEST_F(ProgramTest, ProgramsAtTheSameTimeLoseNoRow) {
    std::string script;
    std::string inputs;
    for (int i = 33; i >= 10; --i) {
        const std::string input = "udp://239.1.2." + std::to_string(i) + ":5000 " + std::to_string(i);
        script += program() + "input add " + input + " &\n" + program() + "route add 3 " + std::to_string(i) +
                  " &\n";
        inputs.insert(0, input + "\n");
    }
    EXPECT_THAT(runShell(script + "wait").errors, IsEmpty());
    EXPECT_EQ(outputOf("input list"), inputs);
    EXPECT_EQ(linesIn(outputOf("route list")), 24);
}

TEST_F(ProgramTest, DumpsShowTheWholeTableUnlessARangeIsGiven) {
    outputOf("input add udp://239.1.2.3:5000 5");
    outputOf("route add 3 0x10");
    EXPECT_EQ(outputOf("dump iplut"),
              "000 (0x00000800): IP:239.1.2.3, UDP_PORT:05000, TSIIDX:005, ENABLED:YES\n");
    const std::string route =
        "000 (0x00003000): TSIIDX:003, PID:0x0010(0016), PIDIDX:0001, CPU_ROUTE:YES, OUT_ROUTE:NO, "
        "FILTIDX:255\n";
    EXPECT_EQ(outputOf("dump pidlut"), route);
    outputOf("clear routes");
    EXPECT_THAT(outputOf("dump pidlut"), IsEmpty());
    EXPECT_EQ(outputOf("dump pidlut --bank 1"), route);

    const std::vector<std::pair<std::string, std::ptrdiff_t>> rows{
        {"iplut", 256},   {"physinmap", 64}, {"ipout", 256},   {"physoutmap", 256},
        {"pidlut", 2048}, {"tsimap", 256},   {"opidmap", 4095}};
    for (const auto& [table, count] : rows) {
        EXPECT_EQ(linesIn(outputOf("dump --all " + table)), count) << table;
        EXPECT_EQ(linesIn(outputOf("dump --all --first 0x10 " + table)),
                  count - (table == "opidmap" ? 15 : 16));
        EXPECT_THAT(outputOf("dump --all --first 63 --count 1 " + table), HasSubstr("063 (0x"));
    }
    EXPECT_THAT(outputOf("dump --all opidmap"), StartsWith("0001 (0x00004002): PIDIDX:0001, "));
}

TEST_F(ProgramTest, ErrorsAreOneLineAndHaveTheirExitStatus) {
    outputOf("input add udp://239.1.2.3:5000 3");
    outputOf("route add 3 0x100");
    const struct {
        const char* arguments;
        int status;
        const char* text;
    } cases[] = {
        {"", 2, "required"},
        {"inptu list", 2, "\"inptu\" is not a command of zepctl; the commands are create, input, "},
        {"input foo", 2, "\"foo\" is not a command of input; the commands are add, remove, list"},
        {"\"$(printf '\\033[2J\\nlist')\"", 2, "?[2J?list"},
        {"input", 2, "required"},
        {"dump iplutt", 2, "iplutt"},
        {"input list more", 2, "more"},
        {"input add udp://239.1.2.4:5000 256", 2, "TSIIDX \"256\" is not a number from 0 to 255"},
        {"input add udp://239.1.2.4:0 4", 2, "write it as udp://239.1.2.4"},
        {"input add udp://239.1.2.4:5000 3", 2, "TSIIDX 3 is taken by udp://239.1.2.3:5000"},
        {"input remove udp://239.1.2.4:5000", 2, "There is no input udp://239.1.2.4:5000"},
        {"route add 3 8192", 2, "PID \"8192\" is not a number from 0 to 8191"},
        {"route add 3 -1", 2, "-1"},
        {"route add 3 1 --pididx 0", 2, "--pididx \"0\" is not a number from 1 to 4095"},
        {"route add 3 1 --filter 256", 2, "0 to 255"},
        {"route add 3 1 --no-cpu", 2, "--no-cpu needs --out"},
        {"route add 3 0x100 --out", 2, "3 0x0100 --pididx 1 --filter 255"},
        {"route remove 3 1", 2, "There is no route for TSIIDX 3, PID 0x0001"},
        {"dump iplut --first 256", 2, "--first 256 is not a row of the table iplut, whose last is 255"},
        {"dump iplut --first 200 --count 57", 2, "Offset (200) and count (57)"},
        {"dump opidmap --first 0", 2, "reserved"},
        {"dump tsimap --bank 1", 2, "has no banks"},
        {"dump pidlut --bank 2", 2, "0 to 1"},
        {"-t /nonexistent input list", 3, "/nonexistent"},
        {"-t /dev/null input list", 3, "/dev/null"},
        {"-r /dev/null clear", 3, "/dev/null"},
        {"create /dev/null/zep", 3, "/dev/null/zep"},
        {"create ''", 3, "Cannot create directory \"\": "},
    };
    const std::string tsio = contentOf(path("zep/tsio"));
    const std::string router = contentOf(path("zep/router"));
    for (const auto& [arguments, status, text] : cases) {
        const Outcome outcome =
            runShell("exec " + (arguments[0] == '-' ? ZEPCTL_PROGRAM " " : program()) + arguments);
        EXPECT_EQ(outcome.status, status) << arguments;
        EXPECT_THAT(outcome.errors, AllOf(StartsWith("zepctl: "), HasSubstr(text))) << arguments;
        EXPECT_EQ(linesIn(outcome.errors), 1) << arguments;
        EXPECT_THAT(outcome.output, IsEmpty()) << arguments;
    }
    EXPECT_EQ(contentOf(path("zep/tsio")), tsio);
    EXPECT_EQ(contentOf(path("zep/router")), router);
}

TEST_F(ProgramTest, OutputThatIsLostIsAnErrorAndNeverGoesIntoATable) {
    outputOf("input add udp://239.1.2.3:5000 3");
    const std::string tsio = contentOf(path("zep/tsio"));
    const std::string faulty = path("zep/tsio");  // no whole number of records
    for (const std::string& arguments : {std::string("input list"), std::string("dump pidlut --all"),
                                         "records check " + faulty, std::string("--help")}) {
        const Outcome outcome = run(arguments + " >/dev/full");
        EXPECT_EQ(outcome.status, 3) << arguments;
        EXPECT_EQ(outcome.errors, "zepctl: Cannot write to standard output: No space left on device\n")
            << arguments;
    }
    EXPECT_EQ(run("input list <&- >&- 2>&-").status, 3);
    EXPECT_EQ(run("input add udp://239.1.2.3:5000 3 <&- >&- 2>&-").status, 2);
    EXPECT_EQ(contentOf(path("zep/tsio")), tsio);
}

TEST_F(ProgramTest, CreateMakesEmptyTablesAndPrintsHowToUseThem) {
    const std::string zep = path("new/it's");
    EXPECT_EQ(outputOf("create --fifo \"" + zep + "\""),
              "zeptfem -t " + zep + "/tsio -r " + zep + "/router -P " + zep +
                  "/pktio -f \"udp://239.1.2.3:5000 FILE.ts\"\n");
    EXPECT_EQ(contentOf(zep + "/tsio"), std::string(Drivers::Zep::TSIO_DEVICE.size, '\0'));
    EXPECT_EQ(contentOf(zep + "/router"), std::string(Drivers::Zep::ROUTER_DEVICE.size, '\0'));
    EXPECT_TRUE(fs::is_fifo(zep + "/pktio"));

    fs::remove(zep + "/router");
    const Outcome refused = run("create \"" + zep + "\"");
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.errors, "zepctl: " + zep + "/tsio exists already; --force empties it\n");
    EXPECT_FALSE(fs::exists(zep + "/router"));
    outputOf("create --fifo --force \"" + zep + "\"");
    EXPECT_TRUE(fs::exists(zep + "/router"));

    const std::string forced = "create --fifo --force \"" + zep + "\"";
    std::ofstream(zep + "/tsio") << "mine";
    fs::remove(zep + "/pktio");
    std::ofstream(zep + "/pktio") << "records";
    const Outcome noFifo = run(forced);
    EXPECT_EQ(noFifo.status, 3);
    EXPECT_EQ(noFifo.errors, "zepctl: " + zep + "/pktio exists already and is not a FIFO; remove it\n");
    EXPECT_EQ(contentOf(zep + "/tsio"), "mine");
    fs::remove(zep + "/tsio");
    fs::create_directory(zep + "/tsio");
    EXPECT_EQ(run(forced).status, 3);
}

TEST_F(ProgramTest, ForceEmptiesAMappedTableInPlaceAndNeverShortensIt) {
    fs::resize_file(path("zep/tsio"), 20000);
    fs::resize_file(path("zep/router"), 100);
    const int file = ::open(path("zep/tsio").c_str(), O_RDWR);  // NOLINT(*-vararg)
    void* mapping = ::mmap(nullptr, 20000, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ASSERT_NE(mapping, MAP_FAILED);
    const std::span bytes(static_cast<char*>(mapping), 20000);
    std::ranges::fill(bytes, 'x');
    outputOf("create --force " + path("zep"));
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()),
              std::string(Drivers::Zep::TSIO_DEVICE.size, '\0') + std::string(3616, 'x'));
    EXPECT_EQ(fs::file_size(path("zep/tsio")), 20000U);
    EXPECT_EQ(fs::file_size(path("zep/router")), Drivers::Zep::ROUTER_DEVICE.size);
    ::munmap(mapping, bytes.size());
    ::close(file);
}

TEST_F(ProgramTest, PortsAndHelp) {
    const std::string ports = outputOf("ports");
    EXPECT_EQ(linesIn(ports), 30 + 24);
    EXPECT_THAT(ports, AllOf(StartsWith("input 0 tuner0\n"), HasSubstr("\ninput 23 cam7\ninput 32 tuner16\n"),
                             HasSubstr("\ninput 37 tuner21\noutput 0 modulator0\n"),
                             testing::EndsWith("\noutput 23 cam7\n")));
    for (const std::string command :
         {"", "create", "input", "input add", "input remove", "input list", "route", "route add",
          "route remove", "route list", "clear", "dump", "ports", "records", "records check", "records split",
          "records watch"}) {
        EXPECT_THAT(outputOf(command + " --help"), HasSubstr("Example: zepctl ")) << command;
    }
}

}  // namespace Vel::Zepctl
