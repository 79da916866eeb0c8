#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <thread>

#include "harness.h"

namespace Vel::SystemTest {
namespace {

using std::chrono::seconds;

/// What a FIFO or pipe holds now.
Bytes drain(int reader) {
    Bytes all(1 << 20);
    std::size_t size = 0;
    for (ssize_t got = 0; (got = ::read(reader, &all[size], 65536)) > 0;) {
        size += static_cast<std::size_t>(got);
    }
    all.resize(size);
    return all;
}

TEST_F(EmulatorTest, InputsAndRoutesPlayTheLinkedFilesInFileOrder) {
    const Bytes first = makeStream({0x100, 0x101, 0x1FFF, 0x0}, 40000);
    const Bytes second = makeStream({0x20, 0x21}, 30000);
    const Texts links = link(1, first) + link(2, second) + link(4, second);
    std::filesystem::resize_file(folder / "2.ts", std::uintmax_t{5} << 30);  // goes on with PID 0
    setRoute(0, 3, 0x100);  // comes before its input, and before the start
    start(links);
    ASSERT_TRUE(emulator->waitForLog("[warning] The PID LUT already holds 1 used rows"));
    ASSERT_TRUE(emulator->waitForLog("[info] Detected added CPU route of PID 256 from TSIIDX 3"));
    setRoute(1, 3, 0x0);
    setRoute(2, 7, 0x21);
    ASSERT_TRUE(emulator->waitForLog("[info] Detected added CPU route of PID 33 from TSIIDX 7"));
    setInput(0, 1, 3);
    setInput(1, 2, 7);
    setInput(2, 3, 9);  // nothing is linked to it
    setInput(3, 4, 7);  // too late

    const Bytes expected3 = recordsOf(first, 3, {0x0, 0x100});
    const Bytes expected7 = recordsOf(second, 7, {0x21});
    ASSERT_TRUE(waitForRecords(expected3.size() + expected7.size()));
    EXPECT_EQ(emulator->terminate(), 0);
    const Bytes written = records();
    EXPECT_EQ(written.size(), expected3.size() + expected7.size());
    EXPECT_TRUE(recordsOfInput(written, 3) == expected3);
    EXPECT_TRUE(recordsOfInput(written, 7) == expected7);
    // The pending routes are logged a second time when their input arrives.
    EXPECT_EQ(emulator->countLog("[info] Detected added CPU route of PID 256 from TSIIDX 3"), 2U);
    EXPECT_EQ(emulator->countLog("[info] Detected added input TS: udp://239.1.2.3:5000 @ TSIIDX 9"), 1U);
    EXPECT_EQ(
        emulator->countLog("[warning] Input TS udp://239.1.2.4:5000 is not played: TSIIDX 7 already plays "
                           "udp://239.1.2.2:5000"),
        1U);
    EXPECT_EQ(emulator->countLog("[error]"), 0U);
}

/// A row that is rewritten is a removal and an addition. Both take effect at one packet, for every input.
TEST_F(EmulatorTest, RowsThatAreRewrittenTogetherLoseNoRecord) {
    const Bytes stream = makeStream({0x100}, 200000);
    startAndWait(link(1, stream) + link(2, stream));
    for (std::uint32_t n = 1; n <= 2; ++n) {
        setRoute(n, n, 0x100);
        setInput(n, n, n);
    }
    const std::size_t expected = 2 * stream.size() / 188 * 192;
    std::uint32_t filter = 0;
    ASSERT_TRUE(eventually([&] {
        filter = (filter + 1) % 256;
        setRoute(1, 1, 0x100, filter);
        setRoute(2, 2, 0x100, filter);
        return std::filesystem::file_size(data) >= expected;
    }));
    EXPECT_EQ(emulator->terminate(), 0);
    EXPECT_GT(emulator->countLog("[info] Detected removed CPU route"), 2U);
    const Bytes written = records();
    for (std::uint32_t n = 1; n <= 2; ++n) {
        EXPECT_TRUE(recordsOfInput(written, n) == recordsOf(stream, n, {0x100}));
    }
}

TEST(CommandLine, HelpAndMistakesEndWithStatus0) {
    struct Case {
        Texts arguments;
        std::string error;  // how it begins
        std::size_t logLines;
    };
    const std::vector<Case> cases = {
        {{"-f", "u x", "-f", "u y"},
         "Initialization Error: Rendundant URI in URI/file pair \"u y\". (util/",
         1},
        {{}, "Initialization Error: No file/URI pairs given via the -f/--file_uri_pair option.(util/", 1},
        {{"--nonsense"}, "Option", 0},
    };
    for (const Case& c : cases) {
        Program program(ZEPTFEM_PROGRAM, c.arguments);
        EXPECT_EQ(program.wait(), 0) << c.error;
        EXPECT_TRUE(program.err().starts_with(c.error)) << program.err();
        EXPECT_NE(program.err().find("zeptfem (ZEP Transport stream FPGA Emulator).\nEmulates"),
                  std::string::npos);
        EXPECT_EQ(program.log().size(), c.logLines);
    }
    Program help(ZEPTFEM_PROGRAM, {"-f", "bad", "-h"});
    EXPECT_EQ(help.wait(), 0);
    EXPECT_EQ(help.err(), "");
    EXPECT_TRUE(help.out().starts_with("zeptfem (ZEP Transport stream FPGA Emulator).\nEmulates"))
        << help.out();
}

/// Signals at any moment of start, run and teardown, many of them, while a table is never stable: the program
/// ends once, in order, also where its parent had them ignored.
TEST_F(EmulatorTest, ManySignalsAtAnyTimeEndTheProgramOnce) {
    const Texts pair = link(1, makeStream({0x100}, 3000));
    setInput(0, 1, 3);
    setRoute(0, 3, 0x100);
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGTERM, SIG_IGN);
    std::jthread writer([&](const std::stop_token& stop) {
        for (std::uint32_t i = 0; !stop.stop_requested(); ++i) {
            router[PID_LUT + 2] = i;
            router[PID_LUT + 3] = CPU_ROUTE | (i & 0xFF);
        }
    });
    for (int delay = 0; delay < 24; ++delay) {
        start(pair);
        std::this_thread::sleep_for(std::chrono::milliseconds(delay));
        // Ignored until the program takes them.
        ASSERT_TRUE(eventually([&] {
            emulator->signal(SIGINT);
            return emulator->err().starts_with("\nReceived signal SIGINT\n");
        }));
        for (int i = 0; i < 200 && emulator->isRunning(); ++i) {
            emulator->signal(i % 2 == 0 ? SIGTERM : SIGINT);
        }
        ASSERT_EQ(emulator->wait(), 0) << delay;
        EXPECT_EQ(emulator->countLog("[info] Application exit has been signaled..."), 1U);
    }
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
}

/// A FIFO without reader, then with one that reads nothing, then with one that leaves.
TEST_F(EmulatorTest, AFifoAsDataDeviceHoldsUpNeitherTheEndNorItself) {
    ASSERT_EQ(::mkfifo(data.c_str(), 0600), 0);
    const Bytes stream = makeStream({0x100}, 5000);
    start(link(1, stream));
    ASSERT_TRUE(emulator->waitForLog("[info] Waiting for a reader of " + data));
    EXPECT_EQ(emulator->terminate(seconds(SANITIZED ? 10 : 3)), 0);
    EXPECT_EQ(emulator->err(), "\nReceived signal SIGTERM\n");

    start(link(1, stream) + link(2, stream));
    ASSERT_TRUE(emulator->waitForLog("[info] Waiting for a reader of " + data));
    int reader = ::open(data.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    for (std::uint32_t n = 1; n <= 2; ++n) {
        setInput(n, n, n);
        setRoute(n, n, 0x100);
    }
    ASSERT_TRUE(emulator->waitForLog("[info] Detected added CPU route of PID 256 from TSIIDX 2"));
    setRoute(3, 2, 0x101);  // waits for a stream, which waits for the reader
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(emulator->terminate(seconds(SANITIZED ? 10 : 3)), 0);
    const Bytes arrived = drain(reader);
    ASSERT_GT(arrived.size(), 0U);
    EXPECT_EQ(arrived.size() % RECORD, 0U);
    for (std::uint32_t n = 1; n <= 2; ++n) {
        const Bytes got = recordsOfInput(arrived, n);
        const Bytes whole = recordsOf(stream, n, {0x100});
        EXPECT_TRUE(std::equal(got.begin(), got.end(), whole.begin())) << "gap in the records of " << n;
    }
    EXPECT_EQ(emulator->countLog("[error]"), 0U);

    start(link(1, stream));
    ASSERT_TRUE(eventually([&] { return !drain(reader).empty(); }));
    ::close(reader);
    EXPECT_TRUE(
        emulator->waitForLog("[error] Stream of TSIIDX 1 has ended: IOErrorr: Failed writing TS packets to "
                             "file: \"" +
                             data + "\""));
    EXPECT_EQ(emulator->terminate(), 0);
}

TEST_F(EmulatorTest, ASizeLimitOfTheDataFileIsReported) {
    start(link(1, makeStream({0x100}, 100)), [] {
        constexpr rlimit LIMIT{10 * RECORD + 100, RLIM_INFINITY};
        ::setrlimit(RLIMIT_FSIZE, &LIMIT);
    });
    setInput(0, 1, 3);
    setRoute(0, 3, 0x100);
    EXPECT_TRUE(
        emulator->waitForLog("[error] Stream of TSIIDX 3 has ended: IOErrorr: Failed writing TS packets"));
    EXPECT_NE(emulator->out().find("[File too large]"), std::string::npos);
    EXPECT_EQ(emulator->terminate(), 0);
}

/// A clock that jumps back reads as a wrap: 26 hours for one batch. The streaming thread sleeps with its
/// filter lock held, the monitor thread waits for that lock, and the end waits for the monitor thread.
TEST_F(EmulatorTest, AClockThatJumpsBackHoldsUpNeitherTheEndNorTheRestOfTheFile) {
    Bytes stream = makeStream({0x100}, 500);
    for (const std::uint32_t number : {0U, 1U}) {
        const Bytes packet =
            TestPacket{.number = number, .counter = number, .pcr = 27'000'000 * (1 - number)}.bytes();
        std::ranges::copy(packet, &stream[number * PACKET]);
    }
    startAndWait(link(1, stream) + Texts{"-m"});
    setInput(0, 1, 3);
    setRoute(0, 3, 0x100);
    ASSERT_TRUE(waitForRecords(99 * RECORD));
    setRoute(1, 3, 0x101);
    ASSERT_TRUE(emulator->waitForLog("[info] Detected added CPU route of PID 257 from TSIIDX 3"));
    EXPECT_EQ(records().size(), 99 * RECORD);
    EXPECT_EQ(emulator->terminate(seconds(SANITIZED ? 10 : 3)), 0);
    EXPECT_TRUE(records() == recordsOf(stream, 3, {0x100}));
}

TEST_F(EmulatorTest, AControlDeviceThatCannotBeUsedEndsTheStartWithStatus1) {
    const std::string shortFile = folder / "short";
    writeFile(shortFile, Bytes(100000));
    const Texts pair = {"-f", "udp://1.2.3.4 x.ts"};
    struct Case {
        Texts arguments;
        Texts parts;  // of the message
    };
    const std::vector<Case> cases = {
        {{"-t", tsio.path(), "-r", shortFile, "-P", data}, {shortFile, "100000", "131072"}},
        {{"-t", tsio.path(), "-r", router.path(), "-P", tsio.path()}, {tsio.path(), "would be emptied"}},
        {{"-t", tsio.path(), "-r", router.path(), "-P", router.path()}, {router.path(), "would be emptied"}},
        {{"-t", "/none/tsio"},
         {"PCI Error: Could not open device at path: /none/tsio. Error: \"No such file or directory\"("}},
        {{"-t", "/dev/null"},
         {"PCI Error: Failed mmap of 16384 bytes (offset: 0) from device: /dev/null. ("}},
    };
    for (const Case& c : cases) {
        Program program(ZEPTFEM_PROGRAM, c.arguments + pair);
        EXPECT_EQ(program.wait(), 1);
        for (const std::string& part : c.parts) {
            EXPECT_NE(program.err().find(part), std::string::npos) << part << " in " << program.err();
        }
        EXPECT_FALSE(std::filesystem::exists(data)) << "the data device was opened";
        EXPECT_EQ(std::filesystem::file_size(tsio.path()), TSIO_SIZE);
        EXPECT_EQ(std::filesystem::file_size(router.path()), ROUTER_SIZE);
    }
}

TEST_F(EmulatorTest, AClosedStandardOutputMixesNoLogIntoTheTables) {
    const Bytes stream = makeStream({0x100}, 1000);
    setInput(0, 1, 3);
    setRoute(0, 3, 0x100);
    const Bytes before = readFile(tsio.path());
    start(link(1, stream), [] { ::close_range(STDIN_FILENO, STDERR_FILENO, 0); });
    ASSERT_TRUE(waitForRecords(1000 * RECORD));
    EXPECT_EQ(emulator->terminate(), 0);
    EXPECT_TRUE(records() == recordsOf(stream, 3, {0x100}));
    EXPECT_TRUE(readFile(tsio.path()) == before);
}

/// `zeptfem | less`, or a terminal that was stopped: nobody empties the pipe, or its reader has left.
TEST_F(EmulatorTest, APipeThatNobodyEmptiesHoldsUpNeitherStreamsNorTheEnd) {
    if (SANITIZED) {
        GTEST_SKIP() << "the thread sanitizer's work at exit waits for the stuck writer as well";
    }
    setInput(0, 1, 3);
    setRoute(0, 3, 0x100);
    for (const int descriptor : {STDOUT_FILENO, STDERR_FILENO}) {
        for (const bool hasReader : {true, false}) {
            int ends[2];
            ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
            while (::write(ends[1], &ends, sizeof ends) > 0) {
            }
            ASSERT_EQ(::fcntl(ends[1], F_SETFL, 0), 0);
            std::filesystem::remove(data);
            start(link(1, makeStream({0x100}, 1000)), [&] { ::dup2(ends[1], descriptor); });
            if (!hasReader) {
                ::close(ends[0]);
            }
            EXPECT_TRUE(waitForRecords(1000 * RECORD));
            EXPECT_EQ(emulator->terminate(seconds(3)), 0) << descriptor;
            ::close(ends[1]);
            if (hasReader) {
                ::close(ends[0]);
            }
        }
    }
}

/// A live feed: a FIFO as transport stream file.
TEST_F(EmulatorTest, AFifoFeedsAnInputUntilItsWriterLeaves) {
    const Bytes stream = makeStream({0x100}, 2000);
    const std::string feed = folder / "feed";
    ASSERT_EQ(::mkfifo(feed.c_str(), 0600), 0);
    startAndWait(linkPath(1, feed) + linkPath(2, feed));
    setInput(0, 1, 3);
    setRoute(0, 3, 0x100);
    ASSERT_TRUE(emulator->waitForLog("[info] Detected added CPU route of PID 256 from TSIIDX 3"));
    writeFile(feed, stream);
    ASSERT_TRUE(waitForRecords(2000 * RECORD));
    // Waiting for a writer, an input can be removed and the program ended.
    setInput(1, 2, 4);
    setRoute(1, 4, 0x100);
    ASSERT_TRUE(emulator->waitForLog("[info] Detected added CPU route of PID 256 from TSIIDX 4"));
    clearInput(1);
    ASSERT_TRUE(emulator->waitForLog("[info] Detected removed input TS: udp://239.1.2.2:5000 @ TSIIDX 4"));
    EXPECT_EQ(emulator->terminate(), 0);
    EXPECT_TRUE(records() == recordsOf(stream, 3, {0x100}));
}

}  // namespace
}  // namespace Vel::SystemTest
