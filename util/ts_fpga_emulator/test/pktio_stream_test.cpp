#include <functional>
#include <future>

#include "support.h"
#include "tspacket_streaming/pktio_stream_in.h"
#include "tspacket_streaming/pktio_stream_manager.h"

namespace Vel::Utils {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

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
    void writePackets(std::uint32_t count, const std::vector<std::uint32_t>& pids,
                      const std::string& rest = "") {
        Bytes stream;
        for (std::uint32_t i = 0; i < count; ++i) {
            const Bytes packet = TestPacket{.pid = pids[i % pids.size()], .number = i}.bytes();
            stream.insert(stream.end(), packet.begin(), packet.end());
        }
        stream.insert(stream.end(), rest.begin(), rest.end());
        writeFile(m_File, stream);
    }
    /// Of the packets in the records once the file is played, which are all of TSIIDX 3.
    std::vector<std::uint32_t> recordNumbers() const {
        EXPECT_TRUE(m_Log.waitFor("[debug] Stopping packet stream thread for TSIIDX 3 with file " + m_File));
        const std::string output = readFile<std::string>(m_Folder / "records");
        std::vector<std::uint32_t> numbers;
        for (std::size_t at = 0; at < output.size(); at += Ts::RECORD_SIZE) {
            const auto* record = reinterpret_cast<const std::uint8_t*>(&output[at]);
            EXPECT_EQ(Ts::readRecordHeader(record), 3U);
            numbers.push_back(Ts::readRecordHeader(record + Ts::TS_PACKET_SIZE));
        }
        return numbers;
    }

    CapturedLog m_Log;
    TemporaryFolder m_Folder;
    std::string m_File = m_Folder / "input.ts";
    PacketDispatcher m_Dispatcher{m_Folder / "records"};
};

TEST_F(PktioStreamTest, InputPlaysItsFileOnceAndAllRoutesOfAChangeTakeEffectTogether) {
    using InputAdded = FPGAMonEvent_InputTSAdded;
    using RouteAdded = FPGAMonEvent_CPUPIDAdded;
    using RouteRemoved = FPGAMonEvent_CPUPIDRemoved;
    constexpr const char* URI = "udp://239.10.0.1:5000";
    writePackets(9, {0x100, 0x101, 0x102}, "truncated");
    PktioStreamManager manager(m_Dispatcher, StreamMode::MaxRate,
                               {{URI, m_File}, {"udp://239.10.0.8", "/missing"}, {"udp://239.10.0.9", ""}});
    const auto change = [&]<typename... Event>(const Event&... events) {
        (manager.handleEvent(std::make_unique<Event>(events)), ...);
        manager.handleChangeEnd();
    };
    // Routes wait for their input, which must have the very URI of a file.
    change(RouteAdded(3, 0x100));
    change(RouteAdded(7, 0x101));
    for (const char* uri : {"UDP://239.10.0.1:5000", "udp://239.10.0.1:5000/", "udp://239.10.0.9"}) {
        change(InputAdded(uri, 3));
    }
    EXPECT_THAT(m_Log.lines("[debug] Create PktioStreamIn"), IsEmpty());
    manager.handleEvent(std::make_unique<InputAdded>(URI, 3));
    // Time to play, for a stream that does not wait for the end of the change.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    change(RouteAdded(3, 0x101), RouteAdded(3, 0x102), RouteRemoved(3, 0x101), RouteAdded(3, 8192));
    EXPECT_THAT(recordNumbers(), ElementsAre(0, 2, 3, 5, 6, 8));
    const auto lines = m_Log.lines("[info]");
    EXPECT_THAT(std::vector(lines.begin() + 5, lines.begin() + 7),
                ElementsAre("[info] Detected added input TS: udp://239.10.0.1:5000 @ TSIIDX 3",
                            "[info] Detected added CPU route of PID 256 from TSIIDX 3"));
    change(RouteAdded(3, 0x101));
    EXPECT_THAT(m_Log.lines("[debug] Add PID 258 to stream"), SizeIs(1));
    // A removal goes by the TSIIDX, and the next stream starts with every PID blocked.
    change(FPGAMonEvent_InputTSRemoved("udp://1.2.3.4", 3));
    EXPECT_THAT(m_Log.lines("[debug] Joined with PktioStreamIn streaming thread"), SizeIs(1));
    change(InputAdded(URI, 3), RouteRemoved(3, 0x100));
    change(InputAdded("udp://239.10.0.8", 8), RouteAdded(8, 0x100));
    ASSERT_TRUE(
        m_Log.waitFor("[error] Stream of TSIIDX 8 has ended: IOErrorr: Unknown error occurred when "
                      "reading from \"/missing\"("));
    EXPECT_TRUE(m_Log.lines("[error]")[0].ends_with(") [No such file or directory]"));
    EXPECT_THAT(m_Log.lines("[debug] Starting stream thread."), SizeIs(2));
}

TEST_F(PktioStreamTest, FilterIsAskedAtTheReleaseAndARouteNeverChangesWithinABatch) {
    writePackets(8, {0x100, 0x101});
    std::promise<void> inBatch;
    std::uint32_t released = 0;
    const auto onDelay = [&] {
        if (++released == 1) {
            inBatch.set_value();
            // Time for a change to come through, if anything let it.
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    };
    PktioStreamIn stream(m_File, 3,
                         std::make_unique<ScriptedAdapter>(
                             std::vector{0, 0, IRateAdapter::DISCARD_OLDEST, 0, 0, 4, 1, 2}, onDelay),
                         m_Dispatcher);
    using Changes = std::vector<PktioStreamIn::RouteChange>;
    stream.changeRoutes(Changes{{0x100, true}});
    inBatch.get_future().wait();
    stream.changeRoutes(Changes{{0x100, false}, {0x101, true}});
    EXPECT_THAT(recordNumbers(), ElementsAre(2, 4, 5, 7)) << "0 is discarded, the change comes after 1 to 4";
}

}  // namespace
}  // namespace Vel::Utils
