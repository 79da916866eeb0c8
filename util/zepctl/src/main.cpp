#include <fcntl.h>

#include <algorithm>
#include <exception>
#include <iostream>
#include <sstream>
#include <string>

#include <CLI/CLI.hpp>

#include "command_error.h"
#include "records/record_commands.h"
#include "tables/table_commands.h"
#include "vel/cpp_utils/error.h"
#include "vel/cpp_utils/posix/file_descriptor.h"
#include "vel/userspace_drivers/interfaces/lindevmemaccessor.h"
#include "vel/userspace_drivers/interfaces/pci/pciif.h"

namespace {

using namespace Vel::Zepctl;

int fail(ExitStatus status, std::string line) {
    // What was typed may stand in it: keep it one line, and control sequences from the terminal.
    std::ranges::replace_if(
        line, [](unsigned char c) { return c < 0x20 || c == 0x7F; }, '?');
    std::cerr << "zepctl: " << line << '\n';
    return status;
}

void runCommand(CLI::App& app, int argc, char** argv) {
    try {
        app.parse(argc, argv);  // runs the command as well
    } catch (const CLI::Success& success) {
        std::ostringstream help;
        app.exit(success, help);
        Vel::Zepctl::printOutput(help.str());
    }
}

/// The library takes a mistyped command for a missing one. Says which word is no command, and which there
/// are; empty when no word is left over.
std::string describeUnknownCommand(const CLI::App& app) {
    const CLI::App* parent = &app;
    while (!parent->get_subcommands().empty()) {
        parent = parent->get_subcommands().front();
    }
    const auto rest = parent->remaining(true);
    if (rest.empty() || parent->get_require_subcommand_min() == 0) {
        return "";
    }
    std::string names;
    for (const CLI::App* command : parent->get_subcommands({})) {
        names += (names.empty() ? "" : ", ") + command->get_name();
    }
    return "\"" + rest.front() + "\" is not a command of " + parent->get_name() + "; the commands are " +
           names;
}

int run(CLI::App& app, int argc, char** argv) {
    try {
        runCommand(app, argc, argv);
        return DONE;
    } catch (const CLI::RequiredError& error) {
        const std::string unknown = describeUnknownCommand(app);
        return fail(WRONG_USE, unknown.empty() ? error.what() : unknown);
    } catch (const CLI::ParseError& error) {
        return fail(WRONG_USE, error.what());
    } catch (const CommandError& error) {
        return fail(error.getStatus(), error.what());
    } catch (const Vel::Pci::PciError& error) {
        return fail(DEVICE_UNUSABLE, error.getMessage());
    } catch (const Vel::Drivers::DevMemError& error) {
        return fail(DEVICE_UNUSABLE, error.getMessage());
    } catch (const Vel::Error& error) {  // of a text or a value that was given
        return fail(WRONG_USE, error.getMessage());
    }
}

}  // namespace

int main(int argc, char** argv) {
    // Read-only, so that printing to a descriptor that the parent closed still fails.
    Vel::CppUtil::occupyStandardDescriptors(O_RDONLY);
    try {
        CLI::App app(
            "Make, change and show the tables of the transport stream hardware, and look at its records",
            "zepctl");
        app.require_subcommand(1);
        app.footer(
            "Exit status: 0 done, 1 the checked stream is faulty, 2 wrong use or a value out of range,\n"
            "3 a file or device cannot be used.\n\n"
            "Example: zepctl create /tmp/zep\n"
            "         zepctl -t /tmp/zep/tsio input add udp://239.1.2.3:5000 3\n"
            "         zepctl -r /tmp/zep/router route add 3 0x100");
        const TableCommands tableCommands(app);
        const RecordCommands recordCommands(app);
        return run(app, argc, argv);
    } catch (const std::exception& error) {
        return fail(DEVICE_UNUSABLE, error.what());
    }
}
