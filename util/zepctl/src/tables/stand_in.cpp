#include "tables/stand_in.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "command_error.h"
#include "tables/locked_device.h"

namespace Vel::Zepctl {

namespace fs = std::filesystem;

namespace {

/// Before anything is made: a refusal must leave all of them as they are.
void checkTarget(const fs::path& path, fs::file_type wanted, bool force) {
    if (!fs::exists(fs::symlink_status(path))) {
        return;
    }
    const bool isFifo = wanted == fs::file_type::fifo;
    if (fs::status(path).type() != wanted) {
        throw CommandError(DEVICE_UNUSABLE, path.string() + " exists already and is not a " +
                                                (isFifo ? "FIFO" : "plain file") + "; remove it");
    }
    if (!force) {
        throw CommandError(
            WRONG_USE, path.string() + " exists already; --force " + (isFifo ? "uses" : "empties") + " it");
    }
}

void createTables(const fs::path& path, std::uint32_t size) {
    errno = 0;
    if (!std::ofstream(path, std::ios::app)) {
        throw std::system_error(errno, std::generic_category(), "Cannot make " + path.string());
    }
    if (fs::file_size(path) < size) {
        fs::resize_file(path, size);
    }
    // From the end, so that a row that is in use loses its enable bit or its routes, which are in its last
    // word, before its address.
    LockedDevice device({path.string(), size});
    for (auto word = static_cast<std::uint32_t>(size / sizeof(std::uint32_t)); word-- > 0;) {
        device.memory().write32(word, 0);
    }
}

void createFifo(const fs::path& path) {
    if (::mkfifo(path.c_str(), 0666) != 0 && errno != EEXIST) {
        throw systemError("Cannot make the FIFO " + path.string());
    }
}

std::string quoteForShell(const std::string& text) {
    constexpr const char* PLAIN = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+,:@%";
    if (!text.empty() && text.find_first_not_of(PLAIN) == std::string::npos) {
        return text;
    }
    std::string quoted = "'";
    for (const char c : text) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

}  // namespace

void createStandIns(const std::string& directory, bool withFifo, bool force) {
    const fs::path path(directory);
    checkTarget(path / "tsio", fs::file_type::regular, force);
    checkTarget(path / "router", fs::file_type::regular, force);
    if (withFifo) {
        checkTarget(path / "pktio", fs::file_type::fifo, force);
    }
    std::error_code error;
    fs::create_directories(path, error);
    if (error) {
        throw CommandError(DEVICE_UNUSABLE,
                           "Cannot create directory \"" + directory + "\": " + error.message());
    }
    createTables(path / "tsio", Drivers::Zep::TSIO_DEVICE.size);
    createTables(path / "router", Drivers::Zep::ROUTER_DEVICE.size);
    if (withFifo) {
        createFifo(path / "pktio");
    }
}

std::string standInCommandLine(const std::string& directory) {
    const auto path = [&](const char* name) { return quoteForShell((fs::path(directory) / name).string()); };
    return "zeptfem -t " + path("tsio") + " -r " + path("router") + " -P " + path("pktio") +
           " -f \"udp://239.1.2.3:5000 FILE.ts\"";
}

}  // namespace Vel::Zepctl
