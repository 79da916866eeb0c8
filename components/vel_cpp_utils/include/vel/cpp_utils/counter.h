#pragma once

#include <atomic>
#include <cstdint>

namespace Vel::CppUtil {

/// A counter with one writer at a time and any number of readers. As cheap as a plain integer on 64-bit
/// targets, lock-free on 32-bit ones.
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
