#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>

#include "command_line.h"
#include "fpga_monitoring/fpga_monitor.h"
#include "tspacket_streaming/packet_dispatcher.h"
#include "tspacket_streaming/pktio_stream_manager.h"
#include "vel/cpp_utils/log.h"

namespace Vel::Utils {

/// The emulator: reads the command line, connects the parts, waits for a signal, and destroys the parts in a
/// fixed order: monitor, streams, dispatcher. One per process, on the main thread; handleSignal() may be
/// called on any thread.
class ZEPTFEMApplication {
public:
    static std::string loggerName() {
        return Log::makeLoggerName(__FILE__, "Vel::Utils::ZEPTFEMApplication");
    }

    /// Sets up the emulator; from then on the tables are monitored. After help, the version or the error of a
    /// wrong command line has been printed, there is nothing to do, and doApplication() returns at once.
    /// @param stop requested to end the program; interrupts the waits of set-up as well
    /// @throws Error, std::exception for example for a device that cannot be used; what exists is destroyed
    ZEPTFEMApplication(int argc, const char* const* argv, std::stop_source stop = std::stop_source());
    virtual ~ZEPTFEMApplication();
    ZEPTFEMApplication(const ZEPTFEMApplication&) = delete;
    ZEPTFEMApplication& operator=(const ZEPTFEMApplication&) = delete;

    /// Blocks until handleSignal() is called. Returns the exit status.
    virtual std::int32_t doApplication();
    /// Reports the signal, SIGINT or SIGTERM, and makes doApplication() return. Thread-safe.
    virtual void handleSignal(int signal);
    /// Logs the status, if anything has been set up. On any thread, one at a time.
    void logStatus();

private:
    void setupApplication(const cxxopts::ParseResult& options);
    void logSettings(const Settings& settings) const;

    std::shared_ptr<spdlog::logger> m_Logger;
    std::mutex m_ExitMutex;
    std::condition_variable m_ExitCondition;
    bool m_ExitSignaled = false;  // guarded by m_ExitMutex once the constructor has returned
    std::stop_source m_Stop;
    // Each one uses those before it.
    std::unique_ptr<PacketDispatcher> m_PacketDispatcher;
    std::unique_ptr<PktioStreamManager> m_PktioStreamManager;
    std::unique_ptr<FPGAMonitor> m_FPGAMonitor;
};

}  // namespace Vel::Utils
