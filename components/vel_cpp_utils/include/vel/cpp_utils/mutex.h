#pragma once

#include <mutex>

/// Declares which lock guards what. Clang checks it with -Wthread-safety, which does not know the mutexes of
/// this standard library; other compilers ignore it.
#ifdef __clang__
#define VEL_THREAD_SAFETY(annotation) __attribute__((annotation))
#else
#define VEL_THREAD_SAFETY(annotation)
#endif
#define VEL_GUARDED_BY(mutex) VEL_THREAD_SAFETY(guarded_by(mutex))
#define VEL_REQUIRES(mutex) VEL_THREAD_SAFETY(requires_capability(mutex))

namespace Vel::CppUtil {

/// A std::mutex whose use Clang can check.
class VEL_THREAD_SAFETY(capability("mutex")) Mutex {
public:
    void lock() VEL_THREAD_SAFETY(acquire_capability()) { m_Mutex.lock(); }
    // NOLINTNEXTLINE(readability-identifier-naming): the name that std::unique_lock expects
    bool try_lock() VEL_THREAD_SAFETY(try_acquire_capability(true)) { return m_Mutex.try_lock(); }
    /// Tells Clang that a std::unique_lock, which it cannot follow, holds the mutex.
    void assertHeld() const VEL_THREAD_SAFETY(assert_capability(this)) {}
    void unlock() VEL_THREAD_SAFETY(release_capability()) { m_Mutex.unlock(); }

private:
    std::mutex m_Mutex;
};

/// Holds a Mutex for its own lifetime.
class [[nodiscard]] VEL_THREAD_SAFETY(scoped_lockable) Lock {
public:
    explicit Lock(Mutex& mutex) VEL_THREAD_SAFETY(acquire_capability(mutex)) : m_Mutex(mutex) {
        mutex.lock();
    }
    ~Lock() VEL_THREAD_SAFETY(release_capability()) { m_Mutex.unlock(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

private:
    Mutex& m_Mutex;
};

}  // namespace Vel::CppUtil
