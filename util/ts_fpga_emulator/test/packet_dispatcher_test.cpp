#include "tspacket_streaming/packet_dispatcher.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <stdlib.h>
#include <termios.h>

#include "support.h"
#include "thrown_text.h"
#include "vel/cpp_utils/error.h"
#include "vel/ts_basics/ts_error.h"

namespace Vel::Utils {
namespace {

using testing::ElementsAre;

void dispatchRecords(PacketDispatcher& dispatcher, std::uint32_t tsiidx, std::uint32_t count) {
    for (std::uint32_t i = 0; i < count; ++i) {
        auto packet = makePacket({tsiidx, tsiidx, i});
        dispatcher.dispatch(packet);
    }
}

TEST(PacketDispatcher, RecordIsTheWholeBufferAndArrivesAtOnceInAnEmptyFile) {
    const CapturedLog log;
    const TempFolder folder;
    const std::string path = folder / "records";
    writeFile(path, std::string(1000, 'x'));
    auto packet = makePacket({3, 0x100, 0});
    {
        PacketDispatcher dispatcher(path);
        EXPECT_EQ(readFile(path), "");
        dispatcher.dispatch(packet);
        EXPECT_EQ(readFile(path), std::string("\x03\0\0\0", 4) + tsBytes(packet));

        const auto next = std::move(packet);
        EXPECT_EQ(thrownText<Ts::TsPacketError>(
                      [&] { dispatcher.dispatch(packet); }),  // NOLINT(bugprone-use-after-move)
                  "TS Packet Error: Cannot get write data pointer. Object is dead.");
        EXPECT_EQ(readFile(path).size(), 192U);
    }
    EXPECT_THAT(log.lines(), ElementsAre("[debug] Destroy PacketDispatcher"));
}

TEST(PacketDispatcher, FailureIsReportedByTheNextCallAndByEveryLaterOne) {
    const TempFolder folder;
    for (const auto& [path, reason] : {std::pair(folder / "missing/records", "No such file or directory"),
                                       {folder / ".", "Is a directory"},
                                       {"/dev/full", "No space left on device"}}) {
        PacketDispatcher dispatcher(path);
        if (path == "/dev/full") {
            EXPECT_NO_THROW(dispatchRecords(dispatcher, 1, 1));
        }
        for (int call = 0; call < 2; ++call) {
            try {
                dispatchRecords(dispatcher, 1, 1);
                ADD_FAILURE() << path;
            } catch (const CppUtil::IOError& error) {
                EXPECT_EQ(error.getMessage(),
                          "IOErrorr: Failed writing TS packets to file: \"" + path + "\"");
                EXPECT_EQ(error.getReason(), reason);
            }
        }
    }
}

/// A raw terminal takes part of a record when little room is left, so records are written in pieces.
class PacketDispatcherOnTerminal : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(::grantpt(m_Reader.get()), 0);
        ASSERT_EQ(::unlockpt(m_Reader.get()), 0);
        m_Path = ::ptsname(m_Reader.get());
        termios settings{};
        ASSERT_EQ(::tcgetattr(m_Reader.get(), &settings), 0);
        ::cfmakeraw(&settings);
        ASSERT_EQ(::tcsetattr(m_Reader.get(), TCSANOW, &settings), 0);
        m_Dispatcher.emplace(m_Path, m_Stop.get_token());
    }
    /// Takes up to `size` bytes of what is there. False when nothing is.
    bool read(std::size_t size) {
        std::string bytes(size, '\0');
        const ssize_t got = ::read(m_Reader.get(), bytes.data(), bytes.size());
        m_Output += bytes.substr(0, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        return got > 0;
    }
    /// Each input's records must be the beginning of what was dispatched.
    void expectPrefixes(std::uint32_t inputs) {
        std::vector<std::uint32_t> next(inputs);
        for (const PacketId& record : parseRecords(m_Output)) {
            ASSERT_TRUE(record.tsiidx == record.pid && record.pid < inputs) << record;
            ASSERT_EQ(record.number, next[record.pid]++) << record;
        }
    }

    CapturedLog m_Log;
    CppUtil::FileDescriptor m_Reader{::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)};
    std::string m_Path;
    std::string m_Output;
    std::stop_source m_Stop;
    std::optional<PacketDispatcher> m_Dispatcher;
};

TEST_F(PacketDispatcherOnTerminal, ThreadsDoNotMixTheirRecordsAndAStopLeavesAWholeBeginning) {
    constexpr std::uint32_t COUNT = 3000;
    std::atomic<int> running = 2;
    const auto write = [&](std::uint32_t tsiidx) {
        dispatchRecords(*m_Dispatcher, tsiidx, COUNT);
        --running;
    };
    const std::jthread first(write, 0);
    const std::jthread second(write, 1);
    while (running > 0) {
        read(1000);
        if (m_Output.size() > std::size_t{COUNT} * Ts::RECORD_SIZE) {
            m_Stop.request_stop();
        }
    }
    while (read(1000)) {
    }
    EXPECT_GT(m_Output.size(), std::size_t{COUNT} * Ts::RECORD_SIZE);
    expectPrefixes(2);
    EXPECT_EQ(m_Log.count("[error]"), 0U);
}

TEST_F(PacketDispatcherOnTerminal, RecordThatTheDeviceDoesNotTakeIsGivenUpWithAnErrorLine) {
    std::jthread writing([&] { dispatchRecords(*m_Dispatcher, 0, 3000); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // in which the terminal gets full
    m_Stop.request_stop();
    writing.join();
    while (read(1000)) {
    }
    const std::size_t torn = m_Output.size() % Ts::RECORD_SIZE;
    EXPECT_EQ(m_Log.count("[error] The last record on " + m_Path + " is torn: " + std::to_string(torn) +
                          " of 192 bytes written"),
              torn == 0 ? 0U : 1U);
    m_Output.resize(m_Output.size() - torn);
    expectPrefixes(1);
}

}  // namespace
}  // namespace Vel::Utils
