#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <deque>
#include <functional>
#include <optional>
#include <sstream>
#include <utility>

#include <spdlog/logger.h>
#include <spdlog/sinks/ostream_sink.h>

#include "support.h"
#include "tspacket_streaming/max_rate_adapter.h"
#include "tspacket_streaming/pktio_stream_in.h"
#include "vel/cpp_utils/posix/file_descriptor.h"

namespace Vel::Utils {
namespace {

/// Returns the answers of a list.
class ScriptedAdapter : public IRateAdapter {
public:
    ScriptedAdapter(std::vector<std::int32_t> answers, std::function<void()> onDelay)
        : m_Answers(std::move(answers)), m_OnDelay(std::move(onDelay)) {}
    std::int32_t bufferPacket(const Ts::TSPacket& /*packet*/, bool last) override {
        EXPECT_EQ(last, m_Next + 1 == m_Answers.size());
        return m_Answers.at(m_Next++);
    }
    std::uint32_t getMaxBufferedPackets() const override { return 5; }
    void delayPacket() override { m_OnDelay(); }

private:
    std::vector<std::int32_t> m_Answers;
    std::size_t m_Next = 0;
    std::function<void()> m_OnDelay;
};

TEST(PktioStreamIn, FilterIsCheckedAtTheReleaseAndARouteNeverChangesWithinOne) {
    const TemporaryFolder folder;
    PacketDispatcher dispatcher(folder / "records");
    Bytes file;
    const auto record = [](std::uint32_t i) {
        return TestPacket{.pid = 0x100 + i % 2, .number = i}.record(3);
    };
    for (std::uint32_t i = 0; i < 8; ++i) {
        const Bytes packet = record(i);
        file.insert(file.end(), packet.begin() + Ts::RECORD_HEADER_SIZE, packet.end());
    }
    writeFile(folder / "input.ts", file);
    std::atomic<std::uint32_t> released = 0;
    std::atomic<bool> isChanging = false;
    const auto onDelay = [&] {
        if (++released == 1) {
            EXPECT_TRUE(TestSupport::eventually([&] { return isChanging.load(); }));
            // Time for the change to take effect, if anything let it.
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    };
    PktioStreamIn stream(folder / "input.ts", 3,
                         std::make_unique<ScriptedAdapter>(
                             std::vector{0, 0, IRateAdapter::DISCARD_OLDEST, 0, 0, 4, 1, 2}, onDelay),
                         dispatcher);
    using Changes = std::vector<PktioStreamIn::RouteChange>;
    stream.changeRoutes(Changes{{0x100, true}});
    ASSERT_TRUE(TestSupport::eventually([&] { return released > 0; }));
    isChanging = true;
    stream.changeRoutes(Changes{{0x100, false}, {0x101, true}});
    Bytes expected;
    for (const std::uint32_t i : {2U, 4U, 5U, 7U}) {  // 0 is discarded, the change comes after 1 to 4
        std::ranges::copy(record(i), std::back_inserter(expected));
    }
    EXPECT_TRUE(TestSupport::eventually([&] { return readFile(folder / "records") == expected; }));
}

/// The reader of a FIFO stalls: with -c the pacer waits for it, at full rate a streaming thread, and the
/// others for that one.
TEST(PktioStreamIn, RoutesAndRemovalsTakeEffectWhileTheDeviceIsFull) {
    const TemporaryFolder folder;
    ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
    const CppUtil::FileDescriptor reader(::open((folder / "fifo").c_str(), O_RDWR | O_NONBLOCK));
    Bytes file;
    for (std::uint32_t i = 0; i < 10'000; ++i) {
        const Bytes packet = TestPacket{.pid = 0x100, .number = i}.bytes();
        file.insert(file.end(), packet.begin(), packet.end());
    }
    writeFile(folder / "input.ts", file);
    for (const bool isClocked : {false, true}) {
        SCOPED_TRACE(isClocked);
        PacketDispatcher dispatcher(folder / "fifo");
        Pacer pacer(dispatcher);
        pacer.start();
        std::deque<PktioStreamIn> streams;
        using Changes = std::vector<PktioStreamIn::RouteChange>;
        for (std::uint32_t i = 0; i < 3; ++i) {
            isClocked ? streams.emplace_back(folder / "input.ts", i, pacer, dispatcher)
                      : streams.emplace_back(folder / "input.ts", i, std::make_unique<MaxRateAdapter>(),
                                             dispatcher);
            streams.back().changeRoutes(Changes{{0x100, true}});
        }
        std::array<std::uint8_t, Ts::RECORD_SIZE> record;
        const auto isFull = [&, last = std::uint64_t{0}]() mutable {
            return std::exchange(last, dispatcher.getRecordCount()) == last && last > 0;
        };
        ASSERT_TRUE(TestSupport::eventually(isFull));
        for (auto& stream : streams) {
            stream.changeRoutes(Changes{{0x100, false}});
        }
        streams.pop_front();
        // The packets that waited for the device are no longer routed.
        for (auto& stream : streams) {
            stream.changeRoutes(Changes{{0x100, false}});
        }
        const std::uint64_t written = dispatcher.getRecordCount();
        std::uint64_t records = 0;
        while (::read(reader.get(), record.data(), record.size()) > 0) {
            ++records;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // for a packet that is not held back
        EXPECT_EQ(records, written);
        EXPECT_EQ(dispatcher.getRecordCount(), written);
    }
}

/// No pacer thread runs, and the time is an hour ahead of that of waits.
TEST(PktioStreamIn, StopsAtTheReadAheadLimitAndEndsAtOnceWhileThePacerHasItsPackets) {
    const TemporaryFolder folder;
    Bytes file;
    for (std::uint32_t i = 0; i < 20'000; ++i) {
        const Bytes packet = TestPacket{.pid = 0x100, .pcr = i * 270}.bytes();  // 10 us apart
        file.insert(file.end(), packet.begin(), packet.end());
    }
    writeFile(folder / "input.ts", file);
    auto nowNs = oneHourAhead();
    PacketDispatcher dispatcher("/dev/null");
    Pacer pacer(dispatcher, std::make_unique<FakeClock>(nowNs));
    std::optional<PktioStreamIn> stream(std::in_place, folder / "input.ts", 3, pacer, dispatcher);
    stream->changeRoutes(std::vector<PktioStreamIn::RouteChange>{{0x100, true}});
    const auto hasReadToTheLimit = [&] {
        testing::internal::CaptureStdout();
        stream->logStatus("uri");
        EXPECT_TRUE(Log::drain(std::chrono::minutes(1)));
        return testing::internal::GetCapturedStdout().find(" read=10000 ") != std::string::npos;
    };
    EXPECT_TRUE(TestSupport::eventually(hasReadToTheLimit));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // until it probably waits
    EXPECT_TRUE(hasReadToTheLimit());
    // The pacer has two packets at first, and all others soon after.
    EXPECT_TRUE(TestSupport::eventually([&] {
        pacer.releaseDue();
        return dispatcher.getRecordCount() > 2;
    }));
    EXPECT_EQ(dispatcher.getRecordCount(), 26U) << "all that is due within GROUP_TIME, in one turn";
    stream.reset();
    EXPECT_FALSE(pacer.releaseDue().nextDue) << "it gets no further turn";
}

/// The rate of a status line lies between those for the times around its limits.
TEST(StreamStatus, TheRateIsThatOfTheTimeSinceTheLastLine) {
    using std::chrono::steady_clock;
    const TemporaryFolder folder;
    writeFile(folder / "ts", Bytes(3 * Ts::TS_PACKET_SIZE));
    std::ostringstream text;
    spdlog::logger logger("status", std::make_shared<spdlog::sinks::ostream_sink_mt>(text));
    auto lastBefore = steady_clock::now();
    StreamStatus status;
    auto lastAfter = steady_clock::now();
    for (const int written : {1, 1'000'000, 3}) {
        for (int i = 0; i < written; ++i) {
            status.packetsWritten.increment();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        const auto per = [&](auto time) { return written / std::chrono::duration<double>(time).count(); };
        const auto before = steady_clock::now();
        const double highest = per(before - lastAfter);
        status.log(logger, 1, "uri", TsFile(folder / "ts", {}));
        lastAfter = steady_clock::now();
        const double rate = std::stod(text.str().substr(text.str().rfind("rate=") + 5));
        EXPECT_TRUE(per(lastAfter - std::exchange(lastBefore, before)) - 0.5 <= rate &&
                    rate <= highest + 0.5);
    }
    EXPECT_THAT(text.str(), testing::HasSubstr("state=waiting read=1 written=1 held=0 percent=33 rate="));
}

}  // namespace
}  // namespace Vel::Utils
