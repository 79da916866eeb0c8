#include "records/record_split.h"

#include <fcntl.h>

#include <csignal>
#include <filesystem>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "command_error.h"
#include "vel/cpp_utils/text.h"

namespace Vel::Zepctl {

RecordSplit::RecordSplit(std::string directory, const struct stat& input)
    : m_Directory(std::move(directory)), m_Input(input) {
    std::signal(SIGXFSZ, SIG_IGN);  // a file size limit is reported like a full disk
}

void RecordSplit::add(std::span<const std::uint8_t> records) {
    for (; records.size() >= Ts::RECORD_SIZE; records = records.subspan(Ts::RECORD_SIZE)) {
        const RecordView record(records.data());
        if (!m_Faults.addRecord(record)) {
            continue;
        }
        if (m_Outputs.empty()) {
            prepareDirectory();
        }
        Output& output = m_Outputs[record.getTsiidx()];
        if (!output.file) {
            output = open(getPath(record.getTsiidx()));
        }
        if (std::fwrite(record.getDataPtr(), Ts::TS_PACKET_SIZE, 1, output.file.get()) != 1) {
            throw systemError("Cannot write " + output.name);
        }
        ++output.packets;
    }
}

void RecordSplit::end(std::size_t tornBytes) {
    m_Faults.addTornRecord(tornBytes);
    for (auto& [tsiidx, output] : m_Outputs) {
        if (std::fclose(output.file.release()) != 0) {
            throw systemError("Cannot write " + output.name);
        }
    }
}

std::string RecordSplit::getPath(std::uint32_t tsiidx) const {
    return fmt::format("{}/tsiidx-{:03}.ts", m_Directory, tsiidx);
}

/// Later records may have any TSIIDX, so all names are checked before the first file is created.
void RecordSplit::prepareDirectory() const {
    std::error_code error;
    std::filesystem::create_directories(m_Directory, error);
    if (error) {
        throw CommandError(
            DEVICE_UNUSABLE,
            "Cannot create directory " + CppUtil::escapeControls(m_Directory) + ": " + error.message());
    }
    for (std::uint32_t tsiidx = 0; tsiidx <= MAX_TSIIDX; ++tsiidx) {
        const std::string path = getPath(tsiidx);
        struct stat status {};
        if (::lstat(path.c_str(), &status) == 0) {
            checkOverwritable(path, status);
        }
    }
}

void RecordSplit::checkOverwritable(const std::string& path, const struct stat& status) const {
    const std::string name = CppUtil::escapeControls(path);
    if (status.st_dev == m_Input.st_dev && status.st_ino == m_Input.st_ino) {
        throw CommandError(DEVICE_UNUSABLE, "Cannot create " + name + ": it is the input file");
    }
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1) {
        throw CommandError(DEVICE_UNUSABLE, "Cannot create " + name +
                                                ": it exists and is not a plain file with a single link");
    }
}

/// The name may have been replaced since it was checked. So this follows no link, waits for no FIFO, and
/// truncates the file only after a look at what was opened.
RecordSplit::Output RecordSplit::open(const std::string& path) const {
    constexpr int FLAGS = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    constexpr mode_t MODE = 0666;
    Output output{CppUtil::escapeControls(path), {}};
    const int fd = ::open(path.c_str(), FLAGS, MODE);
    output.file.reset(fd == -1 ? nullptr : ::fdopen(fd, "wb"));
    struct stat status {};
    if (!output.file || ::fstat(fd, &status) == -1) {
        throw systemError("Cannot create " + output.name);
    }
    checkOverwritable(path, status);
    if (::ftruncate(fd, 0) == -1) {
        throw systemError("Cannot create " + output.name);
    }
    return output;
}

}  // namespace Vel::Zepctl
