#include <optional>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "command_line.h"
#include "command_result.h"
#include "commands.h"
#include "tables/device.h"
#include "tables/input_table.h"
#include "tables/route_table.h"
#include "tables/stand_ins.h"
#include "vel/cpp_utils/posix/file_descriptor.h"
#include "vel/userspace_drivers/drivers/zep/ts/portnames.h"
#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"

namespace Vel::Zepctl {

namespace Zep = Drivers::Zep;
using Json = nlohmann::ordered_json;

namespace {

Json jsonOf(const Zep::IpInEntry& input) {
    return {{"uri", buildInputUri(input)}, {"tsiidx", input.getTSIIDX()}};
}

Json jsonOf(const Zep::PidLutEntry& route) {
    return {{"tsiidx", route.getTSIIDX()},     {"pid", route.getPID()},
            {"pididx", route.getPIDIDX()},     {"cpu_route", route.isCpuRoute()},
            {"out_route", route.isOutRoute()}, {"filtidx", route.getFiltTabIDX()}};
}

/// To be called after the lock is released: the reader of the output may be slow, or need the lock itself.
template <typename Row>
void printRows(const std::vector<Row>& rows, std::string (*format)(const Row&), bool isJson) {
    std::string lines;
    Json array = Json::array();
    for (const Row& row : rows) {
        if (isJson) {
            array.push_back(jsonOf(row));
        } else {
            lines += format(row) + '\n';
        }
    }
    printOutput(isJson ? array.dump(2) + '\n' : lines);
}

void addJson(CLI::App& command, Arguments& args) {
    command.add_flag("--json", args.json, "print a JSON array with an object for each row");
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

/// Both devices are locked before either is changed.
void clearTables(const Arguments& args) {
    if (args.table.empty() && CppUtil::isSameFile(args.tsio, args.router)) {
        throw CommandError(WrongUse, args.tsio + " and " + args.router + " are the same file");
    }
    std::optional<LockedDevice> tsio;
    std::optional<LockedDevice> router;
    if (args.table != "routes") {
        tsio.emplace(args.tsio, Zep::TSIO_DEVICE, Access::Change);
    }
    if (args.table != "inputs") {
        router.emplace(args.router, Zep::ROUTER_DEVICE, Access::Change);
    }
    if (tsio) {
        InputTable(tsio->memory()).clear();
    }
    if (router) {
        RouteTable(router->memory()).clear();
    }
}

void declareCreate(CLI::App& app, Arguments& args) {
    CLI::App& create = declareCommand(
        app, "create", "Create files that stand in for the devices, with empty tables",
        "Prints the zeptfem command line that uses the files.\n\nExample: zepctl create /tmp/zep", [&] {
            createStandIns(args.directory, args.withFifo, args.force);
            printOutput(standInCommandLine(args.directory) + '\n');
        });
    create.add_option("DIR", args.directory, "directory for the files; created if missing")->required();
    create.add_flag("--fifo", args.withFifo, "also create the FIFO pktio");
    create.add_flag("--force", args.force, "clear existing files in place");
}

void declareInput(CLI::App& app, Arguments& args) {
    CLI::App& input =
        declareCommand(app, "input", "Change or list the inputs, which are the rows of the IP LUT",
                       "Example: zepctl input add udp://239.1.2.3:5000 3");
    input.require_subcommand(1);

    CLI::App& add =
        declareCommand(input, "add", "Add an input", "Example: zepctl input add udp://239.1.2.3:5000 3", [&] {
            Zep::IpInEntry row = parseInputUri(args.uri);
            row.setTSIIDX(*args.tsiidx);
            LockedDevice device(args.tsio, Zep::TSIO_DEVICE, Access::Change);
            InputTable(device.memory()).add(row);
        });
    add.add_option("URI", args.uri, "address and port: udp://239.1.2.3:5000, or udp://239.1.2.3 for port 0")
        ->required();
    addNumber(add, "TSIIDX", args.tsiidx, Zep::TSIIDX_RANGE, "index of the input").required();

    CLI::App& remove = declareCommand(input, "remove", "Remove an input",
                                      "Example: zepctl input remove udp://239.1.2.3:5000", [&] {
                                          const Zep::IpInEntry row = parseInputUri(args.uri);
                                          LockedDevice device(args.tsio, Zep::TSIO_DEVICE, Access::Change);
                                          InputTable(device.memory()).remove(row);
                                      });
    remove.add_option("URI", args.uri, "as input list prints it")->required();

    CLI::App& list = declareCommand(
        input, "list", "Print the inputs in the form that input add accepts",
        "Prints lines like\n  udp://239.1.2.3:5000 3\n\nExample: zepctl input list", [&] {
            const InputTable table(LockedDevice(args.tsio, Zep::TSIO_DEVICE, Access::Read).memory());
            printRows(table.list(), formatInput, args.json);
            table.checkOrder();
        });
    addJson(list, args);
}

void declareRouteKey(CLI::App& command, Arguments& args) {
    addNumber(command, "TSIIDX", args.tsiidx, Zep::TSIIDX_RANGE, "index of the input").required();
    addNumber(command, "PID", args.pid, Zep::PID_RANGE, "packet identifier").required();
}

void declareRoute(CLI::App& app, Arguments& args) {
    CLI::App& route =
        declareCommand(app, "route", "Change or list the routes, which are the rows of the PID LUT",
                       "Example: zepctl route add 3 0x100");
    route.require_subcommand(1);

    CLI::App& add = declareCommand(
        route, "add", "Route a PID of an input, by default to the CPU",
        "Example: zepctl route add 3 0x100\n         zepctl route add 3 256 --out --no-cpu --pididx 7", [&] {
            LockedDevice device(args.router, Zep::ROUTER_DEVICE, Access::Change);
            RouteTable table(device.memory());
            table.add({*args.tsiidx, *args.pid, args.pididx ? *args.pididx : table.findFreePididx(),
                       args.filtTabIdx.value_or(Zep::FILTTABIDX_RANGE.max), args.outRoute, !args.noCpuRoute});
        });
    declareRouteKey(add, args);
    CLI::Option* out = add.add_flag("--out", args.outRoute, "also set the out route");
    add.add_flag("--no-cpu", args.noCpuRoute, "do not set the CPU route")->needs(out);
    addNumber(add, "--pididx", args.pididx, Zep::PIDIDX_RANGE,
              "row of the O-PID MAP (default: lowest unused)");
    addNumber(add, "--filter", args.filtTabIdx, Zep::FILTTABIDX_RANGE,
              "index of a filter table (default: 255)");

    CLI::App& remove =
        declareCommand(route, "remove", "Remove the routes of a PID of an input",
                       "Example: zepctl route remove 3 0x100", [&] {
                           LockedDevice device(args.router, Zep::ROUTER_DEVICE, Access::Change);
                           RouteTable(device.memory()).remove(*args.tsiidx, *args.pid);
                       });
    declareRouteKey(remove, args);

    CLI::App& list = declareCommand(
        route, "list", "Print the routes in the form that route add accepts",
        "Prints lines like\n  3 0x0100 --pididx 1 --filter 255\n\nExample: zepctl route list", [&] {
            const RouteTable table(LockedDevice(args.router, Zep::ROUTER_DEVICE, Access::Read).memory());
            printRows(table.list(), formatRoute, args.json);
        });
    addJson(list, args);
}

}  // namespace

void declareTableCommands(CLI::App& app, Arguments& args) {
    declareCreate(app, args);
    declareInput(app, args);
    declareRoute(app, args);
    CLI::App& clear = declareCommand(app, "clear", "Remove all inputs or all routes; without argument, both",
                                     "Example: zepctl clear routes", [&] { clearTables(args); });
    clear.add_option("TABLE", args.table, "what to clear (default: both)")
        ->check(CLI::IsMember({"inputs", "routes"}));
    declareDump(app, args);
    declareCommand(app, "ports", "Print direction, index and name of each physical port",
                   "Prints lines like\n  input 0 tuner0\n\nExample: zepctl ports", printPorts);
}

}  // namespace Vel::Zepctl
