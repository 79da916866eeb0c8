#pragma once

#include <string>

#include "vel/userspace_drivers/interfaces/memif.h"

namespace Vel::Zepctl {

/// Writes cleared rows to all tables of a device and zeros elsewhere, last word first: the enable bits are in
/// a row's last word, so a row is disabled before its address is cleared. Then verifies the memory.
void clearTsio(Drivers::IMemIf& memory);
void clearRouter(Drivers::IMemIf& memory);

/// Creates files in `directory` that stand in for the devices: `tsio` and `router` with empty tables and, if
/// asked for, the FIFO `pktio`. Creates the directory if it is missing.
///
/// Existing files are refused without `force`. With it, an existing table file is cleared in place and never
/// truncated, since a running program may have it mapped, and an existing FIFO is kept. Links, files with
/// more than one hard link, longer files and everything else are refused. All names are checked before
/// anything is changed, and checked again when the files are open. Throws CommandError or PciError.
void createStandIns(const std::string& directory, bool withFifo, bool force);

/// The zeptfem command line that uses them, quoted for a shell where necessary. It keeps a FIFO open, so that
/// its reader can be restarted.
[[nodiscard]] std::string standInCommandLine(const std::string& directory);

}  // namespace Vel::Zepctl
