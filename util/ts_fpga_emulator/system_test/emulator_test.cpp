#include <sys/stat.h>

#include <array>
#include <csignal>
#include <thread>

#include <gmock/gmock.h>

#include "harness.h"

namespace Vel::SystemTest {
namespace {

/// A row that is rewritten is a removal and an addition. Both take effect at the same packet of each input.
TEST_F(EmulatorTest, RowsThatAreRewrittenTogetherLoseNoRecord) {
    const Bytes stream = makeStream({0x100}, 200000);
    startAndWait(link(1, stream) + link(2, stream));
    for (std::uint32_t n = 1; n <= 2; ++n) {
        setRoute(n, n, 0x100);
        setInput(n, n, n);
    }
    const std::size_t expected = 2 * stream.size() / 188 * 192;
    ASSERT_TRUE(eventually([&, filter = 0U]() mutable {
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

/// Many signals during start-up, the wait for a reader, playing and shutdown, while a table is never stable:
/// the program ends once, in order, even if its parent ignored them.
TEST_F(EmulatorTest, ManySignalsAtAnyTimeEndTheProgramOnce) {
    enum Moment { StartUp, WaitForReader, Playing, Shutdown };
    std::array<int, 4> seen{};
    setInput(0, 1, 3);
    setRoute(0, 3, 0x100);
    const Texts arguments = link(1, makeStream({0x100}, 50000, 5400)) + Texts{"-c"};  // ten seconds
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGTERM, SIG_IGN);
    std::jthread writer([&](const std::stop_token& stop) {
        for (std::uint32_t i = 0; !stop.stop_requested(); ++i) {
            setRoute(1, i & 0xFF, i & 0x1FFF);
        }
    });
    for (int i = 0; i < 24; ++i) {
        const auto moment = static_cast<Moment>(i % Shutdown);
        std::filesystem::remove(data);
        ASSERT_TRUE(moment != WaitForReader || ::mkfifo(data.c_str(), 0600) == 0);
        start(arguments);
        std::this_thread::sleep_for(std::chrono::milliseconds(moment == StartUp ? i / 3 : 0));
        ASSERT_TRUE(moment != WaitForReader ||
                    eventually([&] { return emulator->countLog("[info] Waiting for a reader") == 1; }));
        ASSERT_TRUE(moment != Playing || eventually([&] { return !records().empty(); }));
        // Ignored until the program takes them.
        ASSERT_TRUE(eventually([&] {
            emulator->signal(SIGINT);
            return emulator->err().starts_with("\nReceived signal SIGINT\n");
        }));
        for (std::size_t n = 0; n < 200 && emulator->isRunning(); ++n) {
            constexpr std::array SIGNALS = {SIGTERM, SIGINT, SIGUSR1};
            emulator->signal(SIGNALS[n % SIGNALS.size()]);
            ++seen[Shutdown];
        }
        ASSERT_EQ(emulator->wait(), 0) << i;
        EXPECT_EQ(emulator->countLog("[info] Application exit has been signaled..."), 1U);
        const bool isLate = moment == StartUp && emulator->countLog("[info] Detected added input") > 0;
        seen[moment] += isLate ? 0 : 1;
    }
    EXPECT_THAT(seen, testing::Each(testing::Gt(0))) << "moments at which no signal came";
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
}

}  // namespace
}  // namespace Vel::SystemTest
