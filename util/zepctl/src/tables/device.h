#pragma once

#include <cstdint>
#include <string>

#include "vel/cpp_utils/posix/file_descriptor.h"
#include "vel/userspace_drivers/interfaces/pci/pciif.h"

namespace Vel::Zepctl {

/// A device with tables, or the file that stands in for it.
struct Device {
    std::string path;
    std::uint32_t size;  ///< bytes that hold the tables
};

/// The memory of a device, and from construction to destruction the advisory lock (flock) on it: of two
/// commands that read a table, change it and write it back, neither may lose what the other one wrote. A
/// device that cannot be locked is not used. Nothing slow should happen while one exists. Thread-bound.
class LockedDevice {
public:
    /// Waits for the lock. Throws PciError or CommandError.
    explicit LockedDevice(const Device& device);

    Drivers::IMemIf& memory() { return m_Memory; }

private:
    Pci::PciIf m_Memory;
    CppUtil::FileDescriptor m_Lock;
};

/// Sets so many words of a device to 0, the last one first: the bits that put a row in use are in its last
/// word, so no row in use ever loses its address.
void clearWords(Drivers::IMemIf& memory, std::uint32_t count);

/// Creates files in `directory` that stand in for the devices: `tsio` and `router`, all zero, and `pktio`, a
/// FIFO, if asked for. Creates the directory if it is missing.
///
/// Without `force`, files that exist are refused. With it, an existing table file is emptied in place and
/// never gets shorter, since a running program may have it mapped, and an existing FIFO is kept. Anything
/// else by one of these names is refused. All files are looked at before the first one is created, and all
/// are created before the first one is emptied. Throws CommandError or PciError.
void createStandIns(const std::string& directory, bool withFifo, bool force);

/// The zeptfem command that uses them, not quoted for any shell.
std::string standInCommandLine(const std::string& directory);

}  // namespace Vel::Zepctl
