#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"

namespace Vel::Zepctl {

/// What a command line gives. Parsing it stores the values here and then runs the command, so this object
/// must outlive the parsing, and is neither copied nor moved. One command runs per parse, so commands share
/// some of the values. Thread-bound.
struct Arguments {
    /// Declares the global options, which name the devices: `-t` and `-r` name one each, `-d` a directory
    /// that holds all three.
    explicit Arguments(CLI::App& app);
    Arguments(const Arguments&) = delete;
    Arguments& operator=(const Arguments&) = delete;

    /// The data device in the directory. Throws CommandError without one: no command guesses what to read.
    std::string getPktio() const;
    /// FILE, by default the data device.
    std::string getRecordFile() const { return file.empty() ? getPktio() : file; }

    std::string deviceDirectory;
    std::string tsio = Drivers::Zep::TSIO_DEVICE.path;
    std::string router = Drivers::Zep::ROUTER_DEVICE.path;

    std::string directory;  ///< to create, or to write to
    bool withFifo = false;
    bool force = false;

    std::string uri;
    std::optional<std::uint32_t> tsiidx;
    std::optional<std::uint32_t> pid;
    std::optional<std::uint32_t> pididx;      ///< else the lowest unused one
    std::optional<std::uint32_t> filtTabIdx;  ///< else 255
    bool outRoute = false;
    bool noCpuRoute = false;

    std::string table;                      ///< what to clear, empty for both, or the table to dump
    std::optional<std::uint32_t> firstRow;  ///< else the first row that is not reserved
    std::optional<std::uint32_t> rowCount;  ///< else all from the first one on
    std::optional<std::uint32_t> bank;      ///< else bank 0, the one in use
    bool allRows = false;                   ///< also those that are not in use

    std::string file;    ///< of records
    std::string output;  ///< file to write
    bool json = false;
    bool strict = false;
    std::vector<std::string> against;
    std::optional<double> seconds;  ///< limit of a watch, or of a check that waits
};

}  // namespace Vel::Zepctl
