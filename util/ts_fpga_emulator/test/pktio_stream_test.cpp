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

TEST_F(PktioStreamTest, AllRoutesOfAChangeTakeEffectTogether) {
    using RouteAdded = FPGAMonEvent_CPUPIDAdded;
    constexpr const char* URI = "udp://239.10.0.1:5000";
    writePackets(9, {0x100, 0x101, 0x102}, "truncated");
    PktioStreamManager manager(m_Dispatcher, StreamMode::MaxRate, {{URI, m_File}, {"udp://239.10.0.9", ""}});
    const auto handle = [&]<typename Event>(const Event& event) {
        manager.handleEvent(std::make_unique<Event>(event));
    };
    // A route waits for its input, which must have the very URI of a file.
    handle(RouteAdded(3, 0x100));
    for (const char* uri : {"UDP://239.10.0.1:5000", "udp://239.10.0.1:5000/", "udp://239.10.0.9", URI}) {
        EXPECT_THAT(m_Log.lines("[debug] Create PktioStreamIn"), IsEmpty());
        handle(FPGAMonEvent_InputTSAdded(uri, 3));
    }
    // Many routes, for which a stream that does not wait for the end of the change has time to play.
    for (std::uint32_t pid = 0x200; pid < 0x300; ++pid) {
        handle(RouteAdded(3, pid));
    }
    handle(RouteAdded(3, 0x101));
    handle(RouteAdded(3, 0x102));
    handle(FPGAMonEvent_CPUPIDRemoved(3, 0x101));
    manager.handleChangeEnd();
    EXPECT_THAT(recordNumbers(), ElementsAre(0, 2, 3, 5, 6, 8));
    manager.handleChangeEnd();
    EXPECT_THAT(m_Log.lines("[debug] Add PID 258 to stream"), SizeIs(1)) << "a change is applied once";
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
