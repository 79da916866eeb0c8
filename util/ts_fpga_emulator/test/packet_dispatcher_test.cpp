#include "tspacket_streaming/packet_dispatcher.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include "support.h"
#include "vel/cpp_utils/error.h"
#include "vel/ts_basics/ts_error.h"

namespace Vel::Utils {
namespace {

using testing::ElementsAre;

class PacketDispatcherTest : public testing::Test {
protected:
    static void dispatchRecords(PacketDispatcher& dispatcher, std::uint32_t tsiidx, std::uint32_t count) {
        for (std::uint32_t i = 0; i < count; ++i) {
            auto packet = makePacket({tsiidx, tsiidx, i});
            dispatcher.dispatch(packet);
        }
    }
    static std::string dispatchError(PacketDispatcher& dispatcher) {
        return thrownText<CppUtil::IOError>([&] { dispatchRecords(dispatcher, 1, 1); });
    }

    CapturedLog m_Log;
    TempFolder m_Folder;
    std::string m_Path = m_Folder / "records";
};

TEST_F(PacketDispatcherTest, RecordIsTheWholeBufferAndArrivesAtOnceInAnEmptyFile) {
    writeFile(m_Path, std::string(1000, 'x'));
    auto packet = makePacket({3, 0x100, 0});
    {
        PacketDispatcher dispatcher(m_Path);
        EXPECT_EQ(readFile(m_Path), "");
        dispatcher.dispatch(packet);
        EXPECT_EQ(readFile(m_Path), std::string("\x03\0\0\0", 4) + tsBytes(packet));

        auto next = std::move(packet);
        EXPECT_EQ(thrownText<Ts::TsPacketError>(
                      [&] { dispatcher.dispatch(packet); }),  // NOLINT(bugprone-use-after-move)
                  "TS Packet Error: Cannot get write data pointer. Object is dead.");
        dispatcher.dispatch(next);
        EXPECT_EQ(readFile(m_Path).size(), 2 * 192U);
    }
    EXPECT_THAT(m_Log.lines(), ElementsAre("[debug] Destroy PacketDispatcher"));
}

TEST_F(PacketDispatcherTest, FailureIsToldByTheCallAfterItAndThenByEveryOne) {
    for (const std::string& path : {m_Folder / "missing/records", m_Folder / ".", std::string("/dev/full")}) {
        PacketDispatcher dispatcher(path);
        if (path == "/dev/full") {
            EXPECT_EQ(dispatchError(dispatcher), "nothing thrown");
        }
        const std::string text = "IOErrorr: Failed writing TS packets to file: \"" + path + "\"";
        EXPECT_EQ(dispatchError(dispatcher), text);
        EXPECT_EQ(dispatchError(dispatcher), text);
    }
}

TEST_F(PacketDispatcherTest, ThreadsDoNotMixTheirRecords) {
    constexpr std::uint32_t COUNT = 2000;
    {
        PacketDispatcher dispatcher(m_Path);
        const std::jthread other([&] { dispatchRecords(dispatcher, 0, COUNT); });
        dispatchRecords(dispatcher, 1, COUNT);
    }
    std::uint32_t next[2] = {};
    for (const PacketId& record : parseRecords(readFile(m_Path))) {
        ASSERT_TRUE(record.tsiidx == record.pid && record.pid < 2) << record;
        ASSERT_EQ(record.number, next[record.pid]++) << record;
    }
    EXPECT_THAT(next, ElementsAre(COUNT, COUNT));
}

TEST_F(PacketDispatcherTest, FullFifoIsWaitedForAndAStopRequestLeavesAPrefixOfWholeRecords) {
    // A FIFO of one page, of which 21 records of 192 bytes leave 64 bytes: the 22nd fits only in part.
    constexpr std::size_t FIFO_SIZE = 4096;
    constexpr std::uint32_t FITTING = FIFO_SIZE / Ts::RECORD_SIZE;
    ::mkfifo(m_Path.c_str(), 0600);
    const CppUtil::FileDescriptor reader(::open(m_Path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_EQ(::fcntl(reader.get(), F_SETPIPE_SZ, FIFO_SIZE), static_cast<int>(FIFO_SIZE));
    std::string output;
    const auto waitUntilFull = [&] {
        return waitUntil([&] {
            int bytes = 0;
            ::ioctl(reader.get(), FIONREAD, &bytes);
            return bytes == static_cast<int>(FITTING * Ts::RECORD_SIZE);
        });
    };
    const auto drain = [&] {
        std::string bytes(FIFO_SIZE, '\0');
        const ssize_t got = ::read(reader.get(), bytes.data(), bytes.size());
        output += bytes.substr(0, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    };

    std::stop_source stop;
    PacketDispatcher dispatcher(m_Path, stop.get_token());
    std::jthread writing([&] { dispatchRecords(dispatcher, 1, 10 * FITTING); });
    EXPECT_TRUE(waitUntilFull());
    drain();
    EXPECT_TRUE(waitUntilFull()) << "the writer goes on";
    stop.request_stop();
    writing.join();
    drain();
    dispatchRecords(dispatcher, 1, 1);
    drain();
    const auto records = parseRecords(output);
    EXPECT_EQ(records.size(), 2 * FITTING) << "nothing comes behind records that were dropped";
    for (std::uint32_t i = 0; i < records.size(); ++i) {
        ASSERT_EQ(records[i], (PacketId{1, 1, i}));
    }
}

}  // namespace
}  // namespace Vel::Utils
