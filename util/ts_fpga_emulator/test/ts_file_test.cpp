#include "tspacket_streaming/ts_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <atomic>

#include "support.h"
#include "thrown_text.h"

namespace Vel::Utils {
namespace {

constexpr std::size_t SIZE = Ts::TS_PACKET_SIZE;

/// Bytes that repeat only after a prime number of them, so that a misplaced one shows. No sync byte leads a
/// packet: packets follow from their position alone.
std::string patternBytes(std::size_t size) {
    std::string bytes;
    for (std::size_t i = 0; i < size; ++i) {
        bytes += static_cast<char>(i % 251);
    }
    return bytes;
}

TEST(TsFile, PacketsAreReadInOrderAndTheEndIsSeenExactly) {
    const TempFolder folder;
    std::array<std::uint8_t, SIZE> packet{};
    // 348 packets and 112 bytes fill a block of 64 KiB; 16384 packets are the first that end with a block.
    for (const std::size_t size :
         {std::size_t{0}, SIZE - 1, SIZE, 50 + 10 * SIZE, 348 * SIZE, 112 + 348 * SIZE, 113 + 348 * SIZE,
          349 * SIZE, 16384 * SIZE, 1 + 16384 * SIZE}) {
        const std::string bytes = patternBytes(size);
        writeFile(folder / "ts", bytes);
        TsFile file(folder / "ts", [] { return false; });
        for (std::size_t at = 0; at + SIZE <= size; at += SIZE) {
            ASSERT_TRUE(file.readPacket(packet));
            ASSERT_EQ(std::string(packet.begin(), packet.end()), bytes.substr(at, SIZE));
            ASSERT_EQ(file.isAtEnd(), at + SIZE == size) << at << " of " << size;
        }
        EXPECT_FALSE(file.readPacket(packet));
        EXPECT_FALSE(file.readPacket(packet)) << "an end is final";
    }
    // A look ahead leaves an error to the next read.
    TsFile directory(folder / ".", [] { return false; });
    EXPECT_FALSE(directory.isAtEnd());
    EXPECT_EQ(thrownText<CppUtil::IOError>([&] { directory.readPacket(packet); }),
              "IOErrorr: Unknown error occurred when reading from \"" + folder / "." + "\"");
}

TEST(TsFile, FifoIsWaitedForBeforeItsFirstWriterAndEndsWithIt) {
    const TempFolder folder;
    const std::string path = folder / "fifo";
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    const std::string bytes = patternBytes(400 * SIZE + 100);
    std::atomic<int> looks = 0;
    TsFile file(path, [&] { return ++looks < 0; });
    const std::jthread writing([&] {
        EXPECT_TRUE(waitUntil([&] { return looks >= 3; })) << "the reader has waited for a while";
        std::ofstream writer(path, std::ios::binary);
        for (std::size_t at = 0; at < bytes.size(); at += 57) {
            writer << bytes.substr(at, 57) << std::flush;
        }
    });
    std::string received;
    for (std::array<std::uint8_t, SIZE> packet{}; file.readPacket(packet);) {
        received.append(packet.begin(), packet.end());
    }
    EXPECT_TRUE(received == bytes.substr(0, 400 * SIZE));
}

}  // namespace
}  // namespace Vel::Utils
