#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "program.h"
#include "stand_ins.h"

namespace Vel::SystemTest {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

constexpr std::uint32_t CPU_ROUTE = 1U << 13;
constexpr std::uint32_t OUT_ROUTE = 1U << 12;
constexpr std::uint32_t IP_ENABLED = 1U << 24;

/// "239.1.2.n" as the IP LUT holds it.
constexpr std::uint32_t address(std::uint32_t n) {
    return 0xEF010200U | n;
}
std::string uri(std::uint32_t n);

inline std::vector<std::string>& operator+=(std::vector<std::string>& left,
                                            const std::vector<std::string>& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}
inline std::vector<std::string> operator+(std::vector<std::string> left,
                                          const std::vector<std::string>& right) {
    return left += right;
}

/// Stand-in tables and the emulator on them, as a developer has them on a desk. Rows are stored word by word,
/// word 1 with the used bits last.
class EmulatorTest : public testing::Test {
protected:
    /// Starts the emulator on the stand-ins. `more` holds at least one -f pair.
    void start(std::vector<std::string> more, const std::function<void()>& prepare = {});
    /// start(), and waits until it follows the tables: what is stored after that is a change.
    void startAndWait(std::vector<std::string> more, const std::function<void()>& prepare = {});
    /// The -f pair that links a file with these bytes to 239.1.2.n, port 5000.
    std::vector<std::string> link(std::uint32_t n, const Bytes& stream);
    std::vector<std::string> linkPath(std::uint32_t n, const std::filesystem::path& path) const;

    void setInput(std::size_t row, std::uint32_t n, std::uint32_t tsiidx, std::uint32_t port = 5000);
    void clearInput(std::size_t row) { tsio[2048 + 2 * row + 1] = 0; }
    void setRoute(std::size_t row, std::uint32_t tsiidx, std::uint32_t pid, std::uint32_t routes = CPU_ROUTE,
                  std::size_t bank = 8192);
    void clearRoute(std::size_t row) { router[8192 + 2 * row + 1] = 0; }

    bool waitForRecords(std::uintmax_t bytes) const;
    Bytes records() const { return readBytes(data); }

    TemporaryFolder folder;
    Table tsio{folder / "tsio", TSIO_SIZE};
    Table router{folder / "router", ROUTER_SIZE};
    std::filesystem::path data = folder / "pktio";
    std::unique_ptr<Program> emulator;
};

}  // namespace Vel::SystemTest
