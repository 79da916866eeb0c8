#include "records/record_split.h"

#include <filesystem>
#include <system_error>

#include <fmt/format.h>

#include "command_error.h"

namespace Vel::Zepctl {

RecordSplit::RecordSplit(const std::string& directory, int source)
    : m_Directory(directory), m_Source(fmt::format("/proc/self/fd/{}", source)) {
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
        if (!m_Faults.addRecord(record)) {
            continue;
        }
        Output& output = m_Outputs[record.getTsiidx()];
        if (!output.file.is_open()) {
            output.path = fmt::format("{}/tsiidx-{:03}.ts", m_Directory, record.getTsiidx());
            open(output);
        }
        if (!output.file.write(reinterpret_cast<const char*>(record.getDataPtr()), Ts::TS_PACKET_SIZE)) {
            throw systemError("Cannot write " + output.path);
        }
        ++output.packets;
    }
}

void RecordSplit::end(std::size_t tornBytes) {
    m_Faults.addTornRecord(tornBytes);
    for (auto& [tsiidx, output] : m_Outputs) {
        output.file.close();
        if (!output.file) {
            throw systemError("Cannot write " + output.path);
        }
    }
}

void RecordSplit::open(Output& output) const {
    if (CppUtil::isSameFile(output.path, m_Source)) {
        throw CommandError(DEVICE_UNUSABLE, "Cannot create " + output.path + ": it is the file that is read");
    }
    output.file.open(output.path, std::ios::binary);
    if (!output.file) {
        throw systemError("Cannot create " + output.path);
    }
}

}  // namespace Vel::Zepctl
