#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <map>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "command_line.h"
#include "command_result.h"
#include "commands.h"
#include "plain_file.h"

namespace Vel::Zepctl {

namespace {

using Words = std::vector<std::string>;

/// Reports in one line what keeps bwrap from working, so that standard error is left to the program.
void requireBwrap() {
    std::FILE* trial = ::popen("trap '' HUP INT TERM; bwrap --dev-bind / / --tmpfs /dev true 2>&1", "r");
    std::string reason(400, '\0');
    const bool hasReason = trial != nullptr && std::fgets(reason.data(), 400, trial) != nullptr;
    if (trial == nullptr || ::pclose(trial) != 0 || hasReason) {
        throw CommandError(
            DeviceUnusable,
            "Cannot use bwrap (" +
                (hasReason ? reason.substr(0, reason.find_first_of(std::string("\n\0", 2))) : "no message") +
                "); install the package bubblewrap, and "
                "start a container with --privileged, or with the stand-ins mounted at the device paths");
    }
}

/// The command line of bwrap for a /dev with the stand-ins and all other nodes of this one.
Words describeDev(const Arguments& args) {
    const std::map<std::string, std::string> standIns = {{Drivers::Zep::TSIO_DEVICE.path, args.tsio},
                                                         {Drivers::Zep::ROUTER_DEVICE.path, args.router},
                                                         {Drivers::Zep::PKTIO_DEVICE_PATH, args.getPktio()}};
    Words words = {"bwrap", "--die-with-parent", "--dev-bind", "/", "/", "--tmpfs", "/dev"};
    for (const auto& node : std::filesystem::directory_iterator("/dev")) {
        const std::string path = node.path();
        const std::string target = node.is_symlink() ? std::filesystem::read_symlink(path).string() : "";
        if (!standIns.contains(path)) {
            words.insert(words.end(), {target.empty() ? "--dev-bind-try" : "--symlink",
                                       target.empty() ? path : target, path});
        }
    }
    for (const auto& [path, standIn] : standIns) {
        words.insert(words.end(), {"--dev-bind", requireExisting(standIn), path});
    }
    if (::geteuid() == 0) {
        words.insert(words.end(), {"--cap-add", "ALL"});  // bwrap drops them otherwise
    }
    return words;
}

/// Runs the program and returns its exit status. bwrap does not pass on signals, so it has them blocked. So
/// has the program, until env unblocks them there: no signal is lost.
int run(const Arguments& args, const Words& program) {
    Words words = describeDev(args);
    words.insert(words.end(), {"env", "--default-signal=HUP,INT,TERM,CHLD,XFSZ"});
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGCHLD}) {
        sigaddset(&signals, signal);
        ::sigprocmask(SIG_BLOCK, &signals, nullptr);
        if (std::signal(signal, SIG_DFL) == SIG_IGN) {
            words.push_back(fmt::format("--ignore-signal={}", signal));
        }
    }
    requireBwrap();

    int pipe[2] = {};  // for bwrap's report
    if (::pipe2(pipe, O_CLOEXEC) != 0) {
        throw systemError("Cannot create a pipe");
    }
    words.insert(words.begin() + 1, {"--info-fd", std::to_string(pipe[1])});
    words.emplace_back("--");
    words.insert(words.end(), program.begin(), program.end());
    std::vector<char*> argv;
    std::transform(words.begin(), words.end(), std::back_inserter(argv),
                   [](auto& word) { return word.data(); });
    argv.push_back(nullptr);
    const pid_t zepctl = ::getpid();
    const pid_t bwrap = ::fork();
    if (bwrap == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // bwrap arranges the same for the program, but only later
        ::fcntl(pipe[1], F_SETFD, 0);
        if (::getppid() == zepctl) {
            ::execvp(argv.front(), argv.data());
        }
        ::_exit(DeviceUnusable);
    }
    if (bwrap < 0) {
        throw systemError("Cannot start bwrap");
    }
    ::close(pipe[1]);
    const auto report = nlohmann::json::parse(::fdopen(pipe[0], "r"), nullptr, false);
    const pid_t receiver = report.is_object() ? report.value("child-pid", bwrap) : bwrap;

    int status = 0;
    const timespec now{};
    bool isStarted = false;  // and has all earlier signals
    while (::waitpid(bwrap, &status, WNOHANG) == 0) {
        siginfo_t details{};
        const int signal = ::sigtimedwait(&signals, &details, isStarted ? nullptr : &now);
        // The terminal sends Ctrl-C to the program as well.
        const bool isReceived = isStarted && signal == SIGINT && details.si_code == SI_KERNEL;
        if (signal > 0 && signal != SIGCHLD && !isReceived) {
            ::kill(receiver, signal);
        }
        isStarted = isStarted || signal < 0;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

void declareRun(CLI::App& app, const Arguments& args) {
    CLI::App& command =
        declareCommand(app, "run", "Run a program with the stand-ins of -d at the device paths",
                       "Usage: zepctl -d DIR run COMMAND [ARGUMENT...]\n\n"
                       "Passes on SIGHUP, SIGINT, SIGTERM and the exit status. Needs bwrap (package "
                       "bubblewrap), but not root.\n\n"
                       "Example: zepctl -d /tmp/zep run ./receiver --verbose",
                       [&] {
                           if (app.remaining().empty()) {
                               throw CommandError(WrongUse, "Name the command to run");
                           }
                           throw CLI::RuntimeError(run(args, app.remaining()));
                       });
    command.preparse_callback([&](std::size_t) { app.prefix_command(); });  // options that follow are its own
}

}  // namespace Vel::Zepctl
