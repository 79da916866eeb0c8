#include <fcntl.h>

#include <csignal>
#include <exception>
#include <sstream>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "arguments.h"
#include "command_result.h"
#include "commands.h"
#include "vel/cpp_utils/error.h"
#include "vel/cpp_utils/posix/file_descriptor.h"
#include "vel/cpp_utils/text.h"

namespace {

using namespace Vel::Zepctl;

/// The command of `parent` with that name. Throws CommandError, which names the commands, if there is none.
const CLI::App* findCommand(const CLI::App* parent, const std::string& name) {
    std::string names;
    for (const CLI::App* command : parent->get_subcommands({})) {
        if (command->get_name() == name) {
            return command;
        }
        names += (names.empty() ? "" : ", ") + command->get_name();
    }
    throw CommandError(WrongUse, fmt::format("\"{}\" is not a command of {}; the commands are {}", name,
                                             parent->get_name(), names.empty() ? "none" : names));
}

void declareHelp(CLI::App& app) {
    CLI::App& help = *app.add_subcommand("help", "Print the help of a command");
    help.footer("Example: zepctl help input add");
    const CLI::Option& words =
        *help.add_option("COMMAND", "the command (default: zepctl)")->expected(-1)->take_all();
    help.callback([&] {
        const CLI::App* command = &app;
        std::string name = app.get_name();
        for (const std::string& word : words.results()) {
            command = findCommand(command, word);
            name += ' ' + word;
        }
        printOutput(command->get_formatter()->make_help(command, name, CLI::AppFormatMode::Normal));
    });
}

void parse(CLI::App& app, int argc, char** argv) {
    try {
        app.parse(argc, argv);  // runs the command as well
    } catch (const CLI::Success& success) {
        std::ostringstream helpOrVersion;
        app.exit(success, helpOrVersion, helpOrVersion);
        printOutput(helpOrVersion.str());
    } catch (const CLI::RequiredError&) {
        // CLI11 reports a mistyped command as a missing one.
        const CLI::App* parent = &app;
        while (!parent->get_subcommands().empty()) {
            parent = parent->get_subcommands().front();
        }
        const auto rest = app.remaining(true);
        if (!rest.empty() && parent->get_require_subcommand_min() != 0) {
            findCommand(parent, rest.front());
        }
        throw;
    }
}

void run(int argc, char** argv) {
    CLI::App app("Create, edit and show the tables of the transport stream FPGA, and inspect its records",
                 "zepctl");
    app.set_version_flag("-V,--version", ZEPCTL_NAME_AND_VERSION, "Print name and version and exit");
    app.require_subcommand(1);
    app.fallthrough();  // global options may follow the command
    app.footer(
        "Exit status: 0 success, 1 check or watch found faults, or split skipped records,\n"
        "2 usage error, value out of range, or request that does not fit the present state,\n"
        "3 a file or device cannot be used.\n\n"
        "Example: zepctl create /tmp/zep\n"
        "         zepctl -d /tmp/zep input add udp://239.1.2.3:5000 3\n"
        "         zepctl -d /tmp/zep route add 3 0x100");
    Arguments args(app);
    declareTableCommands(app, args);
    declareRecordCommands(app, args);
    declareRun(app, args);
    declareHelp(app);
    parse(app, argc, argv);
}

int fail(ExitStatus status, const std::string& line) {
    // Any text may contain user input: keep it on one line and control sequences away from the terminal.
    Vel::CppUtil::writeError("zepctl: " + Vel::CppUtil::escapeControls(line) + '\n');
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGXFSZ, SIG_IGN);  // a file size limit is then reported as an error
    // Read-only, so that printing to a descriptor that the parent closed still fails.
    Vel::CppUtil::occupyStandardDescriptors(O_RDONLY);
    try {
        run(argc, argv);
        return Done;
    } catch (const CLI::RuntimeError& ended) {
        return ended.get_exit_code();  // of the program that the run command has started
    } catch (const CLI::ParseError& error) {
        return fail(WrongUse, error.what());
    } catch (const CommandError& error) {
        return fail(error.getStatus(), error.what());
    } catch (const Vel::CppUtil::InvalidArgumentError& error) {
        return fail(WrongUse, error.getMessage());
    } catch (const Vel::Error& error) {  // of a device
        return fail(DeviceUnusable, error.getMessage());
    } catch (const std::exception& error) {
        return fail(DeviceUnusable, error.what());
    }
}
