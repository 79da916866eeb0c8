#include "tables/stand_ins.h"

#include <sys/stat.h>

#include <filesystem>
#include <system_error>

#include <fmt/format.h>

#include "command_error.h"
#include "plain_file.h"
#include "tables/device.h"
#include "vel/cpp_utils/text.h"

namespace Vel::Zepctl {

using namespace Drivers::Zep;

namespace {

/// @param kind S_IFREG or S_IFIFO
void checkExisting(const std::string& path, const struct stat& file, mode_t kind, bool force) {
    const bool isFifo = kind == S_IFIFO;
    const auto refuse = [&](ExitStatus status, const std::string& reason) {
        throw CommandError(status, path + " already exists" + reason);
    };
    if ((file.st_mode & S_IFMT) != kind) {
        refuse(DeviceUnusable,
               fmt::format(" and is not a {}; remove it first", isFifo ? "FIFO" : "plain file"));
    }
    if (file.st_nlink > 1) {
        refuse(DeviceUnusable, fmt::format(" with {} hard links; remove it first", file.st_nlink));
    }
    if (!force) {
        refuse(WrongUse, fmt::format("; use --force to {} it", isFifo ? "keep" : "zero"));
    }
}

void checkName(const std::string& path, mode_t kind, bool force) {
    struct stat file {};
    if (::lstat(path.c_str(), &file) == 0) {
        checkExisting(path, file, kind, force);
    }
}

/// Creates the file, or extends it to its size, and keeps what is in it.
CppUtil::FileDescriptor openStandIn(const std::string& path, std::uint32_t size, bool force) {
    CppUtil::FileDescriptor file = openForWriting(path, O_RDWR, force);
    struct stat status {};
    if (!file.isOpen() || ::fstat(file.get(), &status) != 0) {
        throw systemError("Cannot create " + path);
    }
    checkExisting(path, status, S_IFREG, true);
    if (status.st_size < size && ::ftruncate(file.get(), size) != 0) {
        throw systemError("Cannot create " + path);
    }
    return file;
}

/// In single quotes, or in $'...' so that no control character gets to the terminal.
std::string quoteForShell(const std::string& word) {
    if (word.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                               "%+,-./:=@_") == std::string::npos) {
        return word;
    }
    const bool hasControls = CppUtil::escapeControls(word) != word;
    std::string quoted;
    for (const char c : word) {
        if (c == '\'' || (c == '\\' && hasControls)) {
            quoted += hasControls ? "\\" : "'\\'";
        }
        quoted += c;
    }
    return (hasControls ? "$'" + CppUtil::escapeControls(quoted) : "'" + quoted) + "'";
}

}  // namespace

void clearWords(Drivers::IMemIf& memory, std::uint32_t count) {
    while (count-- > 0) {
        memory.write32(count, 0);
    }
    memory.verifyMemory();
}

void createStandIns(const std::string& directory, bool withFifo, bool force) {
    const std::string prefix = (std::filesystem::path(directory) / "").string();
    const std::string tsio = prefix + "tsio";
    const std::string router = prefix + "router";
    const std::string fifo = prefix + "pktio";
    checkName(tsio, S_IFREG, force);
    checkName(router, S_IFREG, force);
    if (withFifo) {
        checkName(fifo, S_IFIFO, force);
    }
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error) {
        throw CommandError(DeviceUnusable,
                           "Cannot create directory \"" + directory + "\": " + error.message());
    }
    if (withFifo && ::mkfifo(fifo.c_str(), 0666) != 0 && !(errno == EEXIST && force)) {
        throw systemError("Cannot create " + fifo);
    }
    const auto tsioFile = openStandIn(tsio, TSIO_DEVICE.size, force);
    const auto routerFile = openStandIn(router, ROUTER_DEVICE.size, force);
    LockedDevice tsioDevice(tsio, TSIO_DEVICE, Access::Change, tsioFile.get());
    LockedDevice routerDevice(router, ROUTER_DEVICE, Access::Change, routerFile.get());
    clearWords(tsioDevice.memory(), TSIO_DEVICE.size / sizeof(std::uint32_t));
    clearWords(routerDevice.memory(), ROUTER_DEVICE.size / sizeof(std::uint32_t));
}

std::string standInCommandLine(const std::string& directory, bool withFifo) {
    return fmt::format("zeptfem -d {}{} -f \"udp://239.1.2.3:5000 FILE.ts\"", quoteForShell(directory),
                       withFifo ? " -k" : "");
}

}  // namespace Vel::Zepctl
