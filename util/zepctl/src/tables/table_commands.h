#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "tables/device.h"
#include "tables/table_dump.h"

namespace Vel::Zepctl {

/// The commands that create, change and show the tables, and the options that name the two devices. Parsing
/// a command line stores its values here and then runs the method of its command, so this object must live
/// as long as `app` parses, and is neither copied nor moved. One command runs per parse, so commands share
/// the values that mean the same.
///
/// The methods throw CommandError for a refusal, and pass on the errors of devices and tables. Thread-bound.
class TableCommands {
public:
    explicit TableCommands(CLI::App& app);
    TableCommands(const TableCommands&) = delete;
    TableCommands& operator=(const TableCommands&) = delete;

private:
    CLI::App& declare(CLI::App& parent, const std::string& name, const std::string& help,
                      const std::string& footer, void (TableCommands::*run)());
    void declareCreate(CLI::App& app);
    void declareInput(CLI::App& app);
    void declareRoute(CLI::App& app);
    void declareRouteKey(CLI::App& command);
    void declareClear(CLI::App& app);
    void declareDump(CLI::App& app);

    void create();
    void addInput();
    void removeInput();
    void listInputs();
    void addRoute();
    void removeRoute();
    void listRoutes();
    void clear();
    void dump();
    void listPorts();

    Device m_Tsio;
    Device m_Router;
    std::string m_Directory;
    bool m_WithFifo = false;
    bool m_Force = false;
    std::string m_Uri;
    std::uint32_t m_TSIIDX = 0;
    std::uint32_t m_PID = 0;
    std::optional<std::uint32_t> m_PIDIDX;  ///< else the lowest that no route has
    std::uint32_t m_FiltTabIDX;
    bool m_OutRoute = false;
    bool m_NoCpuRoute = false;
    std::string m_Table;  ///< what to clear, empty for both, or the table to dump
    DumpRange m_Range;
};

}  // namespace Vel::Zepctl
