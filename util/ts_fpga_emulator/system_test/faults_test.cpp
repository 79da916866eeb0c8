#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <thread>

#include "emulator.h"

namespace Vel::SystemTest {
namespace {

/// A FIFO as data device, and its reader.
class FifoTest : public EmulatorTest {
public:
    ~FifoTest() override { ::close(m_Reader); }

protected:
    FifoTest() { ::mkfifo(data.c_str(), 0600); }

    void openReader() { m_Reader = ::open(data.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); }
    void closeReader() {
        ::close(m_Reader);
        m_Reader = -1;
    }
    /// What the FIFO holds now.
    Bytes drain() const {
        Bytes all;
        std::uint8_t buffer[4096];
        for (ssize_t got = 0; (got = ::read(m_Reader, buffer, sizeof buffer)) > 0;) {
            all.insert(all.end(), buffer, buffer + got);
        }
        return all;
    }

private:
    int m_Reader = -1;
};

TEST_F(FifoTest, StartUpWaitsForAReaderAndCanBeEndedMeanwhile) {
    start(link(1, {}));
    ASSERT_TRUE(emulator->waitForLog("[info] Waiting for a reader of " + data.string()));
    EXPECT_EQ(emulator->terminate(std::chrono::seconds(SANITIZED ? 5 : 1)), 0);
    EXPECT_EQ(emulator->err(), "\nReceived signal SIGTERM\n");
    // With a reader it goes on by itself.
    start(link(1, makeStream({0x100}, 10)));
    ASSERT_TRUE(emulator->waitForLog("[info] Waiting for a reader"));
    openReader();
    setInput(0, 1, 3);
    setRoute(0, 3, 0x100);
    Bytes arrived;
    ASSERT_TRUE(eventually([&] {
        const Bytes more = drain();
        arrived.insert(arrived.end(), more.begin(), more.end());
        return arrived.size() >= 10 * 192;
    }));
    EXPECT_EQ(emulator->terminate(), 0);
}

TEST_F(FifoTest, AReaderThatDoesNotReadHoldsUpStreamsButNotTheEnd) {
    const Bytes stream = makeStream({0x100}, 5000);
    openReader();
    startAndWait(link(1, stream) + link(2, stream));
    for (std::uint32_t n = 1; n <= 2; ++n) {
        setInput(n, n, n);
        setRoute(n, n, 0x100);
    }
    ASSERT_TRUE(emulator->waitForLog("[info] Detected added CPU route of PID 256 from TSIIDX 2"));
    // A routing call now waits behind a stream that waits for the reader.
    setRoute(3, 2, 0x101);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(emulator->terminate(std::chrono::seconds(SANITIZED ? 10 : 2)), 0);
    const Bytes arrived = drain();
    ASSERT_GT(arrived.size(), 0U);
    EXPECT_EQ(arrived.size() % 192, 0U);
    for (std::uint32_t n = 1; n <= 2; ++n) {
        const Bytes expected = recordsOf(stream, n, {0x100});
        const Bytes got = recordsOfInput(arrived, n);
        EXPECT_TRUE(std::equal(got.begin(), got.end(), expected.begin())) << "gap in the records of " << n;
    }
    EXPECT_EQ(emulator->countLog("[error]"), 0U);
}

TEST_F(FifoTest, AReaderThatLeavesEndsStreamsButNotTheProgram) {
    const Bytes stream = makeStream({0x100}, 100000);
    openReader();
    startAndWait(link(1, stream));
    setInput(0, 1, 3);
    setRoute(0, 3, 0x100);
    ASSERT_TRUE(eventually([&] { return !drain().empty(); }));
    closeReader();
    ASSERT_TRUE(emulator->waitForLog(
        "[error] Stream of TSIIDX 3 has ended: IOErrorr: Failed writing TS packets to file: \"" +
        data.string() + "\""));
    setInput(1, 2, 4);
    EXPECT_TRUE(emulator->waitForLog("[info] Detected added input TS: udp://239.1.2.2:5000 @ TSIIDX 4"));
    EXPECT_EQ(emulator->terminate(), 0);
}

TEST_F(EmulatorTest, ADataDeviceThatIsFullOrADirectoryOrMissingIsToldByEveryStream) {
    for (const std::string device : {"/dev/full", "/tmp", "/nonexistent/pktio"}) {
        data = device;
        setInput(0, 0, 0);
        clearInput(0);
        clearRoute(0);
        startAndWait(link(1, makeStream({0x100}, 100)));
        setInput(0, 1, 3);
        setRoute(0, 3, 0x100);
        EXPECT_TRUE(emulator->waitForLog(
            "[error] Stream of TSIIDX 3 has ended: IOErrorr: Failed writing TS packets to file: \"" + device +
            "\""));
        EXPECT_EQ(emulator->terminate(), 0) << device;
    }
}

/// A clock that jumps back reads as a wrap: 26 hours for one batch. The streaming thread sleeps with its
/// filter lock held, the monitor thread waits behind that lock, and the end waits behind the monitor thread.
TEST_F(EmulatorTest, AClockThatJumpsBackHoldsUpNeitherTheEndNorTheRestOfTheFile) {
    Bytes stream;
    for (std::uint32_t i = 0; i < 500; ++i) {
        const Bytes packet = i == 0 ? makePcrPacket(0x100, i, 27'000'000)
                                    : (i == 1 ? makePcrPacket(0x100, i, 0) : makePacket(0x100, i));
        stream.insert(stream.end(), packet.begin(), packet.end());
    }
    startAndWait(link(1, stream) + std::vector<std::string>{"-m"});
    setInput(0, 1, 3);
    setRoute(0, 3, 0x100);
    ASSERT_TRUE(waitForRecords(99 * 192));
    setRoute(1, 3, 0x101);
    ASSERT_TRUE(emulator->waitForLog("[info] Detected added CPU route of PID 257 from TSIIDX 3"));
    EXPECT_EQ(records().size(), 99U * 192U);
    EXPECT_EQ(emulator->terminate(std::chrono::seconds(SANITIZED ? 10 : 2)), 0);
    EXPECT_TRUE(records() == recordsOf(stream, 3, {0x100}));
}

TEST_F(EmulatorTest, AControlDeviceThatCannotBeUsedEndsTheStartWithStatus1) {
    ASSERT_EQ(::truncate(router.path().c_str(), 100000), 0);
    start(link(1, {}));
    EXPECT_EQ(emulator->wait(), 1);
    for (const std::string& part : {router.path().string(), std::string("100000"), std::string("131072")}) {
        EXPECT_NE(emulator->err().find(part), std::string::npos) << part << " in " << emulator->err();
    }
    EXPECT_FALSE(std::filesystem::exists(data)) << "the data device was opened";

    data = tsio.path();
    ASSERT_EQ(::truncate(router.path().c_str(), ROUTER_SIZE), 0);
    start(link(1, {}));
    EXPECT_EQ(emulator->wait(), 1);
    EXPECT_NE(emulator->err().find("would be emptied"), std::string::npos) << emulator->err();
    EXPECT_EQ(std::filesystem::file_size(tsio.path()), TSIO_SIZE);

    emulator = std::make_unique<Program>(
        ZEPTFEM_PROGRAM, std::vector<std::string>{"-t", "/nonexistent/tsio", "-f", "udp://1.2.3.4 x.ts"});
    EXPECT_EQ(emulator->wait(), 1);
    EXPECT_TRUE(emulator->err().starts_with(
        "PCI Error: Could not open device at path: /nonexistent/tsio. Error: \"No such "
        "file or directory\"("))
        << emulator->err();
    emulator = std::make_unique<Program>(
        ZEPTFEM_PROGRAM, std::vector<std::string>{"-t", "/dev/null", "-f", "udp://1.2.3.4 x.ts"});
    EXPECT_EQ(emulator->wait(), 1);
    EXPECT_TRUE(emulator->err().starts_with(
        "PCI Error: Failed mmap of 16384 bytes (offset: 0) from device: /dev/null. "))
        << emulator->err();
}

TEST_F(EmulatorTest, AClosedStandardOutputMixesNoLogIntoTheTables) {
    const Bytes stream = makeStream({0x100}, 1000);
    start(link(1, stream), [] {
        ::close(STDIN_FILENO);
        ::close(STDOUT_FILENO);
        ::close(STDERR_FILENO);
    });
    setInput(0, 1, 3);
    setRoute(0, 3, 0x100);
    ASSERT_TRUE(waitForRecords(1000 * 192));
    EXPECT_EQ(emulator->terminate(), 0);
    EXPECT_TRUE(records() == recordsOf(stream, 3, {0x100}));
    Bytes tables = readBytes(tsio.path());
    EXPECT_EQ(std::count(tables.begin(), tables.end(), 0), static_cast<std::ptrdiff_t>(TSIO_SIZE) - 8);
}

/// `zeptfem | less`, or a terminal that was stopped: nobody empties the pipe, and still the program can be
/// ended.
TEST_F(EmulatorTest, APipeThatNobodyEmptiesHoldsUpNeitherStreamsNorTheEnd) {
    if (SANITIZED) {
        GTEST_SKIP() << "the thread sanitizer's work at exit waits for the stuck writer as well";
    }
    for (const int descriptor : {STDOUT_FILENO, STDERR_FILENO}) {
        int ends[2];
        ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        const std::string filling(4096, 'x');
        while (::write(ends[1], filling.data(), filling.size()) > 0) {
        }
        ASSERT_EQ(::fcntl(ends[1], F_SETFL, 0), 0);
        startAndWait(link(1, makeStream({0x100}, 1000)), [&] { ::dup2(ends[1], descriptor); });
        setInput(0, 1, 3);
        setRoute(0, 3, 0x100);
        EXPECT_TRUE(waitForRecords(1000 * 192));
        EXPECT_EQ(emulator->terminate(std::chrono::seconds(SANITIZED ? 10 : 3)), 0) << descriptor;
        clearInput(0);
        clearRoute(0);
        std::filesystem::remove(data);
        ::close(ends[0]);
        ::close(ends[1]);
    }
}

/// The last packet of a file lets a paced stream release what it holds. A file that ends within a packet has
/// none.
TEST_F(EmulatorTest, APacedFileThatEndsWithinAPacketTellsWhatItDrops) {
    Bytes torn = makeStream({0x100}, 100, 27000);
    torn.resize(torn.size() + 50, 0x47);
    startAndWait(link(1, torn) + std::vector<std::string>{"-m"});
    setInput(0, 1, 3);
    setRoute(0, 3, 0x100);
    EXPECT_TRUE(
        emulator->waitForLog("[warning] " + (folder / "1.ts").string() +
                             " ends within a packet: the 100 packets that TSIIDX 3 still held are dropped"));
    EXPECT_EQ(emulator->terminate(), 0);
    EXPECT_EQ(records().size(), 0U);
}

/// A live feed: a FIFO as transport stream file.
TEST_F(EmulatorTest, AFifoFeedsAnInputUntilItsWriterLeaves) {
    const Bytes stream = makeStream({0x100}, 2000);
    const std::filesystem::path feed = folder / "feed";
    ASSERT_EQ(::mkfifo(feed.c_str(), 0600), 0);
    startAndWait(linkPath(1, feed) + linkPath(2, feed));
    setInput(0, 1, 3);
    setRoute(0, 3, 0x100);
    ASSERT_TRUE(emulator->waitForLog("[info] Detected added CPU route of PID 256 from TSIIDX 3"));
    writeBytes(feed, stream);
    ASSERT_TRUE(waitForRecords(2000 * 192));
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
