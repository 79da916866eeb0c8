#include "vel/cpp_utils/log.h"

#include <spdlog/async.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <mutex>
#include <utility>

namespace Vel::Log {

namespace {

constexpr std::size_t QUEUE_ENTRIES = 8192;
constexpr std::size_t WORKER_THREADS = 1;
constexpr const char* LINE_PATTERN = "[%T.%e] [%l] %v";

std::mutex logsystemMutex;
std::shared_ptr<ILogsystem> processLogsystem;  // guarded by logsystemMutex

}  // namespace

StdoutLogger::StdoutLogger(spdlog::level::level_enum defaultLevel) : m_DefaultLevel(defaultLevel) {
    spdlog::init_thread_pool(QUEUE_ENTRIES, WORKER_THREADS);
    m_Sinks.push_back(std::make_shared<spdlog::sinks::stdout_sink_mt>());
    for (const auto& sink : m_Sinks) {
        sink->set_pattern(LINE_PATTERN);
    }
}

std::shared_ptr<spdlog::logger> StdoutLogger::getLogger(const std::string& name) {
    return getLogger(name, m_DefaultLevel);
}

std::shared_ptr<spdlog::logger> StdoutLogger::getLogger(const std::string& name,
                                                        spdlog::level::level_enum level) {
    if (auto existing = spdlog::get(name)) {
        return existing;
    }
    auto logger =
        std::make_shared<spdlog::async_logger>(name, m_Sinks.begin(), m_Sinks.end(), spdlog::thread_pool(),
                                               spdlog::async_overflow_policy::overrun_oldest);
    spdlog::register_logger(logger);
    logger->set_level(level);
    return logger;
}

void StdoutLogger::shutdown() {
    spdlog::shutdown();
}

void setLogsystem(std::unique_ptr<ILogsystem> logsystem) {
    const std::lock_guard lock(logsystemMutex);
    processLogsystem = std::move(logsystem);
}

std::shared_ptr<ILogsystem> getLogsystem() {
    const std::lock_guard lock(logsystemMutex);
    if (!processLogsystem) {
        processLogsystem = std::make_shared<StdoutLogger>(spdlog::level::info);
        warning(*processLogsystem->getLogger("Logsystem"),
                "No logsystem initialized. Falling back to stdout.");
    }
    return processLogsystem;
}

std::string makeLoggerName(std::string_view headerFile, std::string_view signature) {
    std::string name(headerFile.substr(headerFile.rfind('/') + 1));
    if (!signature.empty()) {
        name.append("::").append(signature);
    }
    return name.substr(0, name.find("::<lambda()>"));
}

}  // namespace Vel::Log
