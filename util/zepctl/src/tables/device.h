#pragma once

#include <string>

#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"
#include "vel/userspace_drivers/interfaces/pci/pciif.h"

namespace Vel::Zepctl {

enum class Access { Read, Change };

/// The mapped memory of a device, or of the file that stands in for it, and an advisory lock (flock) on it
/// for the lifetime of the object: shared for reading, exclusive for changing. So no command loses what
/// another one writes. A command that needs both devices locks the tsio device first. Nothing slow, such as
/// output, may happen while one exists. Thread-bound.
class LockedDevice {
public:
    /// Waits for the lock. Refuses a longer file than the device: it is something else. Before a change,
    /// allocates all blocks of a plain file, since a store into a hole fails on a full file system.
    /// @param file descriptor of the file that this must be; by default, it must be what `path` still names
    /// @throws PciError and CommandError; the former also for a file that was truncated in the meantime
    LockedDevice(const std::string& path, const Drivers::Zep::DeviceInfo& info, Access access, int file = -1);

    Drivers::IMemIf& memory() { return m_Memory; }

private:
    Pci::PciIf m_Memory;
};

}  // namespace Vel::Zepctl
