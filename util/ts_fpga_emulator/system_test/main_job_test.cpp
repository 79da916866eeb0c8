#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "emulator.h"

namespace Vel::SystemTest {
namespace {

TEST_F(EmulatorTest, InputsAndRoutesPlayTheLinkedFilesInFileOrder) {
    const Bytes first = makeStream({0x100, 0x101, 0x1FFF, 0x0}, 40000);
    const Bytes second = makeStream({0x20, 0x21}, 30000);
    startAndWait(link(1, first) + link(2, second));

    setRoute(0, 3, 0x100);  // comes before its input
    ASSERT_TRUE(emulator->waitForLog("[info] Detected added CPU route of PID 256 from TSIIDX 3"));
    setRoute(1, 3, 0x0);
    setRoute(2, 7, 0x21);
    ASSERT_TRUE(emulator->waitForLog("[info] Detected added CPU route of PID 33 from TSIIDX 7"));
    setInput(0, 1, 3);
    setInput(1, 2, 7);
    setInput(2, 3, 9);  // nothing is linked to it

    const Bytes expected3 = recordsOf(first, 3, {0x0, 0x100});
    const Bytes expected7 = recordsOf(second, 7, {0x21});
    ASSERT_TRUE(waitForRecords(expected3.size() + expected7.size()));
    EXPECT_EQ(emulator->terminate(), 0);
    const Bytes written = records();
    EXPECT_EQ(written.size(), expected3.size() + expected7.size());
    EXPECT_TRUE(recordsOfInput(written, 3) == expected3);
    EXPECT_TRUE(recordsOfInput(written, 7) == expected7);
    // The pending routes are told a second time when their input arrives.
    EXPECT_EQ(emulator->countLog("[info] Detected added CPU route of PID 256 from TSIIDX 3"), 2U);
    EXPECT_EQ(emulator->countLog("[info] Detected added input TS: udp://239.1.2.3:5000 @ TSIIDX 9"), 1U);
    EXPECT_EQ(emulator->countLog("[error]") + emulator->countLog("[warning]"), 0U);
}

TEST_F(EmulatorTest, RowsThatChangeInPlaceAreRemovedAndAdded) {
    startAndWait(link(1, makeStream({0x100}, 100)) + link(2, makeStream({0x100}, 200)));
    setInput(0, 1, 3);
    setRoute(0, 3, 0x100, OUT_ROUTE);  // no business of the CPU
    ASSERT_TRUE(emulator->waitForLog("[info] Detected added input TS: udp://239.1.2.1:5000 @ TSIIDX 3"));
    router[8192 + 1] = router[8192 + 1] | CPU_ROUTE;
    ASSERT_TRUE(waitForRecords(100 * 192));
    setRoute(1, 3, 0x101);
    router[8192 + 1] = 9U << 24 | CPU_ROUTE | 1;  // another filter table
    ASSERT_TRUE(emulator->waitForLog("[info] Detected removed CPU route of PID 256 from TSIIDX 3"));
    ASSERT_TRUE(emulator->waitForLog("[info] Detected added CPU route of PID 256 from TSIIDX 3", 2));
    // Another port is another input, which has no file; a removed and added input plays from the start, once
    // routed.
    setInput(0, 1, 3, 5001);
    ASSERT_TRUE(emulator->waitForLog("[info] Detected added input TS: udp://239.1.2.1:5001 @ TSIIDX 3"));
    setInput(0, 2, 3);
    ASSERT_TRUE(emulator->waitForLog("[info] Detected added input TS: udp://239.1.2.2:5000 @ TSIIDX 3"));
    clearRoute(0);
    ASSERT_TRUE(emulator->waitForLog("[info] Detected removed CPU route of PID 256 from TSIIDX 3", 2));
    setRoute(0, 3, 0x100);
    ASSERT_TRUE(waitForRecords(300 * 192));
    EXPECT_EQ(emulator->terminate(), 0);
    EXPECT_EQ(records().size(), 300U * 192U);
    EXPECT_EQ(emulator->countLog("[info] Detected added CPU route of PID 257 from TSIIDX 3"), 1U);
    EXPECT_EQ(emulator->countLog("[info] Detected removed CPU route of PID 257"), 0U);
}

TEST_F(EmulatorTest, AFlippedBankReplacesAllRoutesAtOnce) {
    constexpr std::size_t UPPER_BANK = 12288;
    constexpr std::size_t BANK_SELECT = 129;
    const Bytes stream = makeStream({0x100, 0x101, 0x102}, 3000);
    startAndWait(link(1, stream));
    setRoute(0, 3, 0x100);
    setRoute(1, 3, 0x101);
    ASSERT_TRUE(emulator->waitForLog("[info] Detected added CPU route of PID 257 from TSIIDX 3"));
    // The other bank is filled unseen: one route stays with all its fields, one goes, one comes.
    router[UPPER_BANK] = router[8192 + 2];
    router[UPPER_BANK + 1] = router[8192 + 3];
    setRoute(1, 3, 0x102, CPU_ROUTE, UPPER_BANK);
    router[BANK_SELECT] = 1;
    ASSERT_TRUE(emulator->waitForLog("[info] Detected added CPU route of PID 258 from TSIIDX 3"));
    EXPECT_EQ(emulator->terminate(), 0);
    EXPECT_EQ(emulator->countLog("[info] Detected removed CPU route of PID 256 from TSIIDX 3"), 1U);
    EXPECT_EQ(emulator->countLog("[info] Detected added CPU route of PID 257 from TSIIDX 3"), 1U);
    EXPECT_EQ(emulator->countLog("[info] Detected removed CPU route"), 1U);
}

TEST_F(EmulatorTest, PacedByPcrAFileTakesItsTimeAndArrivesWhole) {
    constexpr std::uint32_t PACKETS = 1000;
    constexpr std::uint64_t TICKS_PER_PACKET = 27000;  // 1 ms
    const Bytes stream = makeStream({0x100, 0x101}, PACKETS, TICKS_PER_PACKET);
    startAndWait(link(1, stream) + std::vector<std::string>{"-m"});
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

TEST_F(EmulatorTest, OddFilesHurtNobodyElse) {
    Bytes torn = makeStream({0x100}, 10);
    torn.resize(torn.size() + 50, 0x47);
    const Bytes good = makeStream({0x100}, 1000);
    startAndWait(link(1, torn) + link(2, {}) + linkPath(3, folder / "missing,comma.ts") +
                 linkPath(4, "/tmp") + link(5, good));
    for (std::uint32_t n = 1; n <= 5; ++n) {
        setInput(n, n, n);
        setRoute(n, n, 0x100);
    }
    ASSERT_TRUE(waitForRecords((10 + 1000) * 192));
    ASSERT_TRUE(emulator->waitForLog("[error] Stream of TSIIDX", 2));
    EXPECT_EQ(emulator->terminate(), 0);
    EXPECT_EQ(recordsOfInput(records(), 1).size(), 10U * 192U);
    EXPECT_TRUE(recordsOfInput(records(), 5) == recordsOf(good, 5, {0x100}));
}

TEST_F(EmulatorTest, AFileOver4GiBPlaysToItsEnd) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "takes minutes under a sanitizer";
#endif
    constexpr std::uint64_t HOLE = (std::uint64_t{1} << 32) / 188 * 188 + 188;
    const std::filesystem::path file = folder / "large.ts";
    writeBytes(file, {});
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

TEST_F(EmulatorTest, TablesThatAreFilledAtStartAreServed) {
    const Bytes stream = makeStream({0x100, 0x101}, 100);
    setInput(0, 1, 3);
    setInput(4, 9, 4);
    setRoute(0, 3, 0x100);
    start(link(1, stream));
    ASSERT_TRUE(waitForRecords(50 * 192));
    EXPECT_EQ(emulator->terminate(), 0);
    EXPECT_EQ(emulator->countLog("[warning] The IP LUT already holds 2 used rows"), 1U);
    EXPECT_EQ(emulator->countLog("[warning] The PID LUT already holds 1 used rows"), 1U);
    EXPECT_TRUE(records() == recordsOf(stream, 3, {0x100}));
}

TEST_F(EmulatorTest, ASecondInputForATsiidxLeavesTheFirstOnePlaying) {
    const Bytes stream = makeStream({0x100}, 100);
    startAndWait(link(1, stream) + link(2, makeStream({0x101}, 100)));
    setInput(0, 1, 3);
    setInput(1, 2, 3);
    ASSERT_TRUE(
        emulator->waitForLog("[warning] Input TS udp://239.1.2.2:5000 is not played: TSIIDX 3 already plays "
                             "udp://239.1.2.1:5000"));
    setRoute(0, 3, 0x100);
    setRoute(1, 3, 0x101);
    ASSERT_TRUE(waitForRecords(stream.size() / 188 * 192));
    EXPECT_EQ(emulator->terminate(), 0);
    EXPECT_TRUE(records() == recordsOf(stream, 3, {0x100}));
}

}  // namespace
}  // namespace Vel::SystemTest
