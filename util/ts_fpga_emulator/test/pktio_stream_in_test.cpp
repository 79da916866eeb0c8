#include "tspacket_streaming/pktio_stream_in.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <future>

#include "support.h"
#include "tspacket_streaming/max_rate_adapter.h"
#include "vel/cpp_utils/error.h"

namespace Vel::Utils {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// Lets the test decide every answer.
class ScriptedAdapter : public IRateAdapter {
public:
    using OnBuffer = std::function<std::int32_t(std::uint32_t number, bool last)>;

    explicit ScriptedAdapter(
        OnBuffer onBuffer, std::function<void()> onDelay = [] {})
        : m_OnBuffer(std::move(onBuffer)), m_OnDelay(std::move(onDelay)) {}
    std::int32_t bufferPacket(const Ts::TSPacket& /*packet*/, bool last) override {
        return m_OnBuffer(m_Number++, last);
    }
    std::uint32_t getMaxBufferedPackets() const override { return 0; }
    void delayPacket() override { m_OnDelay(); }

private:
    OnBuffer m_OnBuffer;
    std::function<void()> m_OnDelay;
    std::uint32_t m_Number = 0;
};

class PktioStreamInTest : public testing::Test {
protected:
    template <typename Adapter, typename... Args>
    std::unique_ptr<PktioStreamIn> create(Args&&... args) {
        return std::make_unique<PktioStreamIn>(
            m_File, 3, std::make_unique<Adapter>(std::forward<Args>(args)...), m_Dispatcher);
    }
    std::string startLine() const {
        return "[debug] Starting stream thread. Streaming packets from file " + m_File + " to TSIIDX 3";
    }
    std::string endLine() const {
        return "[debug] Stopping packet stream thread for TSIIDX 3 with file " + m_File;
    }
    std::vector<PacketId> records() const { return parseRecords(readFile(m_Folder / "records")); }
    std::vector<std::uint32_t> recordNumbers() const {
        std::vector<std::uint32_t> numbers;
        std::ranges::transform(records(), std::back_inserter(numbers), &PacketId::number);
        return numbers;
    }
    /// For an adapter: holds the streaming thread up until the test opens it; where the test has failed, for
    /// a while.
    void passGate() { m_GateOpened.wait_for(std::chrono::seconds(10)); }

