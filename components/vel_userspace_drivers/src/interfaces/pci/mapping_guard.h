#pragma once

#include <cstddef>

namespace Vel::Pci {

/// Keeps the process alive when a mapped file loses pages. Touching a page after the end of a truncated file,
/// or one that the file system cannot supply, raises SIGBUS, which by default ends the process. While a guard
/// exists for the region, a page of zeros replaces the missing one, the access completes on it, and isLost()
/// returns true from then on.
///
/// The first guard installs a process-wide handler for SIGBUS. A SIGBUS from anywhere else restores the
/// action that was installed before, which then handles it.
///
/// Created after the region is mapped, destroyed before it is unmapped. Thread-safe. Neither copied nor
/// moved.
class MappingGuard {
public:
    /// Limit of regions that a process can guard at a time.
    static constexpr std::size_t MAX_REGIONS = 8;

    /// Throws PciError when MAX_REGIONS are guarded already.
    /// @param size bytes from `base` on, which is the start of a page
    MappingGuard(void* base, std::size_t size);
    ~MappingGuard();
    MappingGuard(const MappingGuard&) = delete;
    MappingGuard& operator=(const MappingGuard&) = delete;

    [[nodiscard]] bool isLost() const noexcept;
    /// True for a file that no longer covers the region; false once the region has been mapped again, while
    /// nobody accessed it.
    void setLost(bool isLost) noexcept;

private:
    const std::size_t m_Region;  ///< index among all regions
};

}  // namespace Vel::Pci
