#include "application_owner.h"

#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <exception>
#include <initializer_list>
#include <utility>

#include "vel/cpp_utils/log.h"

namespace Vel::Utils {

namespace {

sigset_t setOf(std::initializer_list<int> numbers) {
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int number : numbers) {
        ::sigaddset(&signals, number);
    }
    return signals;
}

}  // namespace

void ApplicationOwner::blockSignals() {
    const sigset_t signals = setOf({SIGINT, SIGTERM, SIGUSR1});
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

ApplicationOwner::~ApplicationOwner() {
    std::unique_lock lock(m_ApplicationLock);
    auto application = std::move(m_Application);
    lock.unlock();
    application.reset();
    drainLog();
    if (m_SignalThread.joinable()) {
        m_SignalThread.request_stop();
        ::pthread_kill(m_SignalThread.native_handle(), SIGINT);
    }
}

/// The lock is held throughout, so a signal that arrives meanwhile is handled as soon as the application
/// exists. Its stop request has by then interrupted whatever set-up was waiting for.
void ApplicationOwner::construct(int argc, const char* const* argv) {
    {
        const std::lock_guard lock(m_ApplicationLock);
        m_SignalThread = std::jthread([this](const std::stop_token& stop) { receiveSignals(stop); });
        m_Application = std::make_unique<ZEPTFEMApplication>(argc, argv, m_Stop);
    }
    m_IsConstructed = true;
    answerStatusRequest();
}

int ApplicationOwner::run() {
    return m_ExitStatus = m_Application->doApplication();
}

/// Only the log queue is left; a reader that has stopped reading must not delay shutdown.
void ApplicationOwner::drainLog() const noexcept {
    constexpr std::chrono::seconds PATIENCE(1);
    try {
        if (Log::drain(PATIENCE)) {
            return;
        }
    } catch (const std::exception&) {
        // There is no memory to ask for the rest of the log.
    }
    ::_exit(m_ExitStatus);
}

void ApplicationOwner::receiveSignals(const std::stop_token& stop) {
    const sigset_t all = setOf({SIGINT, SIGTERM, SIGUSR1});
    const sigset_t ending = setOf({SIGINT, SIGTERM});
    constexpr timespec NO_WAIT{};
    while (true) {
        // The kernel delivers the lowest number first, and SIGUSR1 is lower than SIGTERM.
        int signal = ::sigtimedwait(&ending, nullptr, &NO_WAIT);
        if (signal < 0) {
            signal = ::sigwaitinfo(&all, nullptr);
        }
        if (stop.stop_requested()) {
            return;
        }
        if (signal > 0) {
            onSignal(signal);
        }
    }
}

void ApplicationOwner::onSignal(int signal) {
    if (signal != SIGUSR1) {
        m_Stop.request_stop();
        const std::lock_guard lock(m_ApplicationLock);
        if (m_Application) {
            m_Application->handleSignal(signal);
        }
    } else if (!m_Stop.stop_requested()) {  // a storm of them must not delay shutdown
        m_IsStatusRequested = true;
        // During construction this thread must not wait for the lock: the next signal may be the one that has
        // to interrupt set-up.
        if (m_IsConstructed) {
            answerStatusRequest();
        }
    }
}

void ApplicationOwner::answerStatusRequest() {
    const std::lock_guard lock(m_ApplicationLock);
    if (m_Application && m_IsStatusRequested.exchange(false)) {
        m_Application->logStatus();
    }
}

}  // namespace Vel::Utils
