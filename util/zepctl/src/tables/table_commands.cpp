#include "tables/table_commands.h"

#include <optional>
#include <vector>

#include <fmt/format.h>

#include "command_error.h"
#include "command_line.h"
#include "print_output.h"
#include "tables/device.h"
#include "tables/input_table.h"
#include "tables/route_table.h"
#include "tables/row_text.h"
#include "tables/stand_ins.h"
#include "vel/cpp_utils/posix/file_descriptor.h"
#include "vel/userspace_drivers/drivers/zep/ts/portnames.h"
#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"

namespace Vel::Zepctl {

namespace Zep = Drivers::Zep;

namespace {

/// To be called after the lock is released: the reader of the output may be slow, or need the lock itself.
template <typename Row>
void printRows(const std::vector<Row>& rows, std::string (*format)(const Row&)) {
    std::string lines;
    for (const Row& row : rows) {
        lines += format(row) + '\n';
    }
    printOutput(lines);
}

void printPorts() {
    std::string lines;
    for (const auto& [index, name] : Zep::getPhysInNames()) {
        lines += fmt::format("input {} {}\n", index, name);
    }
    for (const auto& [index, name] : Zep::getPhysOutNames()) {
        lines += fmt::format("output {} {}\n", index, name);
    }
    printOutput(lines);
}

}  // namespace

TableCommands::TableCommands(CLI::App& app, const DevicePaths& devices) : m_Devices(devices) {
    declareCreate(app);
    declareInput(app);
    declareRoute(app);
    CLI::App& clear = declareCommand(app, "clear", "Remove all inputs or all routes; without argument, both",
                                     "Example: zepctl clear routes", [this] { clearTables(); });
    clear.add_option("TABLE", m_Table, "what to clear (default: both)")
        ->check(CLI::IsMember({"inputs", "routes"}));
    declareDump(app);
    declareCommand(app, "ports", "Print direction, index and name of each physical port",
                   "Prints lines like\n  input 0 tuner0\n\nExample: zepctl ports", printPorts);
}

void TableCommands::declareCreate(CLI::App& app) {
    CLI::App& create = declareCommand(
        app, "create", "Create files that stand in for the devices, with empty tables",
        "Prints the zeptfem command line that uses the files.\n\nExample: zepctl create /tmp/zep", [this] {
            createStandIns(m_Directory, m_WithFifo, m_Force);
            printOutput(standInCommandLine(m_Directory, m_WithFifo) + '\n');
        });
    create.add_option("DIR", m_Directory, "directory for the files; created if missing")->required();
    create.add_flag("--fifo", m_WithFifo, "also create the FIFO pktio");
    create.add_flag("--force", m_Force, "clear existing files in place");
}

void TableCommands::declareInput(CLI::App& app) {
    CLI::App& input =
        *app.add_subcommand("input", "Change or list the inputs, which are the rows of the IP LUT");
    input.require_subcommand(1);
    input.footer("Example: zepctl input add udp://239.1.2.3:5000 3");

    CLI::App& add = declareCommand(input, "add", "Add an input",
                                   "Example: zepctl input add udp://239.1.2.3:5000 3", [this] {
                                       Zep::IpInEntry row = parseInputUri(m_Uri);
                                       row.setTSIIDX(*m_TSIIDX);
                                       LockedDevice device(m_Devices.tsio, Zep::TSIO_DEVICE, Access::Change);
                                       InputTable(device.memory()).add(row);
                                   });
    add.add_option("URI", m_Uri, "address and port: udp://239.1.2.3:5000, or udp://239.1.2.3 for port 0")
        ->required();
    addNumber(add, "TSIIDX", m_TSIIDX, Zep::TSIIDX_RANGE, "index of the input").required();

    CLI::App& remove = declareCommand(
        input, "remove", "Remove an input", "Example: zepctl input remove udp://239.1.2.3:5000", [this] {
            const Zep::IpInEntry row = parseInputUri(m_Uri);
            LockedDevice device(m_Devices.tsio, Zep::TSIO_DEVICE, Access::Change);
            InputTable(device.memory()).remove(row);
        });
    remove.add_option("URI", m_Uri, "as input list prints it")->required();

    declareCommand(
        input, "list", "Print the inputs in the form that input add accepts",
        "Prints lines like\n  udp://239.1.2.3:5000 3\n\nExample: zepctl input list", [this] {
            const InputTable table(LockedDevice(m_Devices.tsio, Zep::TSIO_DEVICE, Access::Read).memory());
            printRows(table.list(), formatInput);
            table.checkOrder();
        });
}

void TableCommands::declareRoute(CLI::App& app) {
    CLI::App& route =
        *app.add_subcommand("route", "Change or list the routes, which are the rows of the PID LUT");
    route.require_subcommand(1);
    route.footer("Example: zepctl route add 3 0x100");

    CLI::App& add = declareCommand(
        route, "add", "Route a PID of an input, by default to the CPU",
        "Example: zepctl route add 3 0x100\n         zepctl route add 3 256 --out --no-cpu --pididx 7",
        [this] {
            LockedDevice device(m_Devices.router, Zep::ROUTER_DEVICE, Access::Change);
            RouteTable table(device.memory());
            table.add({*m_TSIIDX, *m_PID, m_PIDIDX ? *m_PIDIDX : table.findFreePididx(),
                       m_FiltTabIDX.value_or(Zep::FILTTABIDX_RANGE.max), m_OutRoute, !m_NoCpuRoute});
        });
    declareRouteKey(add);
    CLI::Option* out = add.add_flag("--out", m_OutRoute, "also set the out route");
    add.add_flag("--no-cpu", m_NoCpuRoute, "do not set the CPU route")->needs(out);
    addNumber(add, "--pididx", m_PIDIDX, Zep::PIDIDX_RANGE, "row of the O-PID MAP (default: lowest unused)");
    addNumber(add, "--filter", m_FiltTabIDX, Zep::FILTTABIDX_RANGE, "index of a filter table (default: 255)");

    declareRouteKey(declareCommand(route, "remove", "Remove the routes of a PID of an input",
                                   "Example: zepctl route remove 3 0x100", [this] {
                                       LockedDevice device(m_Devices.router, Zep::ROUTER_DEVICE,
                                                           Access::Change);
                                       RouteTable(device.memory()).remove(*m_TSIIDX, *m_PID);
                                   }));

    declareCommand(
        route, "list", "Print the routes in the form that route add accepts",
        "Prints lines like\n  3 0x0100 --pididx 1 --filter 255\n\nExample: zepctl route list", [this] {
            const RouteTable table(LockedDevice(m_Devices.router, Zep::ROUTER_DEVICE, Access::Read).memory());
            printRows(table.list(), formatRoute);
        });
}

void TableCommands::declareRouteKey(CLI::App& command) {
    addNumber(command, "TSIIDX", m_TSIIDX, Zep::TSIIDX_RANGE, "index of the input").required();
    addNumber(command, "PID", m_PID, Zep::PID_RANGE, "packet identifier").required();
}

/// Both devices are locked before either is changed.
void TableCommands::clearTables() {
    if (m_Table.empty() && CppUtil::isSameFile(m_Devices.tsio, m_Devices.router)) {
        throw CommandError(WrongUse, m_Devices.tsio + " and " + m_Devices.router + " are the same file");
    }
    std::optional<LockedDevice> tsio;
    std::optional<LockedDevice> router;
    if (m_Table != "routes") {
        tsio.emplace(m_Devices.tsio, Zep::TSIO_DEVICE, Access::Change);
    }
    if (m_Table != "inputs") {
        router.emplace(m_Devices.router, Zep::ROUTER_DEVICE, Access::Change);
    }
    if (tsio) {
        InputTable(tsio->memory()).clear();
    }
    if (router) {
        RouteTable(router->memory()).clear();
    }
}

void TableCommands::declareDump(CLI::App& app) {
    constexpr std::uint32_t ROWS = Zep::OPidMap::TABLE.rows;  // of the longest table
    CLI::App& dump = declareCommand(
        app, "dump", "Print the rows of a table that are not empty",
        "An empty row of pidlut or physinmap holds a fill value, not zeros. An all-zero row is therefore\n"
        "printed. In pidlut it routes nothing; in physinmap it is in use and feeds input 0.\n\n"
        "Example: zepctl dump iplut\n         zepctl dump pidlut --first 0 --count 16 --all --bank 1",
        [this] { printOutput(dumpTable(m_Table, m_DumpOptions, m_Devices.tsio, m_Devices.router)); });
    dump.add_option("TABLE", m_Table, "the table")->required()->check(CLI::IsMember(dumpTableNames()));
    addNumber(dump, "--first", m_DumpOptions.first, {0, ROWS - 1},
              "first row (default: first row of the table)");
    addNumber(dump, "--count", m_DumpOptions.count, {0, ROWS},
              "number of rows to read (default: all that follow)");
    addNumber(dump, "--bank", m_DumpOptions.bank, {0, 1},
              "bank of pidlut; 0: in use (default), 1: the other, whatever the value of the bank select bit");
    dump.add_flag("--all", m_DumpOptions.includeAll, "also print empty rows");
}

}  // namespace Vel::Zepctl
