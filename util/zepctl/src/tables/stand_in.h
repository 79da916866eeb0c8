#pragma once

#include <string>

namespace Vel::Zepctl {

/// Files in `directory` that stand in for the hardware's devices: `tsio` and `router`, all zero, and `pktio`,
/// a FIFO, if asked for. The directory is made where it is missing.
///
/// Without `force`, one that exists already is refused with CommandError. With it, an existing table file is
/// zeroed where it lies and never gets shorter, since a running program may have it mapped; an existing FIFO
/// is kept. One that is something else is refused with CommandError. No refusal changes anything. Throws
/// DeviceError, or std::system_error, for what cannot be made.
void createStandIns(const std::string& directory, bool withFifo, bool force);

/// The command line, for a POSIX shell, of an emulator that uses them.
std::string standInCommandLine(const std::string& directory);

}  // namespace Vel::Zepctl
