#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <utility>

#include "signal_thread.h"
#include "vel/cpp_utils/assertion.h"
#include "vel/cpp_utils/log.h"
#include "vel/cpp_utils/posix/file_descriptor.h"
#include "zeptfem_app.h"

namespace {

using Vel::Utils::SignalThread;
using Vel::Utils::ZEPTFEMApplication;

constexpr int EXIT_SETUP_FAILED = 1;
/// How long the reader of the log may take nothing of it while the program waits to end.
constexpr std::chrono::seconds LOG_PATIENCE(1);

/// The one application, its lock, and the signals that it obeys. Signals work while it is built, while it
/// runs and while it is destroyed: then the lock is free, and the application is no longer found.
class ApplicationOwner {
public:
    ~ApplicationOwner() {
        std::unique_lock lock(m_ApplicationLock);
        auto application = std::move(m_Application);
        lock.unlock();
        application.reset();
        endLog();
    }

    /// The lock is held throughout, so an early signal is handled as soon as the application exists. Its stop
    /// request has by then ended whatever the set-up was waiting for.
    void construct(int argc, char** argv) {
        {
            const std::lock_guard lock(m_ApplicationLock);
            m_Signals.emplace([this](int signal) { onSignal(signal); });
            m_Application = std::make_unique<ZEPTFEMApplication>(argc, argv, m_Stop);
        }
        m_IsConstructed = true;
        answerStatusRequest();
    }

    int run() {
        m_ExitStatus = m_Application->doApplication();
        return m_ExitStatus;
    }

private:
    /// What is left is the log's queue, and a reader that has stopped reading must not delay the end.
    void endLog() const noexcept {
        try {
            if (Vel::Log::drain(LOG_PATIENCE)) {
                return;
            }
        } catch (const std::exception&) {
            // There is no memory to ask for the rest of the log.
        }
        ::_exit(m_ExitStatus);
    }

    void onSignal(int signal) {
        if (signal == SIGUSR1) {
            if (m_Stop.stop_requested()) {
                return;  // a storm of them must not delay shutdown
            }
            // While the application is built, the thread of the signals must not wait for it: the next one
            // may have to end the set-up.
            m_IsStatusRequested = true;
            if (m_IsConstructed) {
                answerStatusRequest();
            }
            return;
        }
        m_Stop.request_stop();
        const std::lock_guard lock(m_ApplicationLock);
        if (m_Application) {
            m_Application->handleSignal(signal);
        }
    }

    void answerStatusRequest() {
        const std::lock_guard lock(m_ApplicationLock);
        if (m_Application && m_IsStatusRequested.exchange(false)) {
            m_Application->logStatus();
        }
    }

    int m_ExitStatus = EXIT_SETUP_FAILED;
    std::atomic<bool> m_IsConstructed = false;
    std::atomic<bool> m_IsStatusRequested = false;
    std::stop_source m_Stop;
    std::mutex m_ApplicationLock;
    std::unique_ptr<ZEPTFEMApplication> m_Application;  // guarded by m_ApplicationLock
    std::optional<SignalThread> m_Signals;              // uses all of the above, so it ends first
};

void configureAssertions() {
    auto& assertions = Vel::CppUtil::AssertionHandler::instance();
    assertions.setOutputHandler(
        [](const std::string& text) { Vel::CppUtil::writeError("ZEPTFEM - fatal Error: " + text + "\n"); });
    assertions.setStacktraceProvider([] { return "ZEPTFEM - no stack unwinding implemented."; });
    assertions.setAbortOnFailure(true);
}

}  // namespace

int main(int argc, char** argv) {
    Vel::CppUtil::occupyStandardDescriptors(O_RDWR);
    SignalThread::blockSignals();
    // A reader of the records or of the log that leaves, and a size limit, show as write errors.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    try {
        configureAssertions();
        Vel::Log::setLogsystem(std::make_unique<Vel::Log::StdoutLogger>(spdlog::level::info));
        // Created after the logging backend, so destroyed before it at process exit: the teardown can log.
        static ApplicationOwner application;
        application.construct(argc, argv);
        return application.run();
    } catch (const std::exception& e) {
        Vel::CppUtil::writeError(e.what());
        Vel::CppUtil::writeError("\n");
        return EXIT_SETUP_FAILED;
    }
}
