#include "tables/table_commands.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "command_error.h"
#include "tables/input_table.h"
#include "tables/locked_device.h"
#include "tables/number.h"
#include "tables/route_table.h"
#include "tables/row_text.h"
#include "tables/stand_in.h"
#include "tables/table_dump.h"
#include "vel/userspace_drivers/drivers/zep/ts/portnames.h"
#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"

namespace Vel::Zepctl {

namespace {

namespace Zep = Drivers::Zep;

/// Filled by the options in front of the command, so read in its callback only.
struct Devices {
    Device tsio{Zep::TSIO_DEVICE.path, Zep::TSIO_DEVICE.size};
    Device router{Zep::ROUTER_DEVICE.path, Zep::ROUTER_DEVICE.size};
};
using SharedDevices = std::shared_ptr<const Devices>;

// Arguments of a command are shared by its options, which fill them, and its callback.

template <typename Number>
CLI::Option* addNumber(CLI::App& command, const std::string& name, Number& number, const Zep::Range& range,
                       const std::string& help) {
    const auto parse = [&number, name, range](const std::string& text) {
        number = parseNumber(name, text, range);
    };
    return command
        .add_option_function<std::string>(
            name, parse, std::to_string(range.min) + " to " + std::to_string(range.max) + ": " + help)
        ->type_name("N");
}

void addCreate(CLI::App& app) {
    struct Arguments {
        std::string directory;
        bool withFifo = false;
        bool force = false;
    };
    const auto arguments = std::make_shared<Arguments>();
    CLI::App* create =
        app.add_subcommand("create", "Make files that stand in for the devices, with empty tables");
    create
        ->add_option("DIR", arguments->directory,
                     "where the files tsio and router go, made where it is missing")
        ->required();
    create->add_flag("--fifo", arguments->withFifo, "make the FIFO pktio as well");
    create->add_flag("--force", arguments->force, "empty files that exist, in place");
    create->footer(
        "Prints the command line of an emulator that uses the files.\n\nExample: zepctl create /tmp/zep");
    create->callback([arguments] {
        createStandIns(arguments->directory, arguments->withFifo, arguments->force);
        printOutput(standInCommandLine(arguments->directory) + '\n');
    });
}

void addInputAdd(CLI::App& input, const SharedDevices& devices) {
    struct Arguments {
        std::string uri;
        std::uint32_t tsiidx = 0;
    };
    const auto arguments = std::make_shared<Arguments>();
    CLI::App* add = input.add_subcommand("add", "Add an input");
    add->add_option("URI", arguments->uri,
                    "address and port: udp://239.1.2.3:5000, or udp://239.1.2.3 for port 0")
        ->required();
    addNumber(*add, "TSIIDX", arguments->tsiidx, Zep::TSIIDX_RANGE, "index of the input")->required();
    add->footer("Example: zepctl input add udp://239.1.2.3:5000 3");
    add->callback([arguments, devices] {
        Zep::IpInEntry row = parseInputUri(arguments->uri);
        row.setTSIIDX(arguments->tsiidx);
        LockedDevice device(devices->tsio);
        InputTable(device.memory()).add(row);
    });
}

void addInputRemove(CLI::App& input, const SharedDevices& devices) {
    const auto uri = std::make_shared<std::string>();
    CLI::App* remove = input.add_subcommand("remove", "Remove an input");
    remove->add_option("URI", *uri, "as it was added")->required();
    remove->footer("Example: zepctl input remove udp://239.1.2.3:5000");
    remove->callback([uri, devices] {
        const Zep::IpInEntry row = parseInputUri(*uri);
        LockedDevice device(devices->tsio);
        InputTable(device.memory()).remove(row);
    });
}

void addInputList(CLI::App& input, const SharedDevices& devices) {
    CLI::App* list = input.add_subcommand("list", "Print the inputs, each as input add takes it");
    list->footer("Prints lines like\n  udp://239.1.2.3:5000 3\n\nExample: zepctl input list");
    list->callback([devices] {
        const auto inputs = InputTable(LockedDevice(devices->tsio).memory()).list();
        std::string lines;
        for (const Zep::IpInEntry& row : inputs) {
            lines += formatInput(row) + '\n';
        }
        printOutput(lines);
    });
}

void addInput(CLI::App& app, const SharedDevices& devices) {
    CLI::App* input =
        app.add_subcommand("input", "Change or list the inputs, which are the rows of the IP LUT");
    input->require_subcommand(1);
    input->footer("Example: zepctl input add udp://239.1.2.3:5000 3");
    addInputAdd(*input, devices);
    addInputRemove(*input, devices);
    addInputList(*input, devices);
}

void addRouteAdd(CLI::App& route, const SharedDevices& devices) {
    struct Arguments {
        std::uint32_t tsiidx = 0;
        std::uint32_t pid = 0;
        std::optional<std::uint32_t> pididx;
        std::uint32_t filter = Zep::FILTTABIDX_RANGE.max;
        bool toOutput = false;
        bool notToCpu = false;
    };
    const auto arguments = std::make_shared<Arguments>();
    CLI::App* add = route.add_subcommand("add", "Route a PID of an input, to the CPU unless told otherwise");
    addNumber(*add, "TSIIDX", arguments->tsiidx, Zep::TSIIDX_RANGE, "index of the input")->required();
    addNumber(*add, "PID", arguments->pid, Zep::PID_RANGE, "packet identifier")->required();
    add->add_flag("--out", arguments->toOutput, "set the out route as well");
    add->add_flag("--no-cpu", arguments->notToCpu, "leave the CPU route out; needs --out");
    addNumber(*add, "--pididx", arguments->pididx, Zep::PIDIDX_RANGE,
              "PIDIDX, by default the lowest that no route has");
    addNumber(*add, "--filter", arguments->filter, Zep::FILTTABIDX_RANGE, "FiltTabIDX, by default 255");
    add->footer(
        "Example: zepctl route add 3 0x100\n         zepctl route add 3 256 --out --no-cpu --pididx 7");
    add->callback([arguments, devices] {
        if (arguments->notToCpu && !arguments->toOutput) {
            throw CommandError(WRONG_USE,
                               "--no-cpu needs --out: a route needs the CPU route, the out route or both");
        }
        LockedDevice device(devices->router);
        RouteTable table(device.memory());
        const std::uint32_t pididx = arguments->pididx ? *arguments->pididx : table.findFreePididx();
        table.add(Zep::PidLutEntry(arguments->tsiidx, arguments->pid, pididx, arguments->filter,
                                   arguments->toOutput, !arguments->notToCpu));
    });
}

void addRouteRemove(CLI::App& route, const SharedDevices& devices) {
    struct Arguments {
        std::uint32_t tsiidx = 0;
        std::uint32_t pid = 0;
    };
    const auto arguments = std::make_shared<Arguments>();
    CLI::App* remove = route.add_subcommand("remove", "Remove the routes of a PID of an input");
    addNumber(*remove, "TSIIDX", arguments->tsiidx, Zep::TSIIDX_RANGE, "index of the input")->required();
    addNumber(*remove, "PID", arguments->pid, Zep::PID_RANGE, "packet identifier")->required();
    remove->footer("Example: zepctl route remove 3 0x100");
    remove->callback([arguments, devices] {
        LockedDevice device(devices->router);
        RouteTable(device.memory()).remove(arguments->tsiidx, arguments->pid);
    });
}

void addRouteList(CLI::App& route, const SharedDevices& devices) {
    CLI::App* list = route.add_subcommand("list", "Print the routes, each as route add takes it");
    list->footer("Prints lines like\n  3 0x0100 --pididx 1 --filter 255\n\nExample: zepctl route list");
    list->callback([devices] {
        const auto routes = RouteTable(LockedDevice(devices->router).memory()).list();
        std::string lines;
        for (const Zep::PidLutEntry& row : routes) {
            lines += formatRoute(row) + '\n';
        }
        printOutput(lines);
    });
}

void addRoute(CLI::App& app, const SharedDevices& devices) {
    CLI::App* route =
        app.add_subcommand("route", "Change or list the routes, which are the rows of the PID LUT");
    route->require_subcommand(1);
    route->footer("Example: zepctl route add 3 0x100");
    addRouteAdd(*route, devices);
    addRouteRemove(*route, devices);
    addRouteList(*route, devices);
}

void addClear(CLI::App& app, const SharedDevices& devices) {
    const auto which = std::make_shared<std::string>();
    CLI::App* clear = app.add_subcommand("clear", "Remove all inputs, all routes, or both");
    clear->add_option("TABLE", *which, "what to clear, by default both")
        ->check(CLI::IsMember({"inputs", "routes"}));
    clear->footer("Example: zepctl clear routes");
    clear->callback([which, devices] {
        if (*which != "inputs") {
            LockedDevice device(devices->router);
            RouteTable(device.memory()).clear();
        }
        if (*which != "routes") {
            LockedDevice device(devices->tsio);
            InputTable(device.memory()).clear();
        }
    });
}

void addDump(CLI::App& app, const SharedDevices& devices) {
    struct Arguments {
        std::string table;
        DumpRange range;
    };
    const auto arguments = std::make_shared<Arguments>();
    constexpr Zep::Range ROWS{
        0, Zep::OPidMap::TABLE.rows};  // of the longest table; each refuses what it has not
    CLI::App* dump = app.add_subcommand("dump", "Print the rows of a table that are in use");
    dump->add_option("TABLE", arguments->table, "the table")
        ->required()
        ->check(CLI::IsMember(dumpTableNames()));
    addNumber(*dump, "--first", arguments->range.first, ROWS, "first row, by default that of the table");
    addNumber(*dump, "--count", arguments->range.count, ROWS, "number of rows, by default all that follow");
    addNumber(*dump, "--bank", arguments->range.bank, {0, 1},
              "the bank in use (0) or the other (1), by default the one in use");
    dump->add_flag("--all", arguments->range.includeAll, "print the other rows as well");
    dump->footer(
        "Of pidlut and physinmap, rows that are not cleared count as in use; a row of zeros is not "
        "cleared.\n\n"
        "Example: zepctl dump iplut\n         zepctl dump pidlut --first 0 --count 16 --all --bank 1");
    dump->callback([arguments, devices] {
        const Device& device = isTsioTable(arguments->table) ? devices->tsio : devices->router;
        // Printed when the lock is free again: who reads the output may take his time.
        const std::string lines =
            dumpTable(arguments->table, LockedDevice(device).memory(), arguments->range);
        printOutput(lines);
    });
}

/// A kind of port is numbered from 0 on, without gaps.
void collectPorts(std::map<std::uint32_t, std::string>& names, const std::string& kind,
                  std::uint32_t (*indexOf)(std::uint32_t number)) {
    try {
        for (std::uint32_t number = 0;; ++number) {
            names[indexOf(number)] = kind + std::to_string(number);
        }
    } catch (const std::out_of_range&) {
        return;  // That was the last one.
    }
}

void addPorts(CLI::App& app) {
    CLI::App* ports = app.add_subcommand("ports", "Print side, index and name of the physical ports");
    ports->footer("Prints lines like\n  input 0 tuner0\n\nExample: zepctl ports");
    ports->callback([] {
        std::map<std::uint32_t, std::string> inputs;
        collectPorts(inputs, "tuner", Zep::getTunerPhysInIdx);
        collectPorts(inputs, "cam", Zep::getCamPhysInIdx);
        std::map<std::uint32_t, std::string> outputs;
        collectPorts(outputs, "modulator", Zep::getModulatorPhysOutIdx);
        collectPorts(outputs, "cam", Zep::getCamPhysOutIdx);
        std::string lines;
        for (const auto& [index, name] : inputs) {
            lines += "input " + std::to_string(index) + ' ' + name + '\n';
        }
        for (const auto& [index, name] : outputs) {
            lines += "output " + std::to_string(index) + ' ' + name + '\n';
        }
        printOutput(lines);
    });
}

}  // namespace

void addTableCommands(CLI::App& app) {
    const auto devices = std::make_shared<Devices>();
    app.add_option("-t,--tsio_dev", devices->tsio.path, "device or file that holds the IP LUT")
        ->type_name("PATH")
        ->capture_default_str();
    app.add_option("-r,--router_dev", devices->router.path, "device or file that holds the PID LUT")
        ->type_name("PATH")
        ->capture_default_str();
    addCreate(app);
    addInput(app, devices);
    addRoute(app, devices);
    addClear(app, devices);
    addDump(app, devices);
    addPorts(app);
}

}  // namespace Vel::Zepctl
