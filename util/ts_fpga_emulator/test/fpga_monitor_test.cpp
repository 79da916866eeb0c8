#include "fpga_monitoring/fpga_monitor.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>

#include "support.h"
#include "table_support.h"

namespace Vel::Utils {
namespace {

using testing::ElementsAre;

constexpr const char* ENTER = "[debug] Enter the main thread of FPGAMonitor";
constexpr const char* EXIT = "[debug] Exit the main thread of FPGAMonitor";
constexpr const char* DESTROY = "[debug] Destroy FPGAMonitor";
constexpr const char* JOINED = "[debug] Joined with FPGAMonitor thread";

class FPGAMonitorTest : public testing::Test {
protected:
    /// A monitor of which the test decides what it does.
    struct FakeMonitor : LutMonitor {
        FakeMonitor(FPGAMonitorTest& test, std::function<void()> poll)
            : LutMonitor(test.m_Memory, test.m_Consumer), onPoll(std::move(poll)) {}
        ~FakeMonitor() override { onDestruction(); }
        void pollLut() override { onPoll(); }
        const char* getTableName() const override { return "FAKE LUT"; }

        std::function<void()> onPoll;
        std::function<void()> onDestruction = [] {};
    };

    FakeMonitor& addMonitor(std::function<void()> onPoll) {
        auto monitor = std::make_unique<FakeMonitor>(*this, std::move(onPoll));
        FakeMonitor& added = *monitor;
        m_Monitors.push_back(std::move(monitor));
        return added;
    }

    CapturedLog m_Log;
    std::shared_ptr<TableMemory> m_Memory = std::make_shared<TableMemory>();
    RecordingConsumer m_Consumer;
    std::vector<std::unique_ptr<LutMonitor>> m_Monitors;
};

TEST_F(FPGAMonitorTest, PollsInTheOrderOfTheListAndDestroysInItToo) {
    std::string calls;  // looked at when the polling thread is gone
    std::atomic<int> rounds = 0;
    addMonitor([&] { calls += 'a'; }).onDestruction = [&] { calls += 'A'; };
    addMonitor([&] { calls += 'b', ++rounds; }).onDestruction = [&] { calls += 'B'; };
    {
        const FPGAMonitor monitor(std::move(m_Monitors));
        ASSERT_TRUE(waitUntil([&] { return rounds >= 3; }));
    }
    std::string expected;
    for (int i = 0; i < rounds; ++i) {
        expected += "ab";
    }
    EXPECT_EQ(calls, expected + "AB") << "no round is broken off, none comes after the end";
}

TEST_F(FPGAMonitorTest, EndsRightAfterItsStart) {
    addMonitor([] {});
    { const FPGAMonitor monitor(std::move(m_Monitors)); }
    const auto lines = m_Log.lines();
    EXPECT_THAT(lines, testing::UnorderedElementsAre(ENTER, EXIT, DESTROY, JOINED));
    const auto at = [&](const char* line) { return std::ranges::find(lines, line); };
    EXPECT_LT(at(ENTER), at(EXIT));
    EXPECT_LT(at(DESTROY), at(EXIT));
    EXPECT_LT(at(EXIT), at(JOINED));
}

TEST_F(FPGAMonitorTest, ErrorIsToldWhenItAppearsOrChangesAndPollingGoesOn) {
    const std::vector<const char*> results = {"gone", "gone", "gone",    "denied", "denied", "gone",
                                              "",     "gone", "another", "",       ""};
    std::atomic<std::size_t> polls = 0;
    std::atomic<std::size_t> otherPolls = 0;
    addMonitor([&] {
        const std::size_t poll = polls++;
        if (poll < results.size() && *results[poll] != '\0') {
            throw std::runtime_error(results[poll]);
        }
    });
    addMonitor([&] {
        ++otherPolls;
        throw std::runtime_error("other");
    });
    {
        const FPGAMonitor monitor(std::move(m_Monitors));
        ASSERT_TRUE(waitUntil([&] { return otherPolls > results.size(); }))
            << "one error does not stop the other";
    }
    EXPECT_THAT(m_Log.lines("[error]"), ElementsAre("[error] gone", "[error] other", "[error] denied",
                                                    "[error] gone", "[error] gone", "[error] another"));
}

}  // namespace
}  // namespace Vel::Utils
