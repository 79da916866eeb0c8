#pragma once

#include <optional>
#include <string>

#include <CLI/CLI.hpp>

namespace Vel::Zepctl {

/// The commands that inspect records: `records check`, `records split` and `records watch`. Parsing the
/// command line runs the requested one, which throws CommandError. Must outlive the parsing. Thread-bound.
class RecordCommands {
public:
    explicit RecordCommands(CLI::App& app);
    RecordCommands(const RecordCommands&) = delete;
    RecordCommands& operator=(const RecordCommands&) = delete;

private:
    void check() const;
    void split() const;

    std::string m_File;
    std::string m_Directory;
    bool m_Json = false;
    std::optional<double> m_Seconds;  // of a watch
};

}  // namespace Vel::Zepctl
