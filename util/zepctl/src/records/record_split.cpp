#include "records/record_split.h"

#include <unistd.h>

#include <utility>

#include <fmt/format.h>

#include "command_result.h"
#include "plain_file.h"

namespace Vel::Zepctl {

RecordSplit::RecordSplit(std::string directory, const struct stat& input)
    : m_Directory(std::move(directory)), m_Input(input) {}

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
            output.path = getPath(record.getTsiidx());
            open(output);
        }
        if (std::fwrite(record.getDataPtr(), Ts::TS_PACKET_SIZE, 1, output.file.get()) != 1) {
            throw systemError("Cannot write " + output.path);
        }
        ++output.packets;
    }
}

void RecordSplit::end(std::size_t tornBytes) {
    m_Faults.addTornRecord(tornBytes);
    for (auto& [tsiidx, output] : m_Outputs) {
        if (std::fclose(output.file.release()) != 0) {
            throw systemError("Cannot write " + output.path);
        }
    }
}

std::string RecordSplit::getPath(std::uint32_t tsiidx) const {
    return fmt::format("{}/tsiidx-{:03}.ts", m_Directory, tsiidx);
}

/// Later records may have any TSIIDX, so all names are checked before the first file is created.
void RecordSplit::prepareDirectory() const {
    createDirectory(m_Directory);
    for (std::uint32_t tsiidx = 0; tsiidx <= MAX_TSIIDX; ++tsiidx) {
        const std::string path = getPath(tsiidx);
        if (struct stat status{}; ::lstat(path.c_str(), &status) == 0) {
            requireOutput(path, status, m_Input);
        }
    }
}

/// The name may have been taken by something else since it was checked, so the opened file is checked again.
void RecordSplit::open(Output& output) const {
    output.file.reset(::fdopen(createOutput(output.path, m_Input).release(), "wb"));
    if (!output.file) {
        throw systemError("Cannot create " + output.path);
    }
}

}  // namespace Vel::Zepctl
