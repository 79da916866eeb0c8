#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <stop_token>
#include <thread>

#include "zeptfem_app.h"

namespace Vel::Utils {

/// Owns the one application, and passes it the signals that the process receives: while it is constructed,
/// while it runs, and while it is destroyed. A dedicated thread receives them, so unlike a signal handler it
/// may do anything. Used on the main thread; never copied or moved.
class ApplicationOwner {
public:
    /// The exit status of a program that could not be set up.
    static constexpr int EXIT_SETUP_FAILED = 1;

    /// Blocks SIGINT, SIGTERM and SIGUSR1 in the calling thread and, by inheritance, in every thread that it
    /// starts later; call it before the first one. They stay pending until construct(), and blocked for good.
    /// Linux keeps a blocked signal even if the parent ignored it.
    static void blockSignals();

    /// Destroys the application and waits for the log. Ends the process here if nobody reads the log.
    ~ApplicationOwner();

    /// @throws Error, std::exception as the application's constructor does
    void construct(int argc, const char* const* argv);
    /// Blocks until the program is to end. Returns the exit status.
    int run();

private:
    void drainLog() const noexcept;
    void receiveSignals(const std::stop_token& stop);
    void onSignal(int signal);
    void answerStatusRequest();

    int m_ExitStatus = EXIT_SETUP_FAILED;
    std::atomic<bool> m_IsConstructed = false;
    std::atomic<bool> m_IsStatusRequested = false;
    std::stop_source m_Stop;  // of the application
    std::mutex m_ApplicationLock;
    std::unique_ptr<ZEPTFEMApplication> m_Application;  // guarded by m_ApplicationLock
    std::jthread m_SignalThread;                        // uses all of the above
};

}  // namespace Vel::Utils
