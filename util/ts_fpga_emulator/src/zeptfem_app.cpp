#include "zeptfem_app.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "fpga_monitoring/iplut_monitor.h"
#include "fpga_monitoring/pidlut_monitor.h"
#include "vel/cpp_utils/error.h"
#include "vel/cpp_utils/posix/file_descriptor.h"
#include "vel/cpp_utils/text.h"
#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"
#include "vel/userspace_drivers/interfaces/pci/pciif.h"

namespace Vel::Utils {

namespace {

using CppUtil::escapeControls;

/// Opening a plain file as data device empties it, and a mistyped path must not cost a table or a stream.
void requireOtherFile(const std::string& dataDevice, const char* role, const std::string& path) {
    std::error_code ignored;
    if (std::filesystem::is_regular_file(dataDevice, ignored) && CppUtil::isSameFile(dataDevice, path)) {
        throw CppUtil::InvalidArgumentError(
            fmt::format("The data device \"{}\" is the {} \"{}\" and would be emptied.",
                        escapeControls(dataDevice), role, escapeControls(path)));
    }
}

/// Empty for a file that can be read. Does not open it: that would end the writer of a feed.
std::string whyUnreadable(const std::string& path) {
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored)) {
        return CppUtil::errnoText(EISDIR);
    }
    return ::faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) == 0 ? "" : CppUtil::errnoText(errno);
}

}  // namespace

ZEPTFEMApplication::ZEPTFEMApplication(int argc, const char* const* argv, std::stop_source stop)
    : m_Logger(Log::getLogsystem()->getLogger(loggerName())), m_Stop(std::move(stop)) {
    cxxopts::Options options = declareOptions();
    const auto reportError = [&](const std::exception& e) {
        CppUtil::writeError(escapeControls(e.what()) + "\n" + options.help() + "\n");
        m_ExitSignaled = true;
    };
    const auto print = [&](const std::string& text) {
        CppUtil::writeText(STDOUT_FILENO, text + "\n", m_Stop.get_token());
        m_ExitSignaled = true;
    };
    try {
        const cxxopts::ParseResult parsed = parseArguments(options, argc, argv);
        if (parsed.count("verbose") > 0) {
            Log::getLogsystem()->setLevel(spdlog::level::debug);
        }
        if (parsed.count("help") > 0) {
            print(options.help());
        } else if (parsed.count("version") > 0) {
            print(ZEPTFEM_NAME_AND_VERSION);
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
    // Reaches every stream before the first thread is joined: the monitor thread may be waiting for a paced
    // stream.
    m_Stop.request_stop();
    m_FPGAMonitor.reset();
    m_PktioStreamManager.reset();
    m_PacketDispatcher.reset();
}

std::int32_t ZEPTFEMApplication::doApplication() {
    std::unique_lock lock(m_ExitMutex);
    if (m_ExitSignaled && !m_FPGAMonitor) {
        return 0;  // nothing was set up
    }
    m_ExitCondition.wait(lock, [this] { return m_ExitSignaled; });
    Log::info(*m_Logger, "Application exit has been signaled...");
    return 0;
}

void ZEPTFEMApplication::handleSignal(int signal) {
    CppUtil::writeError(signal == SIGINT ? "\nReceived signal SIGINT\n" : "\nReceived signal SIGTERM\n");
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
        Log::warning(*m_Logger, "Ignoring argument \"{}\": it belongs to no option",
                     escapeControls(argument));
    }
    const Settings settings = readSettings(options);
    logSettings(settings);
    for (const auto& [uri, file] : settings.files) {
        const std::string reason = file.empty() ? "" : whyUnreadable(file);
        if (!reason.empty()) {  // otherwise it would show up only once something is routed
            Log::warning(*m_Logger, "Cannot read {} of {}: {}", escapeControls(file), escapeControls(uri),
                         reason);
        }
    }
    const std::stop_token stop = m_Stop.get_token();

    auto tsio = std::make_shared<Pci::PciIf>(settings.tsioDevice, Drivers::Zep::TSIO_DEVICE.size, 0);
    auto router = std::make_shared<Pci::PciIf>(settings.routerDevice, Drivers::Zep::ROUTER_DEVICE.size, 0);
    const auto requireInputs = [&] {
        for (const auto& [uri, file] : settings.files) {
            requireOtherFile(settings.pktioDataDevice, "input file", file);
        }
    };
    requireOtherFile(settings.pktioDataDevice, "control device", settings.tsioDevice);
    requireOtherFile(settings.pktioDataDevice, "control device", settings.routerDevice);
    requireInputs();
    m_PacketDispatcher =
        std::make_unique<PacketDispatcher>(settings.pktioDataDevice, stop, settings.keepsFifo);
    requireInputs();  // a file that has just been created: no stream may play its own output
    m_PktioStreamManager =
        std::make_unique<PktioStreamManager>(*m_PacketDispatcher, settings.streamMode, settings.files, stop,
                                             settings.pcrPacing, settings.isLooped);
    std::vector<std::unique_ptr<LutMonitor>> monitors;
    monitors.push_back(std::make_unique<IpLutMonitor>(std::move(tsio), *m_PktioStreamManager, stop));
    monitors.push_back(std::make_unique<PidLutMonitor>(std::move(router), *m_PktioStreamManager, stop));
    m_FPGAMonitor = std::make_unique<FPGAMonitor>(std::move(monitors), stop);
}

void ZEPTFEMApplication::logSettings(const Settings& settings) const {
    Log::debug(*m_Logger, "Given path to router device {}", escapeControls(settings.routerDevice));
    Log::debug(*m_Logger, "Given path to tsio device {}", escapeControls(settings.tsioDevice));
    Log::debug(*m_Logger, "Given path to pktio_ctrl device {}", escapeControls(settings.pktioCtrlDevice));
    Log::debug(*m_Logger, "Given path to pktio_data device {}", escapeControls(settings.pktioDataDevice));
    Log::debug(
        *m_Logger, "Stream mode is set to: {}",
        settings.streamMode == StreamMode::PcrRate ? "\nPCR RATE ADAPTION\n" : "\nMAXIMUM RATE ADAPTION\n");
    for (const auto& [uri, file] : settings.files) {
        Log::debug(*m_Logger, "Given URI to file mapping: \"{}\"", escapeControls(file));
    }
    if (settings.streamMode == StreamMode::PcrRate) {
        Log::debug(*m_Logger, "Pacing rule: {}",
                   settings.pcrPacing == PcrPacing::Clock
                       ? "each packet at its PCR time (-c)"
                       : "batches of 100 packets at the mean PCR rate (-m)");
    }
    if (settings.isLooped) {
        Log::debug(*m_Logger, "Files are repeated endlessly (-l)");
    }
}

}  // namespace Vel::Utils
