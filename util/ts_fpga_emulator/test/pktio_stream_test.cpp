#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <future>

#include "support.h"
#include "tspacket_streaming/max_rate_adapter.h"
#include "tspacket_streaming/pktio_stream_in.h"
#include "tspacket_streaming/pktio_stream_manager.h"
#include "vel/cpp_utils/error.h"

namespace Vel::Utils {
namespace {

using testing::ElementsAre;

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

class PktioStreamTest : public testing::Test {
protected:
    template <typename Adapter, typename... Args>
    std::unique_ptr<PktioStreamIn> create(Args&&... args) {
        return std::make_unique<PktioStreamIn>(
            m_File, 3, std::make_unique<Adapter>(std::forward<Args>(args)...), m_Dispatcher);
    }
    static void route(PktioStreamIn& stream, std::vector<PktioStreamIn::RouteChange> changes) {
        stream.changeRoutes(changes);
    }
    bool waitForEnd() const {
        return m_Log.waitFor("[debug] Stopping packet stream thread for TSIIDX 3 with file " + m_File);
    }
    std::vector<std::uint32_t> recordNumbers() const {
        std::vector<std::uint32_t> numbers;
        std::ranges::transform(parseRecords(readFile(m_Folder / "records")), std::back_inserter(numbers),
                               &PacketId::number);
        return numbers;
    }

