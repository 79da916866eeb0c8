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

/// The emulator: reads the command line, wires the parts together, waits for its end, and destroys them in a
/// fixed order: monitor, streams, dispatcher. One per process, on the main thread; handleSignal() may be
/// called on any.
class ZEPTFEMApplication {
public:
    static std::string loggerName() {
        return Log::makeLoggerName(__FILE__, "Vel::Utils::ZEPTFEMApplication");
    }

    /// Sets the emulator up; from then on the tables are monitored. After a request for help or the version,
    /// and after a wrong command line, which is reported, there is nothing to do, and doApplication() returns
    /// at once.
    /// @param stop requested when the program is to end; ends the waits of the set-up as well
    /// @throws Error, std::exception for example for a device that cannot be used; nothing is left then
    ZEPTFEMApplication(int argc, const char* const* argv, std::stop_source stop = std::stop_source());
    virtual ~ZEPTFEMApplication();
    ZEPTFEMApplication(const ZEPTFEMApplication&) = delete;
    ZEPTFEMApplication& operator=(const ZEPTFEMApplication&) = delete;

    /// Blocks until the program is to end. Returns the exit status.
    virtual std::int32_t doApplication();
    /// Reports the signal, SIGINT or SIGTERM, and makes doApplication() return. Thread-safe.
    virtual void handleSignal(int signal);
    /// Logs what plays, if anything has been set up. Any one thread at a time.
    void logStatus();

private:
    void setupApplication(const cxxopts::ParseResult& options);
    void logSettings(const Settings& settings) const;

    std::shared_ptr<spdlog::logger> m_Logger;
    std::mutex m_ExitMutex;
    std::condition_variable m_ExitCondition;
    bool m_ExitSignaled = false;  // guarded by m_ExitMutex once the constructor has returned
    std::stop_source m_Stop;
    // Each one uses those before it, so they are declared in the order of their creation.
    std::unique_ptr<PacketDispatcher> m_PacketDispatcher;
    std::unique_ptr<PktioStreamManager> m_PktioStreamManager;
    std::unique_ptr<FPGAMonitor> m_FPGAMonitor;
};

}  // namespace Vel::Utils
