#include "fpga_monitoring/fpga_monitor.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <functional>

#include "support.h"
#include "vel/userspace_drivers/interfaces/pci/pciif.h"

namespace Vel::Utils {
namespace {

using testing::ElementsAre;

struct IgnoringConsumer : IFPGAEventConsumer {
    void handleEvent(std::unique_ptr<FPGAMonEvent> /*event*/) override {}
};

/// Polls as the test decides, and notes its destruction.
struct FakeMonitor : LutMonitor {
    FakeMonitor(IFPGAEventConsumer& consumer, std::function<void()> poll, std::function<void()> destruction)
        : LutMonitor(std::make_shared<Pci::PciIf>("/dev/zero", 4096, 0), consumer),
          onPoll(std::move(poll)),
          onDestruction(std::move(destruction)) {}
    ~FakeMonitor() override { onDestruction(); }
    void pollLut() override { onPoll(); }
    const char* getTableName() const override { return "FAKE LUT"; }

    std::function<void()> onPoll;
    std::function<void()> onDestruction;
};

TEST(FPGAMonitor, PollsAndDestroysInTheOrderOfTheListAndLogsAnErrorOnceAndItsEnd) {
    const std::vector<std::string> results = {"gone", "gone", "denied", "gone", "", "", "gone", "gone", ""};
    const CapturedLog log;
    IgnoringConsumer consumer;
    std::string calls;  // read once the polling thread has ended
    std::atomic<std::size_t> rounds = 0;
    const auto fail = [](const std::string& text) {
        if (!text.empty()) {
            throw std::runtime_error(text);
        }
    };
    std::vector<std::unique_ptr<LutMonitor>> monitors;
    monitors.push_back(std::make_unique<FakeMonitor>(
        consumer,
        [&] {
            calls += 'a';
            fail(rounds < results.size() ? results[rounds] : "");
        },
        [&] { calls += 'A'; }));
    monitors.push_back(std::make_unique<FakeMonitor>(
        consumer,
        [&] {
            calls += 'b';
            ++rounds;
            fail("other");
        },
        [&] { calls += 'B'; }));
    {
        const FPGAMonitor monitor(std::move(monitors));
        ASSERT_TRUE(waitUntil([&] { return rounds > results.size(); }))
            << "an error must not end the polling";
    }
    std::string expected;
    for (std::size_t i = 0; i < rounds; ++i) {
        expected += "ab";
    }
    EXPECT_EQ(calls, expected + "AB") << "every round is completed, and none follows the end";

    auto lines = log.lines();
    EXPECT_EQ(lines.back(), "[debug] Joined with FPGAMonitor thread");
    lines.pop_back();
    // The two threads log these in either order.
    EXPECT_EQ(std::erase(lines, "[debug] Destroy FPGAMonitor"), 1U);
    const std::string restored = "[info] The FAKE LUT can be read again, monitoring continues";
    EXPECT_THAT(lines, ElementsAre("[debug] Enter the main thread of FPGAMonitor", "[error] gone",
                                   "[error] other", "[error] denied", "[error] gone", restored,
                                   "[error] gone", restored, "[debug] Exit the main thread of FPGAMonitor"));
}

}  // namespace
}  // namespace Vel::Utils
