#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <span>
#include <string>

#include "records/record_fault.h"

namespace Vel::Zepctl {

/// Writes the packets of each input to a plain transport stream file: those of TSIIDX 3 to tsiidx-003.ts and
/// so on, in their order. Records that cannot be attributed to an input are logged and skipped; the packets
/// are not checked. Thread-bound.
class RecordSplit {
public:
    struct Output {
        std::string path;
        std::unique_ptr<std::FILE, int (*)(std::FILE*)> file{nullptr, &std::fclose};
        std::uint64_t packets = 0;
    };

    /// Changes nothing yet.
    /// @param directory created for the first packet if it is missing; existing files with those names are
    /// overwritten
    /// @param input status of the file that the records are read from; it is not overwritten
    RecordSplit(std::string directory, const struct stat& input);

    /// Takes the next complete records.
    /// @throws CommandError when a file cannot be written. Before anything is changed, if one of the names is
    /// taken by the input, a link, or anything but a plain file
    void add(std::span<const std::uint8_t> records);
    /// Takes the size of the incomplete record at the end of the stream, 0 if there is none, and closes the
    /// files.
    /// @throws CommandError when a file cannot be written
    void end(std::size_t tornBytes);

    const FaultLog& getFaults() const { return m_Faults; }
    /// By TSIIDX.
    const std::map<std::uint32_t, Output>& getOutputs() const { return m_Outputs; }

private:
    std::string getPath(std::uint32_t tsiidx) const;
    void prepareDirectory() const;
    void open(Output& output) const;

    std::string m_Directory;
    struct stat m_Input;
    FaultLog m_Faults;
    std::map<std::uint32_t, Output> m_Outputs;
};

}  // namespace Vel::Zepctl
