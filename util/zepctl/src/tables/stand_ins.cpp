#include "tables/stand_ins.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "command_result.h"
#include "plain_file.h"
#include "tables/device.h"
#include "vel/cpp_utils/text.h"
#include "vel/userspace_drivers/drivers/zep/ts/ipinentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/ipoutentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/physinentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/physoutentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/pidlutentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/pidmapentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/tsimapentry.h"

namespace Vel::Zepctl {

using namespace Drivers::Zep;

namespace {

using DeviceWords = std::vector<std::uint32_t>;

constexpr std::uint32_t FIFO = 0;  // in place of the size of a device

void checkExisting(const std::string& path, const struct stat& file, std::uint32_t size, bool force) {
    const bool isFifo = size == FIFO;
    const auto refuse = [&](ExitStatus status, const std::string& reason) {
        throw CommandError(status, path + " already exists" + reason);
    };
    if (!(isFifo ? S_ISFIFO(file.st_mode) : S_ISREG(file.st_mode))) {
        refuse(DeviceUnusable,
               fmt::format(" and is not a {}; remove it first", isFifo ? "FIFO" : "plain file"));
    }
    if (file.st_nlink > 1) {
        refuse(DeviceUnusable, fmt::format(" with {} hard links; remove it first", file.st_nlink));
    }
    if (file.st_size > size) {
        refuse(DeviceUnusable,
               fmt::format(" with {} bytes instead of {}; remove it first", file.st_size, size));
    }
    if (!force) {
        refuse(WrongUse, fmt::format("; use --force to {} it", isFifo ? "keep" : "clear"));
    }
}

void checkName(const std::string& path, std::uint32_t size, bool force) {
    struct stat file {};
    if (::lstat(path.c_str(), &file) == 0) {
        checkExisting(path, file, size, force);
    }
}

/// Creates the file, or extends it to its size, and keeps what is in it.
CppUtil::FileDescriptor openStandIn(const std::string& path, std::uint32_t size, bool force) {
    OpenFile opened = openForWriting(path, O_RDWR, force);
    checkExisting(path, opened.status, size, true);
    if (opened.status.st_size < size && ::ftruncate(opened.file.get(), size) != 0) {
        throw systemError("Cannot create " + path);
    }
    return std::move(opened.file);
}

/// In single quotes, or in $'...' so that no control character gets to the terminal.
std::string quoteForShell(const std::string& word) {
    constexpr const char* PLAIN = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_%+,./:=@-";
    if (word.find_first_not_of(PLAIN) == std::string::npos) {
        return word;
    }
    if (CppUtil::escapeControls(word) != word) {
        const std::string escaped = std::regex_replace(word, std::regex(R"(['\\])"), R"(\$&)");
        return "$'" + CppUtil::escapeControls(escaped) + "'";
    }
    return "'" + std::regex_replace(word, std::regex("'"), R"('\'')") + "'";
}

template <typename Row>
void putClearedRows(DeviceWords& words, std::uint32_t base, std::uint32_t rows) {
    Row row;
    row.toWords();
    for (std::uint32_t i = 0; i < rows; ++i) {
        std::ranges::copy(row.getWords(), &words.at(base + i * Row::WORDS));
    }
}

void writeBackwards(Drivers::IMemIf& memory, const DeviceWords& words) {
    for (auto i = static_cast<std::uint32_t>(words.size()); i-- > 0;) {
        memory.write32(i, words[i]);
    }
    memory.verifyMemory();
}

}  // namespace

void clearTsio(Drivers::IMemIf& memory) {
    DeviceWords words(TSIO_DEVICE.size / sizeof(std::uint32_t));
    putClearedRows<IpInEntry>(words, IpLut::TABLE.base, IpLut::TABLE.rows);
    putClearedRows<PhysInEntry>(words, PhysInMap::TABLE.base, PhysInMap::TABLE.rows);
    putClearedRows<PhysOutEntry>(words, PhysOutMap::TABLE.base, PhysOutMap::TABLE.rows);
    putClearedRows<IpOutEntry>(words, IpOutTable::TABLE.base, IpOutTable::TABLE.rows);
    writeBackwards(memory, words);
}

void clearRouter(Drivers::IMemIf& memory) {
    DeviceWords words(ROUTER_DEVICE.size / sizeof(std::uint32_t));
    putClearedRows<PidLutEntry>(words, PidLut::TABLE.base, PidLut::TABLE.rows);
    putClearedRows<PidLutEntry>(words, PidLut::UPPER_BASE, PidLut::TABLE.rows);
    putClearedRows<TsiMapEntry>(words, TsiMap::TABLE.base, TsiMap::TABLE.rows);
    putClearedRows<PidMapEntry>(words, OPidMap::TABLE.base, OPidMap::TABLE.rows);
    writeBackwards(memory, words);
}

void createStandIns(const std::string& directory, bool withFifo, bool force) {
    const std::string prefix = (std::filesystem::path(directory) / "").string();
    const std::string tsio = prefix + "tsio";
    const std::string router = prefix + "router";
    const std::string fifo = prefix + "pktio";
    checkName(tsio, TSIO_DEVICE.size, force);
    checkName(router, ROUTER_DEVICE.size, force);
    if (withFifo) {
        checkName(fifo, FIFO, force);
    }
    createDirectory(directory);
    if (withFifo && ::mkfifo(fifo.c_str(), 0666) != 0 && !(errno == EEXIST && force)) {
        throw systemError("Cannot create " + fifo);
    }
    const auto tsioFile = openStandIn(tsio, TSIO_DEVICE.size, force);
    const auto routerFile = openStandIn(router, ROUTER_DEVICE.size, force);
    LockedDevice tsioDevice(tsio, TSIO_DEVICE, Access::Change, tsioFile.get());
    LockedDevice routerDevice(router, ROUTER_DEVICE, Access::Change, routerFile.get());
    clearTsio(tsioDevice.memory());
    clearRouter(routerDevice.memory());
}

std::string standInCommandLine(const std::string& directory) {
    std::error_code ignored;
    const bool hasFifo = std::filesystem::is_fifo(std::filesystem::path(directory) / "pktio", ignored);
    return fmt::format("zeptfem -d {}{} -f \"udp://239.1.2.3:5000 FILE.ts\"", quoteForShell(directory),
                       hasFifo ? " -k" : "");
}

}  // namespace Vel::Zepctl
