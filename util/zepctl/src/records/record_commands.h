#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "device_paths.h"
#include "records/record_check.h"

namespace Vel::Zepctl {

/// The commands that inspect records: `records check`, `records split` and `records watch`. Parsing the
/// command line runs the requested one, which throws CommandError. Must outlive the parsing. Thread-bound.
class RecordCommands {
public:
    RecordCommands(CLI::App& app, const DevicePaths& devices);
    RecordCommands(const RecordCommands&) = delete;
    RecordCommands& operator=(const RecordCommands&) = delete;

private:
    std::string getFile() const;
    void readUntil(std::chrono::steady_clock::time_point end, RecordReader& reader, RecordCheck& check) const;
    void check() const;
    void split() const;

    const DevicePaths& m_Devices;
    std::string m_File;  // empty for the data device
    std::string m_Directory;
    bool m_Json = false;
    bool m_IsStrict = false;
    std::vector<std::string> m_Against;
    std::optional<double> m_Seconds;  // limit of a watch, or of a check that waits
};

}  // namespace Vel::Zepctl
