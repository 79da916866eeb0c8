#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "device_paths.h"
#include "tables/table_dump.h"

namespace Vel::Zepctl {

/// The commands that create, change and show the tables. Parsing a command line stores its values here and
/// then runs its command, so this object must outlive the parsing, and is neither copied nor moved. One
/// command runs per parse, so commands share values of the same meaning.
///
/// A command throws CommandError for a refusal, and passes on the errors of devices and tables. Thread-bound.
class TableCommands {
public:
    TableCommands(CLI::App& app, const DevicePaths& devices);
    TableCommands(const TableCommands&) = delete;
    TableCommands& operator=(const TableCommands&) = delete;

private:
    void declareCreate(CLI::App& app);
    void declareInput(CLI::App& app);
    void declareRoute(CLI::App& app);
    void declareRouteKey(CLI::App& command);
    void declareDump(CLI::App& app);
    void clearTables();

    const DevicePaths& m_Devices;
    std::string m_Directory;
    bool m_WithFifo = false;
    bool m_Force = false;
    std::string m_Uri;
    std::optional<std::uint32_t> m_TSIIDX;
    std::optional<std::uint32_t> m_PID;
    std::optional<std::uint32_t> m_PIDIDX;      ///< else the lowest unused one
    std::optional<std::uint32_t> m_FiltTabIDX;  ///< else 255
    bool m_OutRoute = false;
    bool m_NoCpuRoute = false;
    std::string m_Table;  ///< what to clear, empty for both, or the table to dump
    DumpOptions m_DumpOptions;
};

}  // namespace Vel::Zepctl
