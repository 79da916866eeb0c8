#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace Vel::Zepctl {

/// Watches what arrives in a FIFO, on standard input, from a device or in a growing file, until the time is
/// over, SIGINT, SIGTERM or SIGHUP comes, or the last writer of a FIFO or pipe has left. Draws a screen where
/// standard output is a terminal, and prints a line an input and second elsewhere; in the end, a summary.
/// Main thread.
/// @param path "-" for standard input; a FIFO may still be without a writer
/// @throws CommandError when the stream cannot be read or standard output not be written
void watchRecords(const std::string& path, std::optional<std::chrono::duration<double>> duration);

}  // namespace Vel::Zepctl
