#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Vel::Pci {

/// Keeps the process alive when a mapped file loses pages. Touching a page beyond the end of a truncated file
/// raises SIGBUS, which by default ends the process; while a guard exists for the region, a page of zeros is
/// put in the place of the missing one, the access completes on it, and isLost() tells from then on.
///
/// The first guard installs a process-wide handler for SIGBUS. A SIGBUS that no guarded region accounts for
/// brings back the action that was in force before and lets it happen.
///
/// Created after the region is mapped, destroyed before it is unmapped. Construction, destruction and
/// isLost() are thread-safe. Neither copied nor moved, since the handler finds it by its address.
class MappingGuard {
public:
    /// @param size bytes from `base` on, which is the start of a page
    MappingGuard(void* base, std::size_t size);
    ~MappingGuard();
    MappingGuard(const MappingGuard&) = delete;
    MappingGuard& operator=(const MappingGuard&) = delete;

    bool isLost() const noexcept { return m_Lost.load(std::memory_order_acquire); }
    /// The region has been mapped again, while nobody accessed it.
    void markRestored() noexcept { m_Lost.store(false); }

    /// For the signal handler, so async-signal-safe: puts a zero page under `address` and marks its region
    /// lost. False when the address lies in no guarded region.
    static bool replaceLostPage(void* address) noexcept;

private:
    bool contains(std::uintptr_t address) const noexcept { return address - m_Begin < m_Size; }

    const std::uintptr_t m_Begin;
    const std::size_t m_Size;  ///< bytes
    std::atomic<bool> m_Lost{false};
    std::atomic<MappingGuard*> m_Next{nullptr};  ///< in the list of all guards
};

}  // namespace Vel::Pci
