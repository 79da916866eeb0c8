#include "signal_thread.h"

#include <pthread.h>

#include <csignal>
#include <initializer_list>
#include <utility>

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

void SignalThread::blockSignals() {
    const sigset_t signals = setOf({SIGINT, SIGTERM, SIGUSR1});
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

SignalThread::SignalThread(std::function<void(int)> onSignal)
    : m_OnSignal(std::move(onSignal)),
      m_Thread([this](const std::stop_token& stop) { waitForSignals(stop); }) {}

SignalThread::~SignalThread() {
    m_Thread.request_stop();
    ::pthread_kill(m_Thread.native_handle(), SIGINT);
}

void SignalThread::waitForSignals(const std::stop_token& stop) const {
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
            m_OnSignal(signal);
        }
    }
}

}  // namespace Vel::Utils
