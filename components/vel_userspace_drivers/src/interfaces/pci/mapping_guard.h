#pragma once

#include <cstddef>

namespace Vel::Pci {

/// Keeps the process alive when a mapped file loses pages. Touching a page beyond the end of a truncated file
/// raises SIGBUS, which by default ends the process. While a guard exists for the region, a page of zeros is
/// put in the place of the missing one, the access completes on it, and isLost() returns true from then on.
///
/// The first guard installs a process-wide handler for SIGBUS. A SIGBUS that no guarded region accounts for
/// brings back the action that was in force before and lets it happen.
///
/// Created after the region is mapped, destroyed before it is unmapped. Construction, destruction and
/// isLost() are thread-safe. Neither copied nor moved.
class MappingGuard {
public:
    /// At most this many regions of a process are guarded at a time.
    static constexpr std::size_t MAX_REGIONS = 8;

    /// Throws PciError when MAX_REGIONS are guarded already.
    /// @param size bytes from `base` on, which is the start of a page
    MappingGuard(void* base, std::size_t size);
    ~MappingGuard();
    MappingGuard(const MappingGuard&) = delete;
    MappingGuard& operator=(const MappingGuard&) = delete;

    bool isLost() const noexcept;
    /// The region has been mapped again, while nobody accessed it.
    void markRestored() noexcept;

private:
    const std::size_t m_Region;  ///< its place among all regions
};

}  // namespace Vel::Pci
