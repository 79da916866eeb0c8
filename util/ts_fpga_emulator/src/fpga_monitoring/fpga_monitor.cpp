#include "fpga_monitoring/fpga_monitor.h"

#include <pthread.h>

#include <chrono>
#include <exception>
#include <functional>
#include <string_view>
#include <utility>

#include "vel/cpp_utils/assertion.h"

namespace Vel::Utils {

namespace {

constexpr std::chrono::milliseconds POLL_PAUSE(1);
constexpr std::size_t NO_ERROR = 0;

}  // namespace

FPGAMonitor::FPGAMonitor(std::vector<std::unique_ptr<LutMonitor>> monitors, std::stop_token stop)
    : m_Logger(Log::getLogsystem()->getLogger(loggerName())),
      m_ProgramStop(std::move(stop)),
      m_LutMonitors(std::move(monitors)),
      m_LastErrors(m_LutMonitors.size(), NO_ERROR) {
    VEL_ASSERT(!m_LutMonitors.empty());
    m_Thread = std::thread(&FPGAMonitor::monitorThread, this);
}

FPGAMonitor::~FPGAMonitor() {
    Log::debug(*m_Logger, "Destroy FPGAMonitor");
    m_Stop = true;
    m_Thread.join();
    Log::debug(*m_Logger, "Joined with FPGAMonitor thread");
    for (auto& monitor : m_LutMonitors) {
        monitor.reset();
    }
}

void FPGAMonitor::monitorThread() noexcept {
    ::pthread_setname_np(::pthread_self(), "fpga-monitor");
    Log::debug(*m_Logger, "Enter the main thread of FPGAMonitor");
    while (!m_Stop) {
        pollMonitors();
        if (!m_Stop) {
            std::this_thread::sleep_for(POLL_PAUSE);
        }
    }
    Log::debug(*m_Logger, "Exit the main thread of FPGAMonitor");
}

/// An error in a poll is logged when it first appears or changes, not a thousand times per second. Polling
/// continues, and the other table is not affected. The last text is kept as a hash, since memory may be
/// short.
void FPGAMonitor::pollMonitors() noexcept {
    for (std::size_t i = 0; i < m_LutMonitors.size(); ++i) {
        try {
            m_LutMonitors[i]->pollLut();
            if (m_ProgramStop.stop_requested()) {
                return;
            }
            if (std::exchange(m_LastErrors[i], NO_ERROR) != NO_ERROR) {
                Log::info(*m_Logger, "The {} is readable again; monitoring resumes",
                          m_LutMonitors[i]->getTableName());
            }
        } catch (const std::exception& e) {
            const std::size_t error = std::hash<std::string_view>{}(e.what());
            if (std::exchange(m_LastErrors[i], error) != error) {
                Log::error(*m_Logger, "{}", e.what());
            }
        }
    }
}

}  // namespace Vel::Utils
