#include "mapping_guard.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <mutex>

#include "vel/userspace_drivers/interfaces/pci/pciif.h"

namespace Vel::Pci {

namespace {

/// A guarded region as the signal handler sees it. The handler interrupts its thread anywhere, so it takes no
/// lock and uses lock-free atomics only.
struct Region {
    std::atomic<std::uintptr_t> begin{0};
    std::atomic<std::size_t> size{0};  ///< bytes; 0 while it guards nothing
    std::atomic<bool> isLost{false};
};
static_assert(std::atomic<std::uintptr_t>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

Region g_Regions[MappingGuard::MAX_REGIONS];
std::mutex g_ClaimLock;
std::once_flag g_HandlerInstalled;
struct sigaction g_PreviousAction {};

/// Maps a zero page at `address` and marks its region as lost. False when no guarded region contains it.
bool replaceLostPage(void* address) {
    const auto fault = reinterpret_cast<std::uintptr_t>(address);
    const auto pageSize = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    void* page = static_cast<std::uint8_t*>(address) - fault % pageSize;
    constexpr int FLAGS = MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS;
    bool isReplaced = false;
    for (Region& region : g_Regions) {
        // POSIX does not list mmap as async-signal-safe, but on Linux it is a plain system call.
        if (fault - region.begin < region.size &&
            ::mmap(page, pageSize, PROT_READ | PROT_WRITE, FLAGS, -1, 0) != MAP_FAILED) {
            region.isLost = true;
            isReplaced = true;
        }
    }
    return isReplaced;
}

void onBusError(int signal, siginfo_t* info, void* /*context*/) {
    const int savedErrno = errno;
    if (info->si_code != BUS_ADRERR || !replaceLostPage(info->si_addr)) {
        // Not ours: restore the previous action. A real fault recurs when the access is retried; a SIGBUS
        // sent by kill() does not, so raise it again.
        ::sigaction(SIGBUS, &g_PreviousAction, nullptr);
        const bool isSent = info->si_code <= 0;
        if (isSent) {
            ::raise(signal);
        }
    }
    errno = savedErrno;
}

void installHandler() {
    // Read the previous action first: once the handler is installed, it may run on any thread and needs it.
    ::sigaction(SIGBUS, nullptr, &g_PreviousAction);
    struct sigaction action {};
    action.sa_sigaction = &onBusError;
    action.sa_flags = SA_SIGINFO;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(SIGBUS, &action, nullptr);
}

std::size_t claimRegion(void* base, std::size_t size) {
    std::call_once(g_HandlerInstalled, installHandler);
    const std::lock_guard lock(g_ClaimLock);
    for (std::size_t i = 0; i < MappingGuard::MAX_REGIONS; ++i) {
        if (g_Regions[i].size == 0) {
            g_Regions[i].isLost = false;
            g_Regions[i].begin = reinterpret_cast<std::uintptr_t>(base);
            g_Regions[i].size = size;
            return i;
        }
    }
    throw PciError("Cannot map another device: the limit of " + std::to_string(MappingGuard::MAX_REGIONS) +
                   " mappings is reached.");
}

}  // namespace

MappingGuard::MappingGuard(void* base, std::size_t size) : m_Region(claimRegion(base, size)) {}

MappingGuard::~MappingGuard() {
    g_Regions[m_Region].size = 0;
}

bool MappingGuard::isLost() const noexcept {
    return g_Regions[m_Region].isLost;
}

void MappingGuard::setLost(bool isLost) noexcept {
    g_Regions[m_Region].isLost = isLost;
}

}  // namespace Vel::Pci
