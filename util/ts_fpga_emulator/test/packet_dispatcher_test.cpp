#include "tspacket_streaming/packet_dispatcher.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <ctime>
#include <optional>
#include <thread>

#include <gmock/gmock.h>

#include "support.h"
#include "vel/cpp_utils/error.h"
#include "vel/cpp_utils/posix/file_descriptor.h"

namespace Vel::Utils {
namespace {

TEST(PacketDispatcher, ThreadsDoNotMixTheirRecordsAndAStopEndsTheOutput) {
    constexpr std::uint32_t SIZE = 1'000'000;  // more than a pipe holds, so that a record is written in parts
    constexpr std::uint32_t RECORDS = 10;      // of each thread
    const TemporaryFolder folder;
    const std::string path = folder / "fifo";
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    const CppUtil::FileDescriptor reader(::open(path.c_str(), O_RDWR));
    std::string record(SIZE, '\0');
    std::stop_source stop;
    std::optional<PacketDispatcher> dispatcher(std::in_place, path, stop.get_token());
    const auto write = [&](char content, std::uint32_t records) {
        auto packet = Ts::LowlevInTSPacket::create<SIZE>();
        std::fill_n(packet.getWriteDataPtr(), SIZE, content);
        for (; records > 0; --records) {
            dispatcher->dispatch(packet, stop.get_token());
        }
    };
    const auto readRecords = [&](std::uint32_t count) {
        for (; count > 0; --count) {
            for (std::size_t read = 0; read < SIZE;) {
                ASSERT_TRUE(CppUtil::waitFor(reader.get(), POLLIN, {}, std::chrono::minutes(1)));
                const ssize_t got = ::read(reader.get(), &record[read], SIZE - read);
                ASSERT_GT(got, 0);
                read += static_cast<std::size_t>(got);
            }
            EXPECT_EQ(record.find_first_not_of(record[0]), std::string::npos);
        }
    };
    {
        const std::jthread first(write, 'a', RECORDS);
        const std::jthread second(write, 'b', RECORDS);
        readRecords(2 * RECORDS);
    }
    stop.request_stop();
    {
        const std::jthread last(write, 'c', 1);  // is completed, because it has been started
        readRecords(1);
    }
    const auto begin = std::chrono::steady_clock::now();
    write('d', 1);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1)) << "patience";
    write('d', 1);
    ::fcntl(reader.get(), F_SETFL, O_NONBLOCK);
    const ssize_t got = ::read(reader.get(), record.data(), SIZE);
    EXPECT_TRUE(0 < got && got < ssize_t{SIZE}) << got << ": a started record is given up after a while";
    EXPECT_EQ(::read(reader.get(), record.data(), SIZE), -1) << "the second one is not started";
    testing::internal::CaptureStdout();
    dispatcher.reset();
    EXPECT_TRUE(Log::drain(std::chrono::minutes(1)));
    EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::HasSubstr("no progress for 1 s"));
}

TEST(PacketDispatcher, ADeviceThatFailsWithinARecordIsReportedToTheNextOne) {
    std::signal(SIGPIPE, SIG_IGN);
    const TemporaryFolder folder;
    ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
    CppUtil::FileDescriptor reader(::open((folder / "fifo").c_str(), O_RDONLY | O_NONBLOCK));
    PacketDispatcher dispatcher(folder / "fifo");
    auto packet = Ts::LowlevInTSPacket::create<1'000'000>();
    EXPECT_EQ(dispatcher.tryDispatch(packet), PacketDispatcher::Outcome::Started);
    EXPECT_EQ(dispatcher.tryDispatch(packet), PacketDispatcher::Outcome::DeviceFull);
    reader = CppUtil::FileDescriptor();
    EXPECT_TRUE(dispatcher.waitForDevice({})) << "the wait is over, but not because of a stop request";
    EXPECT_THROW(dispatcher.tryDispatch(packet), CppUtil::IOError);
    EXPECT_EQ(dispatcher.getRecordCount(), 0U);
}

TEST(PacketDispatcher, AWaitLeavesTheProcessorToOthersAndEndsAtOnceOnAStopRequest) {
    std::signal(SIGPIPE, SIG_IGN);
    const TemporaryFolder folder;
    ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
    PacketDispatcher dispatcher(folder / "fifo", {}, true);
    auto packet = Ts::LowlevInTSPacket::create<4096>();
    CppUtil::FileDescriptor reader;
    const auto wait = [&](const std::stop_token& stop) {
        FairTurn turn(dispatcher.getWriteLock());
        return turn.begin({}) && dispatcher.waitForDevice(stop);
    };
    for (const char* state : {"no reader yet", "full", "the reader has gone"}) {
        {
            FairTurn turn(dispatcher.getWriteLock());
            ASSERT_TRUE(turn.begin({}));
            while (dispatcher.tryDispatch(packet) == PacketDispatcher::Outcome::Written) {
            }
        }
        std::jthread waiting(wait);
        EXPECT_TRUE(TestSupport::eventually(
            [&] {
                const auto begin = std::chrono::steady_clock::now();
                const std::clock_t used = std::clock();
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
                const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - begin;
                return static_cast<double>(std::clock() - used) / CLOCKS_PER_SEC < waited.count() / 2;
            },
            std::chrono::seconds(10)))
            << state << ": the wait uses most of a core";
        const std::stop_token stop = waiting.get_stop_token();
        waiting = {};
        EXPECT_TRUE(TestSupport::eventually(
            [&] {
                const auto asked = std::chrono::steady_clock::now();
                EXPECT_FALSE(wait(stop));
                return std::chrono::steady_clock::now() - asked < std::chrono::milliseconds(500);
            },
            std::chrono::seconds(10)))
            << state << ": no record has been started, so there is nothing to be patient for";
        reader = CppUtil::FileDescriptor(
            reader.isOpen() ? -1 : ::open((folder / "fifo").c_str(), O_RDONLY | O_NONBLOCK));
    }
}

}  // namespace
}  // namespace Vel::Utils