    CapturedLog m_Log;
    TempFolder m_Folder;
    std::string m_File = m_Folder / "input.ts";
    PacketDispatcher m_Dispatcher{m_Folder / "records"};
    std::promise<void> m_Gate;
    std::future<void> m_GateOpened = m_Gate.get_future();
};

TEST_F(PktioStreamInTest, RoutedPidsArriveInFileOrderBehindTheTsiidx) {
    writeFile(m_File, tsStream(6, {0x100, 0x200, 0x101}) + std::string(50, 'x'));
    auto stream = create<ScriptedAdapter>([this](auto /*number*/, bool last) {
        passGate();
        EXPECT_FALSE(last) << "none is the last one where a torn one follows";
        return 1;
    });
    stream->routePid(0x100);
    ASSERT_TRUE(m_Log.waitFor(startLine()));
    stream->routePid(0x101);
    m_Gate.set_value();
    ASSERT_TRUE(m_Log.waitFor(endLine()));
    stream.reset();
    EXPECT_THAT(records(), ElementsAre(PacketId{3, 0x100, 0}, PacketId{3, 0x101, 2}, PacketId{3, 0x100, 3},
                                       PacketId{3, 0x101, 5}));
    EXPECT_THAT(m_Log.lines(),
                ElementsAre("[debug] Create PktioStreamIn", "[debug] Add PID 256 to stream", startLine(),
                            "[debug] Add PID 257 to stream", endLine(), "[debug] Destroy PktioStreamIn",
                            "[debug] Joined with PktioStreamIn streaming thread"));
}

TEST_F(PktioStreamInTest, FirstRouteStartsTheOnlyPlay) {
    writeFile(m_File, tsStream(2, {0}));
    auto stream = create<MaxRateAdapter>();
    stream->stopRoutePid(0);
    stream.reset();
    EXPECT_EQ(m_Log.count("[debug] Starting"), 0U);

    stream = create<MaxRateAdapter>();
    stream->routePid(8192);  // no PID, which starts the play all the same
    ASSERT_TRUE(m_Log.waitFor(endLine()));
    stream->routePid(0);
    stream.reset();
    EXPECT_EQ(m_Log.count(startLine()), 1U);
    EXPECT_THAT(records(), IsEmpty());
}

TEST_F(PktioStreamInTest, FilterIsAskedAtTheReleaseAndNotAtTheRead) {
    writeFile(m_File, tsStream(6, {0x100, 0x101}));
    std::promise<void> lastIsRead;
    const auto stream = create<ScriptedAdapter>([&](std::uint32_t number, bool last) {
        EXPECT_EQ(last, number == 5);
        if (last) {
            lastIsRead.set_value();
            passGate();
        }
        return last ? 6 : 0;
    });
    stream->routePid(0x100);
    lastIsRead.get_future().wait();
    stream->stopRoutePid(0x100);
    stream->routePid(0x101);
    m_Gate.set_value();
    ASSERT_TRUE(m_Log.waitFor(endLine()));
    EXPECT_THAT(recordNumbers(), ElementsAre(1, 3, 5));
}

TEST_F(PktioStreamInTest, RouteNeverChangesWithinABatch) {
    writeFile(m_File, tsStream(3, {0x100}));
    std::promise<void> inBatch;
    std::uint32_t released = 0;
    const auto stream =
        create<ScriptedAdapter>([](auto, bool last) { return last ? 3 : 0; },
                                [&] {
                                    if (++released == 1) {
                                        inBatch.set_value();
                                    }
                                    // Time for the change to come through, if anything let it.
                                    std::this_thread::sleep_for(std::chrono::milliseconds(10));
                                });
    stream->routePid(0x100);
    inBatch.get_future().wait();
    stream->stopRoutePid(0x100);
    ASSERT_TRUE(m_Log.waitFor(endLine()));
    EXPECT_THAT(recordNumbers(), ElementsAre(0, 1, 2));
}

TEST_F(PktioStreamInTest, DiscardAnswerDropsTheOldestPacketUnwritten) {
    writeFile(m_File, tsStream(5, {0x100}));
    const auto stream = create<ScriptedAdapter>([](std::uint32_t number, bool) {
        return std::array{0, 0, IRateAdapter::DISCARD_OLDEST, 2, 2}[number];
    });
    stream->routePid(0x100);
    ASSERT_TRUE(m_Log.waitFor(endLine()));
    EXPECT_THAT(recordNumbers(), ElementsAre(1, 2, 3, 4));
}

TEST_F(PktioStreamInTest, ErrorIsLoggedAndEndsTheStreamAlone) {
    const std::string prefix = "[error] Stream of TSIIDX 3 has ended: ";
    const auto unreadable = create<MaxRateAdapter>();
    unreadable->routePid(0x100);
    EXPECT_TRUE(
        m_Log.waitFor(prefix + "IOErrorr: Unknown error occurred when reading from \"" + m_File + "\"("));

    writeFile(m_File, tsStream(3, {0x100}));
    const auto refused = create<ScriptedAdapter>(
        [](auto, auto) { return 1; }, [] { throw CppUtil::NotImplementedError("Cannot", "adapter", 1); });
    refused->routePid(0x100);
    EXPECT_TRUE(m_Log.waitFor(prefix + "Not Implemented Error: Cannot(adapter:1)"));
    refused->routePid(0x101);  // has got the lock back
    EXPECT_THAT(records(), IsEmpty());

    const auto next = create<MaxRateAdapter>();
    next->routePid(0x100);
    ASSERT_TRUE(m_Log.waitFor(endLine()));
    EXPECT_THAT(recordNumbers(), ElementsAre(0, 1, 2));
}

TEST_F(PktioStreamInTest, RoutingCallGetsTheLockSoonAtFullRate) {
    m_File = "/dev/zero";  // packets without end, of PID 0
    std::atomic<std::uint64_t> packets = 0;
    const auto stream = create<ScriptedAdapter>([&](auto, auto) {
        ++packets;
        return 1;
    });
    stream->routePid(1);
    std::vector<std::uint64_t> passed;  // packets, during one call
    for (int i = 0; i < 101; ++i) {
        const std::uint64_t seen = packets;
        ASSERT_TRUE(waitUntil([&] { return packets > seen + 100; })) << "the stream plays between the calls";
        const std::uint64_t before = packets;
        (i % 2 == 0) ? stream->stopRoutePid(1) : stream->routePid(1);
        passed.push_back(packets - before);
    }
    // The median: now and then the calling thread is off its processor for a while.
    std::ranges::nth_element(passed, passed.begin() + 50);
    EXPECT_LT(passed[50], 1000U);
}

TEST_F(PktioStreamInTest, DestructionEndsTheWaitForALiveFeed) {
    ::mkfifo(m_File.c_str(), 0600);
    auto stream = create<MaxRateAdapter>();
    stream->routePid(0x100);
    ASSERT_TRUE(m_Log.waitFor(startLine()));
    stream.reset();
    EXPECT_EQ(m_Log.count(endLine()), 1U);
}

}  // namespace
}  // namespace Vel::Utils
