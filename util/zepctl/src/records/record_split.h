#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <map>
#include <span>
#include <string>

#include "records/record_fault.h"

namespace Vel::Zepctl {

/// Writes the packets of each input to a plain transport stream file: those of TSIIDX 3 to tsiidx-003.ts and
/// so on, in their order. Records that have no input are logged and left out; what the packets hold is not
/// looked at. Thread-bound.
class RecordSplit {
public:
    struct Output {
        std::string path;
        std::ofstream file;
        std::uint64_t packets = 0;
    };

    /// @param directory created if it is missing; files of those names in it are overwritten, others stay
    /// @param source descriptor that the records are read from; its file is not overwritten
    /// @throws CommandError when the directory cannot be created
    RecordSplit(const std::string& directory, int source);

    /// Takes the next records, whole ones.
    /// @throws CommandError when a file cannot be written
    void add(std::span<const std::uint8_t> records);
    /// Takes the number of bytes that remain of a record at the end of the stream, and closes the files.
    /// @throws CommandError when a file cannot be written
    void end(std::size_t tornBytes);

    const FaultLog& getFaults() const { return m_Faults; }
    /// By TSIIDX.
    const std::map<std::uint32_t, Output>& getOutputs() const { return m_Outputs; }

private:
    void open(Output& output) const;

    std::string m_Directory;
    std::string m_Source;  // path of the descriptor
    FaultLog m_Faults;
    std::map<std::uint32_t, Output> m_Outputs;
};

}  // namespace Vel::Zepctl
