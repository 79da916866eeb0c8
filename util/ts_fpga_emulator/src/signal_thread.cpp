#include "signal_thread.h"

#include <pthread.h>

#include <csignal>
#include <utility>

namespace Vel::Utils {

namespace {

sigset_t handledSignals() {
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGINT);
    ::sigaddset(&signals, SIGTERM);
    ::sigaddset(&signals, SIGUSR1);
    return signals;
}

}  // namespace

void SignalThread::blockSignals() {
    const sigset_t signals = handledSignals();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

SignalThread::SignalThread(std::function<void(int)> onSignal)
    : m_OnSignal(std::move(onSignal)), m_Thread(&SignalThread::waitForSignals, this) {}

SignalThread::~SignalThread() {
    m_Stop = true;
    ::pthread_kill(m_Thread.native_handle(), SIGINT);
    m_Thread.join();
}

void SignalThread::waitForSignals() {
    const sigset_t signals = handledSignals();
    while (true) {
        int signal = 0;
        const bool received = ::sigwait(&signals, &signal) == 0;
        if (m_Stop) {
            return;
        }
        if (received) {
            m_OnSignal(signal);
        }
    }
}

}  // namespace Vel::Utils
