#include "mapping_guard.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <mutex>
#include <thread>

namespace Vel::Pci {

// The handler runs in the middle of whatever its thread was doing, so it may call only async-signal-safe
// functions and take no lock: its thread, or one that waits for it, may hold that lock. It therefore finds
// the guards in a linked list of lock-free atomics. Writers, ordinary code, take turns by a mutex; readers
// are counted instead of locked out.
//
// A guard is destroyed after it has been unlinked and no reader is left. That needs sequential consistency of
// four steps: a reader counts itself (1), then follows the links (2); the destructor unlinks (3), then reads
// the count (4). In the one order of all four, a reader whose (1) comes after (4) has its (2) after (3) and
// cannot meet the guard; one whose (1) comes before (4) is seen, and waited for. With weaker orders both
// could miss each other.
namespace {

std::mutex g_WriterLock;
std::atomic<MappingGuard*> g_FirstGuard{nullptr};
std::atomic<int> g_Readers{0};

static_assert(std::atomic<MappingGuard*>::is_always_lock_free && std::atomic<int>::is_always_lock_free &&
                  std::atomic<bool>::is_always_lock_free,
              "a signal handler can use lock-free atomics only");

struct sigaction g_PreviousAction {};

void onBusError(int signal, siginfo_t* info, void* /*context*/) {
    const int savedErrno = errno;
    if (info->si_code != BUS_ADRERR || !MappingGuard::replaceLostPage(info->si_addr)) {
        // Not ours. On return a faulting access is made again, fails again, and meets the former action with
        // all its details. A signal that was sent does not come from an access; it is sent once more, to
        // arrive after the return.
        ::sigaction(SIGBUS, &g_PreviousAction, nullptr);
        const bool sent = info->si_code <= 0;
        if (sent) {
            ::raise(signal);
        }
    }
    errno = savedErrno;
}

void installHandler() {
    // Asked for beforehand: once the handler is in place it may run on any thread, and reads the former
    // action.
    ::sigaction(SIGBUS, nullptr, &g_PreviousAction);
    struct sigaction action {};
    action.sa_sigaction = &onBusError;
    action.sa_flags = SA_SIGINFO;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(SIGBUS, &action, nullptr);
}

std::once_flag g_HandlerInstalled;

}  // namespace

MappingGuard::MappingGuard(void* base, std::size_t size)
    : m_Begin(reinterpret_cast<std::uintptr_t>(base)), m_Size(size) {
    std::call_once(g_HandlerInstalled, installHandler);
    const std::lock_guard lock(g_WriterLock);
    m_Next.store(g_FirstGuard.load());
    g_FirstGuard.store(this);
}

MappingGuard::~MappingGuard() {
    const std::lock_guard lock(g_WriterLock);
    std::atomic<MappingGuard*>* link = &g_FirstGuard;
    while (link->load() != this) {
        link = &link->load()->m_Next;
    }
    link->store(m_Next.load());
    // A reader never waits for anything, so this takes a moment at most.
    while (g_Readers.load() != 0) {
        std::this_thread::yield();
    }
}

bool MappingGuard::replaceLostPage(void* address) noexcept {
    const auto fault = reinterpret_cast<std::uintptr_t>(address);
    bool replaced = false;
    g_Readers.fetch_add(1);
    for (MappingGuard* guard = g_FirstGuard.load(); guard != nullptr; guard = guard->m_Next.load()) {
        if (!guard->contains(fault)) {
            continue;
        }
        const auto pageSize = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
        void* page = static_cast<std::uint8_t*>(address) - fault % pageSize;
        // mmap is not among the functions that POSIX calls async-signal-safe, but on Linux it is the bare
        // system call.
        replaced = ::mmap(page, pageSize, PROT_READ | PROT_WRITE, MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS, -1,
                          0) != MAP_FAILED;
        if (replaced) {
            // Release, for a reader of the mark on another thread: who sees it sees what came before it.
            guard->m_Lost.store(true, std::memory_order_release);
        }
        break;
    }
    g_Readers.fetch_sub(1);
    return replaced;
}

}  // namespace Vel::Pci
