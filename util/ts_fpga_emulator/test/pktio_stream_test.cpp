#include <functional>
#include <future>

#include "support.h"
#include "tspacket_streaming/pktio_stream_in.h"

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
    std::uint32_t getMaxBufferedPackets() const override { return 0; }
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
    std::promise<void> inRelease;
    std::uint32_t released = 0;
    const auto onDelay = [&] {
        if (++released == 1) {
            inRelease.set_value();
            // Time for a change to take effect, if anything let it.
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    };
    PktioStreamIn stream(folder / "input.ts", 3,
                         std::make_unique<ScriptedAdapter>(
                             std::vector{0, 0, IRateAdapter::DISCARD_OLDEST, 0, 0, 4, 1, 2}, onDelay),
                         dispatcher);
    using Changes = std::vector<PktioStreamIn::RouteChange>;
    stream.changeRoutes(Changes{{0x100, true}});
    inRelease.get_future().wait();
    stream.changeRoutes(Changes{{0x100, false}, {0x101, true}});
    Bytes expected;
    for (const std::uint32_t i : {2U, 4U, 5U, 7U}) {  // 0 is discarded, the change comes after 1 to 4
        std::ranges::copy(record(i), std::back_inserter(expected));
    }
    EXPECT_TRUE(TestSupport::eventually([&] { return readFile(folder / "records") == expected; }));
}

}  // namespace
}  // namespace Vel::Utils
