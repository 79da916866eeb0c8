#include "tables/device.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include <fmt/format.h>

#include "command_error.h"
#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"

namespace Vel::Zepctl {

namespace fs = std::filesystem;

LockedDevice::LockedDevice(const Device& device)
    : m_Memory(device.path, device.size, 0),
      m_Lock(::open(device.path.c_str(), O_RDONLY | O_CLOEXEC)) {  // NOLINT(*-vararg)
    if (!m_Lock.isOpen() || ::flock(m_Lock.get(), LOCK_EX) != 0) {
        throw systemError("Cannot lock " + device.path);
    }
}

namespace {

constexpr mode_t STAND_IN_MODE = 0666;  // less the umask

void checkTarget(const std::string& path, fs::file_type wanted, bool force) {
    if (!fs::exists(fs::symlink_status(path))) {
        return;
    }
    const bool isFifo = wanted == fs::file_type::fifo;
    if (fs::status(path).type() != wanted) {
        throw CommandError(DEVICE_UNUSABLE, path + " exists already and is not a " +
                                                (isFifo ? "FIFO" : "plain file") + "; remove it");
    }
    if (!force) {
        throw CommandError(WRONG_USE,
                           path + " exists already; --force " + (isFifo ? "uses" : "empties") + " it");
    }
}

/// Creates the file, or makes it large enough, and keeps what is in it.
void makeRoom(const Device& device) {
    const CppUtil::FileDescriptor file(
        ::open(device.path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, STAND_IN_MODE));  // NOLINT(*-vararg)
    struct stat status {};
    if (!file.isOpen() || ::fstat(file.get(), &status) != 0 ||
        (status.st_size < device.size && ::ftruncate(file.get(), device.size) != 0)) {
        throw systemError("Cannot create " + device.path);
    }
}

}  // namespace

void clearWords(Drivers::IMemIf& memory, std::uint32_t count) {
    while (count-- > 0) {
        memory.write32(count, 0);
    }
}

void createStandIns(const std::string& directory, bool withFifo, bool force) {
    const Device tsio{(fs::path(directory) / "tsio").string(), Drivers::Zep::TSIO_DEVICE.size};
    const Device router{(fs::path(directory) / "router").string(), Drivers::Zep::ROUTER_DEVICE.size};
    const std::string fifo = (fs::path(directory) / "pktio").string();
    checkTarget(tsio.path, fs::file_type::regular, force);
    checkTarget(router.path, fs::file_type::regular, force);
    if (withFifo) {
        checkTarget(fifo, fs::file_type::fifo, force);
    }
    std::error_code error;
    fs::create_directories(directory, error);
    if (error) {
        throw CommandError(DEVICE_UNUSABLE,
                           "Cannot create directory \"" + directory + "\": " + error.message());
    }
    if (withFifo && ::mkfifo(fifo.c_str(), STAND_IN_MODE) != 0 && errno != EEXIST) {
        throw systemError("Cannot create the FIFO " + fifo);
    }
    makeRoom(tsio);
    makeRoom(router);
    for (const Device& device : {tsio, router}) {
        clearWords(LockedDevice(device).memory(), device.size / sizeof(std::uint32_t));
    }
}

std::string standInCommandLine(const std::string& directory) {
    const auto path = [&](const char* name) { return (fs::path(directory) / name).string(); };
    return fmt::format("zeptfem -t {} -r {} -P {} -f \"udp://239.1.2.3:5000 FILE.ts\"", path("tsio"),
                       path("router"), path("pktio"));
}

}  // namespace Vel::Zepctl
