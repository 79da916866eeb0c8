#include "tspacket_streaming/pktio_stream_manager.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "support.h"

namespace Vel::Utils {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* URI = "udp://239.10.0.1:5000";
constexpr const char* OTHER_URI = "udp://239.10.0.2:5000";
constexpr const char* NO_FILE_URI = "udp://239.10.0.3:5000";

class PktioStreamManagerTest : public testing::Test {
protected:
    void create(StreamMode mode = StreamMode::MaxRate) {
        m_Manager = std::make_unique<PktioStreamManager>(
            m_Dispatcher, mode,
            UriFileList{{URI, m_File}, {OTHER_URI, m_OtherFile}, {"udp://239.10.0.9", ""}});
    }
    void addInput(const std::string& uri, std::uint32_t tsiidx) {
        m_Manager->handleEvent(std::make_unique<FPGAMonEvent_InputTSAdded>(uri, tsiidx));
    }
    void removeInput(const std::string& uri, std::uint32_t tsiidx) {
        m_Manager->handleEvent(std::make_unique<FPGAMonEvent_InputTSRemoved>(uri, tsiidx));
    }
    void route(std::uint32_t pid, std::uint32_t tsiidx) {
        m_Manager->handleEvent(std::make_unique<FPGAMonEvent_CPUPIDAdded>(tsiidx, pid));
    }
    void unroute(std::uint32_t pid, std::uint32_t tsiidx) {
        m_Manager->handleEvent(std::make_unique<FPGAMonEvent_CPUPIDRemoved>(tsiidx, pid));
    }

    static std::string endLine(const std::string& file, std::uint32_t tsiidx) {
        return "[debug] Stopping packet stream thread for TSIIDX " + std::to_string(tsiidx) + " with file " +
               file;
    }
    bool waitForEnd(const std::string& file, std::uint32_t tsiidx, std::size_t times = 1) const {
        return m_Log.waitFor(endLine(file, tsiidx), times);
    }
    std::vector<PacketId> records() const { return parseRecords(readFile(m_Folder / "records")); }

    CapturedLog m_Log;
    TempFolder m_Folder;
    std::string m_File = m_Folder / "a.ts";
    std::string m_OtherFile = m_Folder / "b.ts";
    PacketDispatcher m_Dispatcher{m_Folder / "records"};
    std::unique_ptr<PktioStreamManager> m_Manager;

