#include "emulator.h"

#include <utility>

namespace Vel::SystemTest {

std::string uri(std::uint32_t n) {
    return "udp://239.1.2." + std::to_string(n) + ":5000";
}

void EmulatorTest::start(std::vector<std::string> more, const std::function<void()>& prepare) {
    std::vector<std::string> arguments = {"-t", tsio.path(), "-r", router.path(), "-P", data};
    arguments.insert(arguments.end(), std::make_move_iterator(more.begin()),
                     std::make_move_iterator(more.end()));
    emulator = std::make_unique<Program>(ZEPTFEM_PROGRAM, arguments, prepare);
}

void EmulatorTest::startAndWait(std::vector<std::string> more, const std::function<void()>& prepare) {
    start(std::move(more), prepare);
    ASSERT_TRUE(eventually([this] {
        std::error_code ended;
        for (const auto& thread : std::filesystem::directory_iterator(
                 "/proc/" + std::to_string(emulator->pid()) + "/task", ended)) {
            if (readText(thread.path() / "comm") == "fpga-monitor\n") {
                return true;
            }
        }
        return false;
    }));
}

std::vector<std::string> EmulatorTest::link(std::uint32_t n, const Bytes& stream) {
    const std::filesystem::path file = folder / (std::to_string(n) + ".ts");
    writeBytes(file, stream);
    return linkPath(n, file);
}

std::vector<std::string> EmulatorTest::linkPath(std::uint32_t n, const std::filesystem::path& path) const {
    return {"-f", uri(n) + " " + path.string()};
}

void EmulatorTest::setInput(std::size_t row, std::uint32_t n, std::uint32_t tsiidx, std::uint32_t port) {
    tsio[2048 + 2 * row] = address(n);
    tsio[2048 + 2 * row + 1] = IP_ENABLED | tsiidx << 16 | port;
}

void EmulatorTest::setRoute(std::size_t row, std::uint32_t tsiidx, std::uint32_t pid, std::uint32_t routes,
                            std::size_t bank) {
    router[bank + 2 * row] = tsiidx << 13 | pid;
    router[bank + 2 * row + 1] = 255U << 24 | routes | static_cast<std::uint32_t>(row + 1);
}

bool EmulatorTest::waitForRecords(std::uintmax_t bytes) const {
    return eventually([&] {
        std::error_code missing;
        const auto size = std::filesystem::file_size(data, missing);
        return !missing && size >= bytes;
    });
}

}  // namespace Vel::SystemTest
