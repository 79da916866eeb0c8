#include "tspacket_streaming/ts_file.h"

#include <array>

#include "support.h"
#include "thrown_text.h"

namespace Vel::Utils {
namespace {

constexpr std::size_t SIZE = Ts::TS_PACKET_SIZE;

/// Bytes that repeat only after a prime number of them, so that a misplaced one is detected. There are no
/// sync bytes: the position alone makes a packet.
std::string patternBytes(std::size_t size) {
    std::string bytes;
    for (std::size_t i = 0; i < size; ++i) {
        bytes += static_cast<char>(i % 251);
    }
    return bytes;
}

TEST(TsFile, PacketsAreReadInOrderAndTheEndIsSeenExactly) {
    const TemporaryFolder folder;
    std::array<std::uint8_t, SIZE> packet{};
    // 348 packets and 112 bytes fill a block of 64 KiB; 16384 packets are the first that end with a block.
    for (const std::size_t size :
         {std::size_t{0}, SIZE - 1, SIZE, 50 + 10 * SIZE, 348 * SIZE, 112 + 348 * SIZE, 113 + 348 * SIZE,
          349 * SIZE, 16384 * SIZE, 1 + 16384 * SIZE}) {
        const std::string bytes = patternBytes(size);
        writeFile(folder / "ts", bytes);
        TsFile file(folder / "ts", {});
        for (int pass = 0; pass < 2; ++pass, file.rewind()) {
            for (std::size_t at = 0; at + SIZE <= size; at += SIZE) {
                ASSERT_TRUE(file.readPacket(packet));
                ASSERT_EQ(std::string(packet.begin(), packet.end()), bytes.substr(at, SIZE));
                ASSERT_EQ(file.isAtEnd(), at + SIZE == size) << at << " of " << size;
            }
            EXPECT_FALSE(file.readPacket(packet));
            EXPECT_FALSE(file.readPacket(packet)) << "an end is final";
        }
    }
    // If a look-ahead fails, the next read reports the error.
    TsFile directory(folder / ".", {});
    EXPECT_FALSE(directory.isAtEnd());
    EXPECT_EQ(thrownText<CppUtil::IOError>([&] { static_cast<void>(directory.readPacket(packet)); }),
              "IOErrorr: Unknown error occurred when reading from \"" + folder / "." + "\"");
}

}  // namespace
}  // namespace Vel::Utils
