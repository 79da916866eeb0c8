#pragma once

#include <cstdint>
#include <string>

#include "vel/cpp_utils/posix/file_descriptor.h"
#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"
#include "vel/userspace_drivers/interfaces/pci/pciif.h"

namespace Vel::Zepctl {

/// A device with tables, or the file that stands in for it.
struct Device {
    std::string path;
    std::uint32_t size;  ///< bytes that hold the tables
};

/// Holds the advisory lock (flock) of a file from construction to destruction. Neither copied nor moved.
class FileLock {
public:
    /// Waits for whoever holds it. Throws CommandError when the file cannot be locked.
    explicit FileLock(const std::string& path);

private:
    CppUtil::FileDescriptor m_File;
};

/// The memory of a device for as long as no other zepctl may touch it: who reads a table, changes it and
/// writes it back must not lose what another one has put in meanwhile. A device that cannot be locked is not
/// used at all. Nothing slow should happen while one exists.
class LockedDevice {
public:
    /// Throws PciError or CommandError.
    explicit LockedDevice(const Device& device)
        : m_Memory(device.path, device.size, 0), m_Lock(device.path) {}

    Drivers::IMemIf& memory() { return m_Memory; }

private:
    Pci::PciIf m_Memory;
    FileLock m_Lock;
};

}  // namespace Vel::Zepctl
