#include <functional>
#include <future>

#include "support.h"
#include "tspacket_streaming/max_rate_adapter.h"
#include "tspacket_streaming/pktio_stream_in.h"
#include "tspacket_streaming/pktio_stream_manager.h"
#include "vel/cpp_utils/error.h"

namespace Vel::Utils {
namespace {

using testing::ElementsAre;

/// Gives the answers of a list.
class ScriptedAdapter : public IRateAdapter {
public:
    ScriptedAdapter(std::vector<std::int32_t> answers, std::function<void()> onDelay)
        : m_Answers(std::move(answers)), m_OnDelay(std::move(onDelay)) {}
    std::int32_t bufferPacket(const Ts::TSPacket& /*packet*/, bool last) override {
        EXPECT_EQ(last, m_Next + 1 == m_Answers.size());
        return m_Answers.at(m_Next++);
    }
    std::uint32_t getMaxBufferedPackets() const override { return 0; }
    void delayPacket() override { m_OnDelay(); }

private:
    std::vector<std::int32_t> m_Answers;
    std::size_t m_Next = 0;
    std::function<void()> m_OnDelay;
};

class PktioStreamTest : public testing::Test {
protected:
    template <typename Adapter, typename... Args>
    std::unique_ptr<PktioStreamIn> create(Args&&... args) {
        return std::make_unique<PktioStreamIn>(
            m_File, 3, std::make_unique<Adapter>(std::forward<Args>(args)...), m_Dispatcher);
    }
    static void route(PktioStreamIn& stream, const std::vector<PktioStreamIn::RouteChange>& changes) {
        stream.changeRoutes(changes);
    }
    bool waitForEnd() const {
        return m_Log.waitFor("[debug] Stopping packet stream thread for TSIIDX 3 with file " + m_File);
    }
    void writeFileOf(std::uint32_t packets, const std::vector<std::uint32_t>& pids,
                     const std::string& rest = "") {
        std::string stream;
        for (std::uint32_t i = 0; i < packets; ++i) {
            stream += tsBytes(makePacket(pids[i % pids.size()], i));
        }
        writeFile(m_File, stream + rest);
    }
    /// Of packets in records of TSIIDX 3.
    std::vector<std::uint32_t> recordNumbers() const {
        const std::string output = readFile(m_Folder / "records");
        std::vector<std::uint32_t> numbers;
        for (std::size_t at = 0; at < output.size(); at += Ts::RECORD_SIZE) {
            const auto* record = reinterpret_cast<const std::uint8_t*>(&output[at]);
            EXPECT_EQ(Ts::readRecordHeader(record), 3U);
            numbers.push_back(Ts::readRecordHeader(record + Ts::TS_PACKET_SIZE));
        }
        return numbers;
    }

    CapturedLog m_Log;
    TempFolder m_Folder;
    std::string m_File = m_Folder / "input.ts";
    PacketDispatcher m_Dispatcher{m_Folder / "records"};
};

TEST_F(PktioStreamTest, InputPlaysItsFileOnceAndAllRoutesOfAChangeTakeEffectTogether) {
    constexpr const char* URI = "udp://239.10.0.1:5000";
    writeFileOf(9, {0x100, 0x101, 0x102}, "truncated");
    auto manager = std::make_unique<PktioStreamManager>(m_Dispatcher, StreamMode::MaxRate,
                                                        UriFileList{{URI, m_File}, {"udp://239.10.0.9", ""}});
    const auto change = [&]<typename... Event>(const Event&... events) {
        (manager->handleEvent(std::make_unique<Event>(events)), ...);
        manager->handleChangeEnd();
    };
    // Routes wait for their input, which must have the very URI of a file.
    change(FPGAMonEvent_CPUPIDAdded(3, 0x100));
    change(FPGAMonEvent_CPUPIDAdded(7, 0x101));
    for (const char* uri : {"UDP://239.10.0.1:5000", "udp://239.10.0.1:5000/", "udp://239.10.0.9"}) {
        change(FPGAMonEvent_InputTSAdded(uri, 3));
    }
    EXPECT_EQ(m_Log.lines("[debug] Create PktioStreamIn").size(), 0U);
    change(FPGAMonEvent_InputTSAdded(URI, 3), FPGAMonEvent_CPUPIDAdded(3, 0x101),
           FPGAMonEvent_CPUPIDAdded(3, 0x102), FPGAMonEvent_CPUPIDRemoved(3, 0x101),
           FPGAMonEvent_CPUPIDAdded(3, 8192));
    ASSERT_TRUE(waitForEnd());
    change(FPGAMonEvent_CPUPIDAdded(3, 0x101));
    EXPECT_THAT(recordNumbers(), ElementsAre(0, 2, 3, 5, 6, 8));
    // A removal goes by the TSIIDX, and the next stream starts with every PID blocked.
    change(FPGAMonEvent_InputTSRemoved("udp://1.2.3.4", 3));
    EXPECT_EQ(m_Log.lines("[debug] Joined with PktioStreamIn streaming thread").size(), 1U);
    change(FPGAMonEvent_InputTSAdded(URI, 3));
    change(FPGAMonEvent_CPUPIDRemoved(3, 0x101));
    manager.reset();
    EXPECT_EQ(m_Log.lines("[debug] Starting stream thread.").size(), 1U);

    const auto lines = m_Log.lines("[info]");
    EXPECT_THAT(std::vector(lines.begin() + 5, lines.begin() + 9),
                ElementsAre("[info] Detected added input TS: udp://239.10.0.1:5000 @ TSIIDX 3",
                            "[info] Detected added CPU route of PID 256 from TSIIDX 3",
                            "[info] Detected added CPU route of PID 257 from TSIIDX 3",
                            "[info] Detected added CPU route of PID 258 from TSIIDX 3"));
    EXPECT_EQ(m_Log.lines("[info] Detected removed CPU route of PID 257 from TSIIDX 3").size(), 2U);
    EXPECT_EQ(m_Log.lines("[info] Detected removed input TS: udp://1.2.3.4 @ TSIIDX 3").size(), 1U);
}

TEST_F(PktioStreamTest, FilterIsAskedAtTheReleaseAndARouteNeverChangesWithinABatch) {
    writeFileOf(8, {0x100, 0x101});
    std::promise<void> inBatch;
    std::uint32_t released = 0;
    const auto stream = create<ScriptedAdapter>(
        std::vector<std::int32_t>{0, 0, IRateAdapter::DISCARD_OLDEST, 0, 0, 4, 1, 2}, [&] {
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
    const auto unreadable = create<MaxRateAdapter>();
    route(*unreadable, {{0x100, true}});
    ASSERT_TRUE(
        m_Log.waitFor("[error] Stream of TSIIDX 3 has ended: IOErrorr: Unknown error occurred when "
                      "reading from \"" +
                      m_File + "\"("));
    EXPECT_TRUE(m_Log.lines("[error]").front().ends_with(") [No such file or directory]"));

    writeFileOf(3, {0x100});
    const auto refused = create<ScriptedAdapter>(std::vector<std::int32_t>{1, 1, 1}, [] {
        throw CppUtil::NotImplementedError("Cannot", "adapter", 1);
    });
    route(*refused, {{0x100, true}});
    EXPECT_TRUE(
        m_Log.waitFor("[error] Stream of TSIIDX 3 has ended: Not Implemented Error: Cannot(adapter:1)"));
    const auto next = create<MaxRateAdapter>();
    route(*next, {{0x100, true}});
    ASSERT_TRUE(waitForEnd());
    EXPECT_THAT(recordNumbers(), ElementsAre(0, 1, 2));
}

}  // namespace
}  // namespace Vel::Utils
