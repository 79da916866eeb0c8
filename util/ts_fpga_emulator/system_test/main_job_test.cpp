#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "harness.h"

namespace Vel::SystemTest {
namespace {

TEST_F(EmulatorTest, InputsAndRoutesPlayTheLinkedFilesInFileOrder) {
    const Bytes first = makeStream({0x100, 0x101, 0x1FFF, 0x0}, 40000);
    const Bytes second = makeStream({0x20, 0x21}, 30000);
    setRoute(0, 3, 0x100);  // comes before its input, and before the start
    start(link(1, first) + link(2, second) + link(4, second));
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

TEST_F(EmulatorTest, PacedByPcrAFileTakesItsTimeAndArrivesWhole) {
    constexpr std::uint32_t PACKETS = 1000;
    constexpr std::uint64_t TICKS_PER_PACKET = 27000;  // 1 ms
    const Bytes stream = makeStream({0x100, 0x101}, PACKETS, TICKS_PER_PACKET);
    startAndWait(link(1, stream) + Texts{"-m"});
    setRoute(0, 3, 0x100);
    setRoute(1, 3, 0x101);
    ASSERT_TRUE(emulator->waitForLog("[info] Detected added CPU route of PID 257 from TSIIDX 3"));
    const auto begin = std::chrono::steady_clock::now();
    setInput(0, 1, 3);
    ASSERT_TRUE(waitForRecords(PACKETS * 192));
    // Ten batches of 100, each at least 100 ms long.
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1000));
    EXPECT_EQ(emulator->terminate(), 0);
    EXPECT_TRUE(records() == recordsOf(stream, 3, {0x100, 0x101}));
}

TEST_F(EmulatorTest, AFileOver4GiBPlaysToItsEnd) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "takes minutes under a sanitizer";
#endif
    constexpr std::uint64_t HOLE = (std::uint64_t{1} << 32) / 188 * 188 + 188;
    const std::string file = folder / "large.ts";
    writeFile(file, Bytes{});
    std::filesystem::resize_file(file, HOLE);  // reads as packets of PID 0
    const Bytes end = makeStream({0x100}, 100);
    std::ofstream(file, std::ios::binary | std::ios::app)
        .write(reinterpret_cast<const char*>(end.data()), static_cast<std::streamsize>(end.size()));
    startAndWait(linkPath(1, file));
    setInput(0, 1, 3);
    setRoute(0, 3, 0x100);
    ASSERT_TRUE(eventually([this] { return records().size() >= 100 * 192; }, std::chrono::minutes(4)));
    EXPECT_EQ(emulator->terminate(), 0);
    EXPECT_TRUE(records() == recordsOf(end, 3, {0x100}));
}

}  // namespace
}  // namespace Vel::SystemTest
