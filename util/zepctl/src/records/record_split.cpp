#include "records/record_split.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <filesystem>
#include <system_error>
#include <utility>

namespace Vel::Zepctl {

namespace {

constexpr std::size_t BLOCK_PACKETS = 256;
constexpr mode_t NEW_FILE_MODE = 0666;

/// Not truncated by the opening, which would empty the source if it is the same file.
CppUtil::FileDescriptor openForWriting(const std::string& path, int source) {
    CppUtil::FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, NEW_FILE_MODE));
    if (!file.isOpen()) {
        throw systemError("Cannot create " + path);
    }
    struct stat target {};
    struct stat input {};
    if (::fstat(file.get(), &target) == -1 || ::fstat(source, &input) == -1) {
        throw systemError("Cannot create " + path);
    }
    if (target.st_dev == input.st_dev && target.st_ino == input.st_ino) {
        throw CommandError(DEVICE_UNUSABLE, "Cannot create " + path + ": it is the file that is read");
    }
    if (S_ISREG(target.st_mode) && ::ftruncate(file.get(), 0) == -1) {
        throw systemError("Cannot empty " + path);
    }
    return file;
}

}  // namespace

TsOutput::TsOutput(std::string path, int source)
    : m_Path(std::move(path)), m_File(openForWriting(m_Path, source)) {
    m_Block.reserve(BLOCK_PACKETS * Ts::TS_PACKET_SIZE);
}

void TsOutput::add(const RecordView& packet) {
    const std::uint8_t* bytes = packet.getDataPtr();
    m_Block.insert(m_Block.end(), bytes, bytes + Ts::TS_PACKET_SIZE);
    ++m_Packets;
    if (m_Block.size() == m_Block.capacity()) {
        flush();
    }
}

void TsOutput::flush() {
    std::span<const std::uint8_t> rest(m_Block);
    while (!rest.empty()) {
        const ssize_t written = ::write(m_File.get(), rest.data(), rest.size());
        if (written >= 0) {
            rest = rest.subspan(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            throw systemError("Cannot write " + m_Path);
        }
    }
    m_Block.clear();
}

void TsOutput::close() {
    flush();
    if (!m_File.close()) {
        throw systemError("Cannot write " + m_Path);
    }
}

RecordSplit::RecordSplit(std::string directory, int source)
    : m_Directory(std::move(directory)), m_Source(source) {
    std::error_code error;
    std::filesystem::create_directories(m_Directory, error);
    if (error) {
        throw CommandError(DEVICE_UNUSABLE,
                           "Cannot create directory " + m_Directory + ": " + error.message());
    }
}

void RecordSplit::add(std::span<const std::uint8_t> records) {
    for (; records.size() >= Ts::RECORD_SIZE; records = records.subspan(Ts::RECORD_SIZE)) {
        const RecordView record(records.data());
        if (const auto fault = findRecordFault(record, m_Records++)) {
            m_Faults.add(*fault);
        } else {
            getOutput(record.getTsiidx()).add(record);
        }
    }
}

void RecordSplit::end(std::size_t tornBytes) {
    m_Faults.addTornRecord(m_Records, tornBytes);
    for (const auto& output : m_Outputs) {
        if (output != nullptr) {
            output->close();
        }
    }
}

TsOutput& RecordSplit::getOutput(std::uint32_t tsiidx) {
    auto& output = m_Outputs[tsiidx];
    if (output == nullptr) {
        output = std::make_unique<TsOutput>(fmt::format("{}/tsiidx-{:03}.ts", m_Directory, tsiidx), m_Source);
    }
    return *output;
}

std::vector<const TsOutput*> RecordSplit::getOutputs() const {
    std::vector<const TsOutput*> outputs;
    for (const auto& output : m_Outputs) {
        if (output != nullptr) {
            outputs.push_back(output.get());
        }
    }
    return outputs;
}

}  // namespace Vel::Zepctl
