#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "command_error.h"
#include "records/record_fault.h"

namespace Vel::Zepctl {

/// A plain transport stream file in the making, written in blocks. Thread-bound.
class TsOutput {
public:
    /// Creates the file, or overwrites what it held.
    /// @param source descriptor that the packets are read from: its file is refused
    /// @throws CommandError when the file cannot be written, as the other calls do
    TsOutput(std::string path, int source);

    void add(const RecordView& packet);
    /// Writes what is held back and closes the file. Without this call, the end of the stream is missing.
    void close();

    const std::string& getPath() const { return m_Path; }
    std::uint64_t getPackets() const { return m_Packets; }

private:
    void flush();

    std::string m_Path;
    CppUtil::FileDescriptor m_File;
    std::vector<std::uint8_t> m_Block;
    std::uint64_t m_Packets = 0;
};

/// Takes a stream of records apart: the packets of TSIIDX 3 go to tsiidx-003.ts and so on, in their order.
/// Records that have no input are logged and left out; what the packets hold is not looked at. Thread-bound.
class RecordSplit {
public:
    /// @param directory created where it is missing; files of those names in it are overwritten, others stay
    /// @param source descriptor that the records are read from
    /// @throws CommandError when the directory cannot be created
    RecordSplit(std::string directory, int source);

    /// Takes the next records, whole ones.
    /// @throws CommandError when a file cannot be written
    void add(std::span<const std::uint8_t> records);
    /// Tells what is left of a record at the end of the stream, in bytes, and closes the files.
    /// @throws CommandError when a file cannot be written
    void end(std::size_t tornBytes);

    std::uint64_t getRecords() const { return m_Records; }
    const FaultLog& getFaults() const { return m_Faults; }
    /// One a TSIIDX that occurred, ascending.
    std::vector<const TsOutput*> getOutputs() const;

private:
    TsOutput& getOutput(std::uint32_t tsiidx);

    std::string m_Directory;
    int m_Source;
    std::uint64_t m_Records = 0;
    FaultLog m_Faults;
    std::array<std::unique_ptr<TsOutput>, Ts::TSIIDX_COUNT> m_Outputs;
};

}  // namespace Vel::Zepctl
