#pragma once

#include <string>

#include <CLI/CLI.hpp>

#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"

namespace Vel::Zepctl {

/// The devices that the commands use, and the global options that name them: `-t` and `-r` name one each,
/// `-d` a directory that holds all three. Parsing a command line sets the paths before it runs the command,
/// so this object must outlive the parsing, and is neither copied nor moved. Thread-bound.
struct DevicePaths {
    explicit DevicePaths(CLI::App& app);
    DevicePaths(const DevicePaths&) = delete;
    DevicePaths& operator=(const DevicePaths&) = delete;

    /// The data device in the directory. Throws CommandError without one: no command guesses what to read.
    std::string getPktio() const;

    std::string directory;
    std::string tsio = Drivers::Zep::TSIO_DEVICE.path;
    std::string router = Drivers::Zep::ROUTER_DEVICE.path;
};

/// Returns `path`. Throws CommandError if nothing has that name: usually nobody has named the stand-ins.
const std::string& requireExisting(const std::string& path);

}  // namespace Vel::Zepctl
