#pragma once

#include <atomic>
#include <cstdint>

namespace Vel::CppUtil {

/// A count that one thread at a time increments and any thread reads. It costs no more than a plain one
/// on 64 bits, and no lock on 32.
class Counter {
public:
    void increment() {
        m_Value.store(m_Value.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
    std::uint64_t load() const { return m_Value.load(std::memory_order_relaxed); }

private:
    static_assert(std::atomic<std::uint64_t>::is_always_lock_free);
    std::atomic<std::uint64_t> m_Value = 0;
};

}  // namespace Vel::CppUtil