    void SetUp() override {
        writeFile(m_File, tsStream(2, {0x100, 0x101}));
        writeFile(m_OtherFile, tsStream(2, {0x200}));
        create();
    }
};

TEST_F(PktioStreamManagerTest, RoutesBeforeTheirInputAreReplayedInOrderAndLoggedAgain) {
    route(0x100, 2);
    route(0x200, 7);
    route(0x101, 2);
    unroute(0x100, 2);
    EXPECT_EQ(m_Log.count("[debug] Create PktioStreamIn"), 0U);
    addInput(URI, 2);
    ASSERT_TRUE(waitForEnd(m_File, 2));
    addInput(OTHER_URI, 7);
    ASSERT_TRUE(waitForEnd(m_OtherFile, 7));
    EXPECT_THAT(m_Log.lines("[info]"),
                ElementsAre("[info] Detected added CPU route of PID 256 from TSIIDX 2",
                            "[info] Detected added CPU route of PID 512 from TSIIDX 7",
                            "[info] Detected added CPU route of PID 257 from TSIIDX 2",
                            "[info] Detected removed CPU route of PID 256 from TSIIDX 2",
                            "[info] Detected added input TS: udp://239.10.0.1:5000 @ TSIIDX 2",
                            "[info] Detected added CPU route of PID 256 from TSIIDX 2",
                            "[info] Detected added CPU route of PID 257 from TSIIDX 2",
                            "[info] Detected removed CPU route of PID 256 from TSIIDX 2",
                            "[info] Detected added input TS: udp://239.10.0.2:5000 @ TSIIDX 7",
                            "[info] Detected added CPU route of PID 512 from TSIIDX 7"));

    // They are spent: the next stream of the TSIIDX starts with every PID blocked, and does not play.
    removeInput(URI, 2);
    addInput(URI, 2);
    unroute(0x101, 2);
    m_Manager.reset();
    EXPECT_EQ(m_Log.count("[debug] Create PktioStreamIn"), 3U);
    EXPECT_EQ(m_Log.count("[debug] Starting stream thread."), 2U);
}

TEST_F(PktioStreamManagerTest, RouteAddedAndRemovedBeforeItsInputPlaysTheFileWithoutRecords) {
    // A feed, which gives nothing before both routes have been replayed.
    std::filesystem::remove(m_File);
    ASSERT_EQ(::mkfifo(m_File.c_str(), 0600), 0);
    route(0x100, 2);
    unroute(0x100, 2);
    addInput(URI, 2);
    writeFile(m_File, tsStream(2, {0x100}));
    ASSERT_TRUE(waitForEnd(m_File, 2));
    EXPECT_THAT(records(), IsEmpty());
}

TEST_F(PktioStreamManagerTest, OnlyTheExactUriTextWithAFileHasAStream) {
    for (const char* uri : {NO_FILE_URI, "UDP://239.10.0.1:5000", "udp://239.10.0.1:5000/",
                            "udp://239.10.0.1", "udp://239.10.0.9"}) {
        addInput(uri, 2);
        removeInput(uri, 2);
    }
    EXPECT_EQ(m_Log.count("[info] Detected"), 2 * 5U);
    EXPECT_EQ(m_Log.count(""), 1 + 2 * 5U) << "nothing else is logged";
    addInput(URI, 2);
    EXPECT_EQ(m_Log.count("[debug] Create PktioStreamIn"), 1U);
}

TEST_F(PktioStreamManagerTest, RoutesAndRemovalsGoByTheTsiidx) {
    addInput(URI, 2);
    addInput(OTHER_URI, 3);
    route(0x200, 2);
    ASSERT_TRUE(waitForEnd(m_File, 2));
    route(0x200, 3);
    ASSERT_TRUE(waitForEnd(m_OtherFile, 3));
    EXPECT_THAT(records(), ElementsAre(PacketId{3, 0x200, 0}, PacketId{3, 0x200, 1}));

    removeInput(URI, 4);
    EXPECT_EQ(m_Log.count("[debug] Destroy PktioStreamIn"), 0U);
    removeInput(NO_FILE_URI, 2);
    EXPECT_EQ(m_Log.count("[debug] Destroy PktioStreamIn"), 1U);
    EXPECT_EQ(m_Log.count("[info] Detected removed input TS: udp://239.10.0.3:5000 @ TSIIDX 2"), 1U);
    addInput(OTHER_URI, 2);
    route(0x200, 2);
    ASSERT_TRUE(waitForEnd(m_OtherFile, 2));
    EXPECT_THAT(records(), SizeIs(4));
}

TEST_F(PktioStreamManagerTest, SecondInputOfATsiidxIsWarnedOfAndTheFirstPlaysOn) {
    addInput(URI, 2);
    addInput(NO_FILE_URI, 2);
    EXPECT_THAT(m_Log.lines("[warning]"), IsEmpty()) << "one without a file does not matter";
    addInput(OTHER_URI, 2);
    EXPECT_THAT(m_Log.lines("[warning]"),
                ElementsAre("[warning] Input TS udp://239.10.0.2:5000 is not played: TSIIDX 2 already plays "
                            "udp://239.10.0.1:5000"));
    route(0x101, 2);
    ASSERT_TRUE(waitForEnd(m_File, 2));
    EXPECT_EQ(m_Log.count("[debug] Create PktioStreamIn"), 1U);
}

TEST_F(PktioStreamManagerTest, ModeDecidesTheAdapterAndEveryStreamHasItsOwn) {
    // Behind a torn packet no one is the last: what the paced adapter holds then never goes out. An adapter
    // that has seen the last packet of a stream takes no further one.
    writeFile(m_File, tsStream(2, {0x101}) + "torn");
    const auto play = [&](StreamMode mode, std::size_t run) {
        const auto before = records().size();
        create(mode);
        addInput(URI, 2);
        addInput(OTHER_URI, 3);
        addInput(OTHER_URI, 4);
        route(0x101, 2);
        route(0x200, 3);
        route(0x200, 4);
        EXPECT_TRUE(waitForEnd(m_File, 2, run) && waitForEnd(m_OtherFile, 3, run) &&
                    waitForEnd(m_OtherFile, 4, run));
        return records().size() - before;
    };
    EXPECT_EQ(play(StreamMode::PcrRate, 1), 4U);
    EXPECT_THAT(m_Log.lines("[warning]"),
                ElementsAre("[warning] " + m_File +
                            " ends within a packet: the 2 packets that TSIIDX 2 still held are dropped"));
    EXPECT_EQ(play(StreamMode::MaxRate, 2), 6U);
    EXPECT_EQ(m_Log.count("[warning]"), 1U) << "nothing is held at full rate";
}

TEST_F(PktioStreamManagerTest, RoutesOfOneChangeTakeEffectAtOnePacket) {
    constexpr std::uint32_t COUNT = 50'000;
    writeFile(m_File, tsStream(COUNT, {0x100, 0x101}));
    addInput(URI, 2);
    m_Manager->handleChangeBegin();
    route(0x100, 2);
    std::this_thread::sleep_for(
        std::chrono::milliseconds(20));  // in which the stream could play half of the file
    route(0x101, 2);
    m_Manager->handleChangeEnd();
    while (m_Log.count(endLine(m_File, 2)) == 0) {
        m_Manager->handleChangeBegin();
        unroute(0x100, 2);
        route(0x100, 2);
        m_Manager->handleChangeEnd();
    }
    EXPECT_THAT(records(), SizeIs(COUNT)) << "a route that is rewritten loses no packet";
}

TEST_F(PktioStreamManagerTest, RemovalWithinAChangeEndsAStreamThatIsHeld) {
    writeFile(m_File, tsStream(1000, {0x100}));
    addInput(URI, 2);
    m_Manager->handleChangeBegin();
    route(0x100, 2);
    // In this time the stream comes to the hold, mostly.
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    removeInput(URI, 2);
    route(0x100, 2);
    m_Manager->handleChangeEnd();
    EXPECT_EQ(m_Log.count("[debug] Destroy PktioStreamIn"), 1U);
}

}  // namespace
}  // namespace Vel::Utils
