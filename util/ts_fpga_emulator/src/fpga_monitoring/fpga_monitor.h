#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "fpga_monitoring/lut_monitor.h"
#include "vel/cpp_utils/log.h"

namespace Vel::Utils {

/// Owns the LUT monitors and the one thread that polls them, in the order of the list, with a pause of 1 ms
/// between two rounds. All events are delivered on this thread. Constructed and destroyed on the main thread.
class FPGAMonitor {
public:
    static std::string loggerName() { return Log::makeLoggerName(__FILE__, "Vel::Utils::FPGAMonitor"); }

    /// Starts polling. The list must not be empty.
    /// @param stop requested at shutdown; a poll that it interrupts does not show that the table is readable
    explicit FPGAMonitor(std::vector<std::unique_ptr<LutMonitor>> monitors, std::stop_token stop = {});
    /// Finishes the round in progress, joins the thread and destroys the monitors, first to last.
    virtual ~FPGAMonitor();
    FPGAMonitor(const FPGAMonitor&) = delete;
    FPGAMonitor& operator=(const FPGAMonitor&) = delete;

private:
    void monitorThread() noexcept;
    void pollMonitors() noexcept;

    std::shared_ptr<spdlog::logger> m_Logger;
    std::atomic<bool> m_Stop = false;
    std::stop_token m_ProgramStop;
    std::vector<std::unique_ptr<LutMonitor>> m_LutMonitors;
    std::vector<std::size_t> m_LastErrors;  // for each monitor, hash of the error text of its last poll
    std::thread m_Thread;
};

}  // namespace Vel::Utils
