#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "vel/cpp_utils/error.h"
#include "vel/cpp_utils/posix/file_descriptor.h"
#include "vel/userspace_drivers/interfaces/lindevmemaccessor.h"

namespace Vel::Pci {

class MappingGuard;

/// A device cannot be opened or mapped, or its mapping cannot be accessed.
using PciError = CategoryError<Error, "PCI Error: ">;

/// A character device, or a plain file that stands in for one, with a region of it mapped into this process.
/// Changes are shared both ways with every other process that maps it. After construction no access makes a
/// system call.
///
/// Built and released while nobody accesses it; in between thread-bound to the thread that does. Neither
/// copied nor moved, since it owns the descriptor and the mapping.
class PciIf : public Drivers::LinDevMemAccessor {
public:
    /// Opens `path` for reading and writing and maps `size` bytes from byte `offset` on (a multiple of the
    /// page size). With size 0 nothing is mapped, and every access fails. Throws PciError when that fails,
    /// and for a plain file that ends before the region does: the system lets it be mapped, but not be read.
    PciIf(const std::string& path, std::uint32_t size, std::uint32_t offset);
    ~PciIf() override;
    PciIf(const PciIf&) = delete;
    PciIf& operator=(const PciIf&) = delete;

    bool isOpen() const { return m_File.isOpen(); }
    bool isMapped() const { return m_MapBase != nullptr; }
    /// Of the open device, -1 if it is not open. A lock on it is released once the device is closed.
    int getDescriptor() const { return m_File.get(); }
    /// Releases mapping and descriptor; every later access fails.
    void closeDevice();

    Drivers::MemSegment getMemSegment() const override;
    /// Throws PciError when the device is not open, not mapped, or has lost its memory: a file that was
    /// truncated while it was mapped, or whose file system failed or is full. What was read from such a file
    /// since the last successful call may be zeros.
    void checkAccessible() const override;
    /// Throws as checkAccessible() does. A file that now ends within the region counts as lost from here on:
    /// the rest of its last page reads as zeros, without any fault.
    void verifyMemory() const override;
    /// Maps a lost file again at the same addresses once it has its full size.
    void restoreMemory() override;

private:
    /// The path, for messages.
    std::string displayName() const;
    void openDevice();
    void mapMemory();
    /// Bytes of the region that a plain file lacks, 0 if it has them all. A device has no size to
    /// compare with; its driver checks the region when it is mapped.
    std::int64_t getMissingBytes() const;

    std::string m_Path;
    CppUtil::FileDescriptor m_File;
    std::int32_t m_MapSize;     ///< bytes
    std::uint32_t m_MapOffset;  ///< bytes from the start of the device
    void* m_MapBase = nullptr;
    std::unique_ptr<MappingGuard> m_Guard;  ///< present while mapped
};

}  // namespace Vel::Pci
