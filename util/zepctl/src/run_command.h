#pragma once

#include <CLI/CLI.hpp>

#include "device_paths.h"

namespace Vel::Zepctl {

/// Declares `run`, which runs a program that opens the devices at their default paths, with the stand-ins of
/// `devices` there: bubblewrap gives the program a /dev of its own, with the stand-ins and all nodes of this
/// one. SIGHUP, SIGINT and SIGTERM are passed on. Throws CLI::RuntimeError for an exit status of the program
/// other than 0, and CommandError if it cannot be started. To be called in a program with one thread.
void declareRun(CLI::App& app, const DevicePaths& devices);

}  // namespace Vel::Zepctl
