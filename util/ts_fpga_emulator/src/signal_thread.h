#pragma once

#include <atomic>
#include <functional>
#include <thread>

namespace Vel::Utils {

/// Takes SIGINT, SIGTERM and SIGUSR1 from the process and hands them to a callback on a dedicated thread, one
/// after the other. Unlike a signal handler, the callback may do anything. Constructed and destroyed on the
/// main thread.
class SignalThread {
public:
    /// Blocks the signals in the calling thread and, by inheritance, in every thread that it starts
    /// later; call it before the first one. They then stay pending until a SignalThread takes them. Linux
    /// keeps a blocked signal also where the parent had it ignored.
    static void blockSignals();

    /// @param onSignal called with the signal; must not throw
    explicit SignalThread(std::function<void(int)> onSignal);
    /// Waits for the callback in progress. The signals stay blocked, so a late one cannot end the process.
    ~SignalThread();
    SignalThread(const SignalThread&) = delete;
    SignalThread& operator=(const SignalThread&) = delete;

private:
    void waitForSignals();

    std::function<void(int)> m_OnSignal;
    std::atomic<bool> m_Stop = false;
    std::thread m_Thread;
};

}  // namespace Vel::Utils