    CapturedLog m_Log;
    TempFolder m_Folder;
    std::string m_File = m_Folder / "input.ts";
    PacketDispatcher m_Dispatcher{m_Folder / "records"};
};

TEST_F(PktioStreamTest, FirstRouteStartsTheOnlyPlayAndAllChangesOfACallTakeEffectTogether) {
    writeFile(m_File, tsStream(9, {0x100, 0x101, 0x102}) + std::string(50, 'x'));
    auto stream = create<ScriptedAdapter>([](auto /*number*/, bool last) {
        EXPECT_FALSE(last) << "none is the last one where a truncated one follows";
        return 1;
    });
    route(*stream, {{0x102, false}});
    route(*stream, {{0x100, true}, {0x101, true}, {0x102, true}, {0x101, false}, {8192, true}});
    ASSERT_TRUE(waitForEnd());
    route(*stream, {{0x101, true}});
    stream.reset();
    EXPECT_THAT(recordNumbers(), ElementsAre(0, 2, 3, 5, 6, 8));
    auto lines = m_Log.lines();
    std::erase_if(lines, [](const std::string& line) { return line.find("to stream") != std::string::npos; });
    EXPECT_THAT(
        lines,
        ElementsAre("[debug] Create PktioStreamIn", "[debug] Remove PID 258 from stream",
                    "[debug] Remove PID 257 from stream",
                    "[debug] Starting stream thread. Streaming packets from file " + m_File + " to TSIIDX 3",
                    "[debug] Stopping packet stream thread for TSIIDX 3 with file " + m_File,
                    "[debug] Destroy PktioStreamIn", "[debug] Joined with PktioStreamIn streaming thread"));
}

TEST_F(PktioStreamTest, FilterIsAskedAtTheReleaseAndARouteNeverChangesWithinABatch) {
    writeFile(m_File, tsStream(8, {0x100, 0x101}));
    std::promise<void> inBatch;
    std::uint32_t released = 0;
    const auto stream = create<ScriptedAdapter>(
        [](std::uint32_t number, bool last) {
            EXPECT_EQ(last, number == 7);
            return std::array{0, 0, IRateAdapter::DISCARD_OLDEST, 0, 0, 4, 1, 2}[number];
        },
        [&] {
            if (++released == 1) {
                inBatch.set_value();
                // Time for a change to come through, if anything let it.
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        });
    route(*stream, {{0x100, true}});
    inBatch.get_future().wait();
    route(*stream, {{0x100, false}, {0x101, true}});
    ASSERT_TRUE(waitForEnd());
    EXPECT_THAT(recordNumbers(), ElementsAre(2, 4, 5, 7)) << "0 is discarded, the change comes after 1 to 4";
}

TEST_F(PktioStreamTest, ErrorIsLoggedWithItsReasonAndEndsTheStreamAlone) {
    const std::string prefix = "[error] Stream of TSIIDX 3 has ended: ";
    const auto unreadable = create<MaxRateAdapter>();
    route(*unreadable, {{0x100, true}});
    ASSERT_TRUE(
        m_Log.waitFor(prefix + "IOErrorr: Unknown error occurred when reading from \"" + m_File + "\"("));
    EXPECT_TRUE(m_Log.lines("[error]").front().ends_with(") [No such file or directory]"));

    writeFile(m_File, tsStream(3, {0x100}));
    const auto refused = create<ScriptedAdapter>(
        [](auto, auto) { return 1; }, [] { throw CppUtil::NotImplementedError("Cannot", "adapter", 1); });
    route(*refused, {{0x100, true}});
    EXPECT_TRUE(m_Log.waitFor(prefix + "Not Implemented Error: Cannot(adapter:1)"));
    route(*refused, {{0x101, true}});  // has got the lock back

    const auto next = create<MaxRateAdapter>();
    route(*next, {{0x100, true}});
    ASSERT_TRUE(waitForEnd());
    EXPECT_THAT(recordNumbers(), ElementsAre(0, 1, 2));
}

TEST_F(PktioStreamTest, RoutingCallGetsTheLockSoonAtFullRate) {
    m_File = "/dev/zero";  // packets without end, of PID 0
    std::atomic<std::uint64_t> packets = 0;
    const auto stream = create<ScriptedAdapter>([&](auto, auto) {
        ++packets;
        return 1;
    });
    route(*stream, {{1, true}});
    std::vector<std::uint64_t> passed;  // packets, during one call
    for (int i = 0; i < 101; ++i) {
        const std::uint64_t seen = packets;
        ASSERT_TRUE(waitUntil([&] { return packets > seen + 100; })) << "the stream plays between the calls";
        const std::uint64_t before = packets;
        route(*stream, {{1, i % 2 != 0}});
        passed.push_back(packets - before);
    }
    // The median: now and then the calling thread is off its processor for a while.
    std::ranges::nth_element(passed, passed.begin() + 50);
    EXPECT_LT(passed[50], 1000U);
}

/// Which URI has a file, and what becomes of routes that come before their input.
TEST_F(PktioStreamTest, ManagerPlaysTheExactUriAndReplaysTheRoutesThatWaited) {
    constexpr const char* URI = "udp://239.10.0.1:5000";
    writeFile(m_File, tsStream(4, {0x100, 0x101}));
    auto manager = std::make_unique<PktioStreamManager>(m_Dispatcher, StreamMode::MaxRate,
                                                        UriFileList{{URI, m_File}, {"udp://239.10.0.9", ""}});
    const auto change = [&]<typename Event>(Event event) {
        manager->handleEvent(std::make_unique<Event>(event));
        manager->handleChangeEnd();
    };
    change(FPGAMonEvent_CPUPIDAdded(3, 0x100));
    change(FPGAMonEvent_CPUPIDAdded(7, 0x100));
    change(FPGAMonEvent_CPUPIDAdded(3, 0x101));
    change(FPGAMonEvent_CPUPIDRemoved(3, 0x100));
    for (const char* uri : {"UDP://239.10.0.1:5000", "udp://239.10.0.1:5000/", "udp://239.10.0.9"}) {
        change(FPGAMonEvent_InputTSAdded(uri, 3));
    }
    EXPECT_EQ(m_Log.count("[debug] Create PktioStreamIn"), 0U);
    change(FPGAMonEvent_InputTSAdded(URI, 3));
    ASSERT_TRUE(waitForEnd());
    EXPECT_THAT(recordNumbers(), ElementsAre(1, 3));
    const auto lines = m_Log.lines("[info]");
    EXPECT_THAT(std::vector(lines.end() - 4, lines.end()),
                ElementsAre("[info] Detected added input TS: udp://239.10.0.1:5000 @ TSIIDX 3",
                            "[info] Detected added CPU route of PID 256 from TSIIDX 3",
                            "[info] Detected added CPU route of PID 257 from TSIIDX 3",
                            "[info] Detected removed CPU route of PID 256 from TSIIDX 3"));
    // A removal goes by the TSIIDX, and the next stream starts with every PID blocked.
    change(FPGAMonEvent_InputTSRemoved("udp://1.2.3.4", 3));
    EXPECT_EQ(m_Log.count("[debug] Destroy PktioStreamIn"), 1U);
    change(FPGAMonEvent_InputTSAdded(URI, 3));
    change(FPGAMonEvent_CPUPIDRemoved(3, 0x101));
    manager.reset();
    EXPECT_EQ(m_Log.count("[debug] Starting stream thread."), 1U);
}

}  // namespace
}  // namespace Vel::Utils
