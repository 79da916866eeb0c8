#include "tables/table_commands.h"

#include <map>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

#include "command_error.h"
#include "tables/input_table.h"
#include "tables/route_table.h"
#include "tables/row_text.h"
#include "vel/userspace_drivers/drivers/zep/ts/portnames.h"
#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"

namespace Vel::Zepctl {

namespace Zep = Drivers::Zep;

namespace {

/// `Number` is std::uint32_t or an optional one.
template <typename Number>
CLI::Option* addNumber(CLI::App& command, const std::string& name, Number& number, const Zep::Range& range,
                       const std::string& help) {
    const auto parse = [&number, name, range](const std::string& text) {
        number = parseNumber(name, text, range);
    };
    return command
        .add_option_function<std::string>(name, parse,
                                          fmt::format("{} to {}: {}", range.min, range.max, help))
        ->type_name("N");
}

template <typename Row>
void printRows(const std::vector<Row>& rows, std::string (*format)(const Row&)) {
    std::string lines;
    for (const Row& row : rows) {
        lines += format(row) + '\n';
    }
    printOutput(lines);
}

}  // namespace

TableCommands::TableCommands(CLI::App& app)
    : m_Tsio{Zep::TSIO_DEVICE.path, Zep::TSIO_DEVICE.size},
      m_Router{Zep::ROUTER_DEVICE.path, Zep::ROUTER_DEVICE.size},
      m_FiltTabIDX(Zep::FILTTABIDX_RANGE.max) {
    app.add_option("-t,--tsio_dev", m_Tsio.path, "device or file that holds the IP LUT")
        ->type_name("PATH")
        ->capture_default_str();
    app.add_option("-r,--router_dev", m_Router.path, "device or file that holds the PID LUT")
        ->type_name("PATH")
        ->capture_default_str();
    declareCreate(app);
    declareInput(app);
    declareRoute(app);
    declareClear(app);
    declareDump(app);
    declare(app, "ports", "Print side, index and name of the physical ports",
            "Prints lines like\n  input 0 tuner0\n\nExample: zepctl ports", &TableCommands::listPorts);
}

CLI::App& TableCommands::declare(CLI::App& parent, const std::string& name, const std::string& help,
                                 const std::string& footer, void (TableCommands::*run)()) {
    CLI::App& command = *parent.add_subcommand(name, help);
    command.footer(footer);
    command.callback([this, run] { (this->*run)(); });
    return command;
}

void TableCommands::declareCreate(CLI::App& app) {
    CLI::App& create =
        declare(app, "create", "Create files that stand in for the devices, with empty tables",
                "Prints the zeptfem command that uses the files.\n\nExample: zepctl create /tmp/zep",
                &TableCommands::create);
    create.add_option("DIR", m_Directory, "directory of the files, created if it is missing")->required();
    create.add_flag("--fifo", m_WithFifo, "create the FIFO pktio as well");
    create.add_flag("--force", m_Force, "empty files that exist, in place");
}

void TableCommands::create() {
    createStandIns(m_Directory, m_WithFifo, m_Force);
    printOutput(standInCommandLine(m_Directory) + '\n');
}

void TableCommands::declareInput(CLI::App& app) {
    CLI::App& input =
        *app.add_subcommand("input", "Change or list the inputs, which are the rows of the IP LUT");
    input.require_subcommand(1);
    input.footer("Example: zepctl input add udp://239.1.2.3:5000 3");
    CLI::App& add = declare(input, "add", "Add an input", "Example: zepctl input add udp://239.1.2.3:5000 3",
                            &TableCommands::addInput);
    add.add_option("URI", m_Uri, "address and port: udp://239.1.2.3:5000, or udp://239.1.2.3 for port 0")
        ->required();
    addNumber(add, "TSIIDX", m_TSIIDX, Zep::TSIIDX_RANGE, "index of the input")->required();
    declare(input, "remove", "Remove an input", "Example: zepctl input remove udp://239.1.2.3:5000",
            &TableCommands::removeInput)
        .add_option("URI", m_Uri, "as it was added")
        ->required();
    declare(input, "list", "Print the inputs, each as input add takes it",
            "Prints lines like\n  udp://239.1.2.3:5000 3\n\nExample: zepctl input list",
            &TableCommands::listInputs);
}

void TableCommands::addInput() {
    Zep::IpInEntry row = parseInputUri(m_Uri);
    row.setTSIIDX(m_TSIIDX);
    LockedDevice device(m_Tsio);
    InputTable(device.memory()).add(row);
}

void TableCommands::removeInput() {
    const Zep::IpInEntry row = parseInputUri(m_Uri);
    LockedDevice device(m_Tsio);
    InputTable(device.memory()).remove(row);
}

void TableCommands::listInputs() {
    printRows(InputTable(LockedDevice(m_Tsio).memory()).list(), formatInput);
}

void TableCommands::declareRoute(CLI::App& app) {
    CLI::App& route =
        *app.add_subcommand("route", "Change or list the routes, which are the rows of the PID LUT");
    route.require_subcommand(1);
    route.footer("Example: zepctl route add 3 0x100");
    CLI::App& add = declare(
        route, "add", "Route a PID of an input, by default to the CPU",
        "Example: zepctl route add 3 0x100\n         zepctl route add 3 256 --out --no-cpu --pididx 7",
        &TableCommands::addRoute);
    declareRouteKey(add);
    add.add_flag("--out", m_OutRoute, "set the out route as well");
    add.add_flag("--no-cpu", m_NoCpuRoute, "leave the CPU route out; needs --out");
    addNumber(add, "--pididx", m_PIDIDX, Zep::PIDIDX_RANGE,
              "PIDIDX, by default the lowest that no route has");
    addNumber(add, "--filter", m_FiltTabIDX, Zep::FILTTABIDX_RANGE, "FiltTabIDX, by default 255");
    declareRouteKey(declare(route, "remove", "Remove the routes of a PID of an input",
                            "Example: zepctl route remove 3 0x100", &TableCommands::removeRoute));
    declare(route, "list", "Print the routes, each as route add takes it",
            "Prints lines like\n  3 0x0100 --pididx 1 --filter 255\n\nExample: zepctl route list",
            &TableCommands::listRoutes);
}

void TableCommands::declareRouteKey(CLI::App& command) {
    addNumber(command, "TSIIDX", m_TSIIDX, Zep::TSIIDX_RANGE, "index of the input")->required();
    addNumber(command, "PID", m_PID, Zep::PID_RANGE, "packet identifier")->required();
}

void TableCommands::addRoute() {
    if (m_NoCpuRoute && !m_OutRoute) {
        throw CommandError(WRONG_USE,
                           "--no-cpu needs --out: a route needs the CPU route, the out route or both");
    }
    LockedDevice device(m_Router);
    RouteTable table(device.memory());
    table.add(Zep::PidLutEntry(m_TSIIDX, m_PID, m_PIDIDX ? *m_PIDIDX : table.findFreePididx(), m_FiltTabIDX,
                               m_OutRoute, !m_NoCpuRoute));
}

void TableCommands::removeRoute() {
    LockedDevice device(m_Router);
    RouteTable(device.memory()).remove(m_TSIIDX, m_PID);
}

void TableCommands::listRoutes() {
    printRows(RouteTable(LockedDevice(m_Router).memory()).list(), formatRoute);
}

void TableCommands::declareClear(CLI::App& app) {
    declare(app, "clear", "Remove all inputs, all routes, or both", "Example: zepctl clear routes",
            &TableCommands::clear)
        .add_option("TABLE", m_Table, "what to clear, by default both")
        ->check(CLI::IsMember({"inputs", "routes"}));
}

void TableCommands::clear() {
    if (m_Table != "inputs") {
        LockedDevice device(m_Router);
        RouteTable(device.memory()).clear();
    }
    if (m_Table != "routes") {
        LockedDevice device(m_Tsio);
        InputTable(device.memory()).clear();
    }
}

void TableCommands::declareDump(CLI::App& app) {
    constexpr Zep::Range ROWS{0, Zep::OPidMap::TABLE.rows};  // of the longest table
    CLI::App& dump =
        declare(app, "dump", "Print the rows of a table that are in use",
                "Of pidlut and physinmap, rows that are not cleared count as in use; a row of zeros is not "
                "cleared.\n\n"
                "Example: zepctl dump iplut\n         zepctl dump pidlut --first 0 --count 16 --all --bank 1",
                &TableCommands::dump);
    dump.add_option("TABLE", m_Table, "the table")->required()->check(CLI::IsMember(dumpTableNames()));
    addNumber(dump, "--first", m_Range.first, ROWS, "first row, by default that of the table");
    addNumber(dump, "--count", m_Range.count, ROWS, "number of rows, by default all that follow");
    addNumber(dump, "--bank", m_Range.bank, {0, 1},
              "the bank in use (0) or the other (1), by default the one in use");
    dump.add_flag("--all", m_Range.includeAll, "print the other rows as well");
}

void TableCommands::dump() {
    printOutput(dumpTable(m_Table, m_Range, m_Tsio, m_Router));
}

void TableCommands::listPorts() {
    const struct {
        const char* side;
        const char* name;
        std::uint32_t (*indexOf)(std::uint32_t number);
    } KINDS[] = {{"input", "tuner", Zep::getTunerPhysInIdx},
                 {"input", "cam", Zep::getCamPhysInIdx},
                 {"output", "modulator", Zep::getModulatorPhysOutIdx},
                 {"output", "cam", Zep::getCamPhysOutIdx}};
    std::map<std::pair<std::string, std::uint32_t>, std::string> names;  // by side and index
    for (const auto& kind : KINDS) {
        try {
            for (std::uint32_t number = 0;; ++number) {
                names[{kind.side, kind.indexOf(number)}] = kind.name + std::to_string(number);
            }
        } catch (const std::out_of_range&) {  // That was the last one: numbers have no gaps.
        }
    }
    std::string lines;
    for (const auto& [port, name] : names) {
        lines += fmt::format("{} {} {}\n", port.first, port.second, name);
    }
    printOutput(lines);
}

}  // namespace Vel::Zepctl
