#pragma once

#include "arguments.h"

namespace Vel::Zepctl {

// Each declares some of the commands. Parsing a command line that names one of them runs it. A command throws
// CommandError for a refusal, and passes on the errors of devices and tables.

/// The commands that create, change and show the tables.
void declareTableCommands(CLI::App& app, Arguments& args);

/// Of these, `dump`.
void declareDump(CLI::App& app, Arguments& args);

/// `records check`, `records split`, `records watch` and `records plot`.
void declareRecordCommands(CLI::App& app, Arguments& args);

/// `run`, which runs a program that opens the devices at their default paths, with the stand-ins there:
/// bubblewrap gives the program a /dev of its own, with the stand-ins and all nodes of this one. SIGHUP,
/// SIGINT and SIGTERM are passed on. Throws CLI::RuntimeError with the exit status of the program. To be
/// called in a program with one thread.
void declareRun(CLI::App& app, const Arguments& args);

}  // namespace Vel::Zepctl
