#pragma once

#include <functional>
#include <stop_token>
#include <thread>

namespace Vel::Utils {

/// Receives SIGINT, SIGTERM and SIGUSR1 on a dedicated thread and passes them to a callback, one after the
/// other. Unlike a signal handler, the callback may do anything. Constructed and destroyed on the main
/// thread.
class SignalThread {
public:
    /// Blocks the signals in the calling thread and, by inheritance, in every thread that it starts later;
    /// call it before the first one. They stay pending until a SignalThread receives them. Linux keeps a
    /// blocked signal even if the parent ignored it.
    static void blockSignals();

    /// @param onSignal called with the signal; must not throw
    explicit SignalThread(std::function<void(int)> onSignal);
    /// Waits for the callback in progress. The signals stay blocked, so a late one cannot end the process.
    ~SignalThread();
    SignalThread(const SignalThread&) = delete;
    SignalThread& operator=(const SignalThread&) = delete;

private:
    void waitForSignals(const std::stop_token& stop) const;

    std::function<void(int)> m_OnSignal;
    std::jthread m_Thread;
};

}  // namespace Vel::Utils
