#include "tspacket_streaming/ts_file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <array>
#include <atomic>

#include "support.h"
#include "vel/cpp_utils/error.h"

namespace Vel::Utils {
namespace {

using Bytes = std::array<std::uint8_t, Ts::TS_PACKET_SIZE>;

/// Bytes that repeat only after a prime number of them, so that a misplaced one shows.
std::string patternBytes(std::size_t size) {
    std::string bytes;
    for (std::size_t i = 0; i < size; ++i) {
        bytes += static_cast<char>(i % 251);
    }
    return bytes;
}

TEST(TsFile, PacketsAreReadInOrderAndTheEndIsSeenExactly) {
    const TempFolder folder;
    // 348 packets and 112 bytes fill a block of 64 KiB; 16384 packets are the first that end with a block.
    for (const auto& [packets, rest] : {std::pair<std::size_t, std::size_t>{0, 0},
                                        {0, 187},
                                        {1, 0},
                                        {10, 50},
                                        {348, 0},
                                        {348, 112},
                                        {348, 113},
                                        {349, 0},
                                        {16384, 0},
                                        {16384, 1}}) {
        const std::string bytes = patternBytes(packets * Ts::TS_PACKET_SIZE + rest);
        writeFile(folder / "ts", bytes);
        TsFile file(folder / "ts", [] { return false; });
        Bytes packet{};
        for (std::size_t i = 0; i < packets; ++i) {
            ASSERT_TRUE(file.readPacket(packet));
            ASSERT_EQ(std::string(packet.begin(), packet.end()),
                      bytes.substr(i * packet.size(), packet.size()));
            ASSERT_EQ(file.isAtEnd(), i + 1 == packets && rest == 0) << i << " of " << packets;
        }
        EXPECT_FALSE(file.readPacket(packet));
        EXPECT_FALSE(file.readPacket(packet)) << "an end is final";
    }
}

TEST(TsFile, FifoIsWaitedForBeforeItsFirstWriterAndEndsWithIt) {
    const TempFolder folder;
    const std::string path = folder / "fifo";
    ::mkfifo(path.c_str(), 0600);
    const std::string bytes = patternBytes(400 * Ts::TS_PACKET_SIZE + 100);
    std::atomic<int> looks = 0;
    TsFile file(path, [&] { return ++looks < 0; });
    const std::jthread writing([&] {
        EXPECT_TRUE(waitUntil([&] { return looks >= 3; })) << "the reader has waited for a while";
        const CppUtil::FileDescriptor writer(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
        for (std::size_t at = 0, chunk = 1; at < bytes.size(); at += chunk, chunk = chunk % 401 + 57) {
            chunk = std::min(chunk, bytes.size() - at);
            ASSERT_EQ(::write(writer.get(), bytes.data() + at, chunk), static_cast<ssize_t>(chunk));
        }
    });
    std::string received;
    for (Bytes packet{}; file.readPacket(packet);) {
        received.append(packet.begin(), packet.end());
    }
    EXPECT_TRUE(received == bytes.substr(0, bytes.size() - 100));
}

}  // namespace
}  // namespace Vel::Utils
