#include "zeptfem_app.h"

#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <iostream>
#include <system_error>
#include <utility>
#include <vector>

#include "fpga_monitoring/iplut_monitor.h"
#include "fpga_monitoring/pidlut_monitor.h"
#include "vel/cpp_utils/error.h"
#include "vel/cpp_utils/posix/file_descriptor.h"
#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"
#include "vel/userspace_drivers/interfaces/pci/pciif.h"

namespace Vel::Utils {

namespace {

/// Whether a write does not have to wait long. A full pipe that nobody reads, or a stopped terminal, must not
/// keep the program from ending.
bool isWritable(int descriptor) {
    constexpr int PATIENCE_MS = 100;
    pollfd status{descriptor, POLLOUT, 0};
    return ::poll(&status, 1, PATIENCE_MS) > 0;
}

/// Opening a plain file as data device truncates it, and a mistyped path must not cost the table.
void requireOtherFile(const std::string& dataDevice, const std::string& controlDevice) {
    std::error_code ignored;
    if (std::filesystem::is_regular_file(dataDevice, ignored) &&
        CppUtil::isSameFile(dataDevice, controlDevice)) {
        throw CppUtil::InvalidArgumentError("The data device \"" + dataDevice +
                                            "\" is the control device \"" + controlDevice +
                                            "\" and would be emptied.");
    }
}

}  // namespace

ZEPTFEMApplication::ZEPTFEMApplication(int argc, const char* const* argv, std::stop_source stop)
    : m_Logger(Log::getLogsystem()->getLogger(loggerName())), m_Stop(std::move(stop)) {
    cxxopts::Options options = declareOptions();
    const auto reportError = [&](const std::exception& e) {
        std::cerr << e.what() << std::endl;
        printHelp(options, std::cerr);
    };
    try {
        const cxxopts::ParseResult parsed = parseArguments(options, argc, argv);
        if (parsed.count("verbose") > 0) {
            Log::getLogsystem()->setLevel(spdlog::level::debug);
        }
        if (parsed.count("help") > 0) {
            printHelp(options, std::cout);
        } else if (parsed.count("version") > 0) {
            std::cout << ZEPTFEM_NAME_AND_VERSION << std::endl;
            m_ExitSignaled = true;
        } else {
            setupApplication(parsed);
        }
    } catch (const cxxopts::exceptions::exception& e) {
        reportError(e);
    } catch (const CppUtil::InitializationError& e) {
        reportError(e);
    }
}

ZEPTFEMApplication::~ZEPTFEMApplication() {
    Log::debug(*m_Logger, "Destroy ZEPTFEMApplication");
    // Reaches every stream before the first thread is joined: the monitor thread may wait for a stream that
    // is pacing.
    m_Stop.request_stop();
    m_FPGAMonitor.reset();
    m_PktioStreamManager.reset();
    m_PacketDispatcher.reset();
}

std::int32_t ZEPTFEMApplication::doApplication() {
    std::unique_lock lock(m_ExitMutex);
    const bool nothingWasSetUp = m_ExitSignaled && !m_FPGAMonitor;
    if (nothingWasSetUp) {
        return 0;
    }
    m_ExitCondition.wait(lock, [this] { return m_ExitSignaled; });
    Log::info(*m_Logger, "Application exit has been signaled...");
    return 0;
}

void ZEPTFEMApplication::handleSignal(int signal) {
    if (isWritable(STDERR_FILENO)) {
        std::cerr << "\nReceived signal " << (signal == SIGINT ? "SIGINT" : "SIGTERM") << std::endl;
    }
    const std::lock_guard lock(m_ExitMutex);
    m_ExitSignaled = true;
    m_ExitCondition.notify_one();
}

void ZEPTFEMApplication::logStatus() {
    if (m_PktioStreamManager) {
        m_PktioStreamManager->logStatus();
    }
}

void ZEPTFEMApplication::setupApplication(const cxxopts::ParseResult& options) {
    Log::info(*m_Logger, "Starting the zeptfem application");
    for (const std::string& argument : options.unmatched()) {
        Log::warning(*m_Logger, "Ignored the argument \"{}\", which belongs to no option", argument);
    }
    const Settings settings = readSettings(options);
    logSettings(settings);
    const std::stop_token stop = m_Stop.get_token();

    auto tsio = std::make_shared<Pci::PciIf>(settings.tsioDevice, Drivers::Zep::TSIO_DEVICE.size, 0);
    auto router = std::make_shared<Pci::PciIf>(settings.routerDevice, Drivers::Zep::ROUTER_DEVICE.size, 0);
    requireOtherFile(settings.pktioDataDevice, settings.tsioDevice);
    requireOtherFile(settings.pktioDataDevice, settings.routerDevice);
    m_PacketDispatcher = std::make_unique<PacketDispatcher>(settings.pktioDataDevice, stop);
    m_PktioStreamManager = std::make_unique<PktioStreamManager>(*m_PacketDispatcher, settings.streamMode,
                                                                settings.files, stop, settings.pcrPacing);
    std::vector<std::unique_ptr<LutMonitor>> monitors;
    monitors.push_back(std::make_unique<IpLutMonitor>(std::move(tsio), *m_PktioStreamManager, stop));
    monitors.push_back(std::make_unique<PidLutMonitor>(std::move(router), *m_PktioStreamManager, stop));
    m_FPGAMonitor = std::make_unique<FPGAMonitor>(std::move(monitors), stop);
}

void ZEPTFEMApplication::logSettings(const Settings& settings) const {
    Log::debug(*m_Logger, "Given path to router device {}", settings.routerDevice);
    Log::debug(*m_Logger, "Given path to tsio device {}", settings.tsioDevice);
    Log::debug(*m_Logger, "Given path to pktio_ctrl device {}", settings.pktioCtrlDevice);
    Log::debug(*m_Logger, "Given path to pktio_data device {}", settings.pktioDataDevice);
    Log::debug(
        *m_Logger, "Stream mode is set to: {}",
        settings.streamMode == StreamMode::PcrRate ? "\nPCR RATE ADAPTION\n" : "\nMAXIMUM RATE ADAPTION\n");
    for (const auto& [uri, file] : settings.files) {
        Log::debug(*m_Logger, "Given URI to file mapping: \"{}\"", file);
    }
}

void ZEPTFEMApplication::printHelp(const cxxopts::Options& options, std::ostream& out) {
    out << options.help() << std::endl;
    m_ExitSignaled = true;
}

}  // namespace Vel::Utils
