#include "vel/cpp_utils/log.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <mutex>
#include <thread>
#include <utility>

#include <fmt/format.h>
#include <spdlog/async.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

namespace Vel::Log {

namespace {

constexpr std::size_t QUEUE_ENTRIES = 8192;
constexpr std::size_t WORKER_THREADS = 1;
constexpr const char* LINE_PATTERN = "[%T.%e] [%l] %v";

std::mutex g_LogsystemMutex;
std::shared_ptr<ILogsystem> g_ProcessLogsystem;  // guarded by g_LogsystemMutex

/// Bytes in a pipe that its reader has not read yet. 0 for a file; meaningless for a terminal.
int unreadBytes() {
    int bytes = 0;
    return ::ioctl(STDOUT_FILENO, FIONREAD, &bytes) == 0 ? bytes : 0;
}

bool waitForEmptyQueue(spdlog::details::thread_pool& pool, std::chrono::milliseconds patience) {
    constexpr std::chrono::milliseconds PAUSE(1);
    auto deadline = std::chrono::steady_clock::now() + patience;
    auto last = std::pair(pool.queue_size(), unreadBytes());
    for (auto current = last; current.first != 0; current = {pool.queue_size(), unreadBytes()}) {
        if (std::exchange(last, current) != current) {
            deadline = std::chrono::steady_clock::now() + patience;
        } else if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(PAUSE);
    }
    return true;
}

}  // namespace

StdoutLogger::StdoutLogger(spdlog::level::level_enum defaultLevel) : m_DefaultLevel(defaultLevel) {
    spdlog::init_thread_pool(QUEUE_ENTRIES, WORKER_THREADS);
    m_Sinks.push_back(std::make_shared<spdlog::sinks::stdout_sink_mt>());
    m_Sinks.back()->set_pattern(LINE_PATTERN);
}

std::shared_ptr<spdlog::logger> StdoutLogger::getLogger(const std::string& name) {
    return getLogger(name, m_DefaultLevel);
}

std::shared_ptr<spdlog::logger> StdoutLogger::getLogger(const std::string& name,
                                                        spdlog::level::level_enum level) {
    const std::lock_guard lock(m_CreationLock);
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

void StdoutLogger::setLevel(spdlog::level::level_enum level) {
    m_DefaultLevel = level;
    spdlog::set_level(level);
}

bool drain(std::chrono::milliseconds patience) {
    const auto pool = spdlog::thread_pool();
    if (!pool) {
        return true;
    }
    if (!waitForEmptyQueue(*pool, patience)) {
        return false;
    }
    // The worker may still be writing the last line. It handles this request after that.
    getLogsystem()->getLogger("Logsystem")->flush();
    return waitForEmptyQueue(*pool, patience);
}

void setLogsystem(std::unique_ptr<ILogsystem> logsystem) {
    const std::lock_guard lock(g_LogsystemMutex);
    g_ProcessLogsystem = std::move(logsystem);
}

std::shared_ptr<ILogsystem> getLogsystem() {
    const std::lock_guard lock(g_LogsystemMutex);
    if (!g_ProcessLogsystem) {
        g_ProcessLogsystem = std::make_shared<StdoutLogger>(spdlog::level::info);
        warning(*g_ProcessLogsystem->getLogger("Logsystem"),
                "No logsystem initialized. Falling back to stdout.");
    }
    return g_ProcessLogsystem;
}

void write(spdlog::logger& logger, spdlog::level::level_enum level, const spdlog::source_loc& where,
           fmt::string_view format, fmt::format_args args) noexcept {
    try {
        if (logger.should_log(level)) {
            // "{}" selects spdlog's formatting overload, the only one that reports its own failures.
            logger.log(where, level, "{}", fmt::vformat(format, args));
        }
    } catch (...) {  // no memory to report it either
    }
}

std::string makeLoggerName(std::string_view headerFile, std::string_view signature) {
    std::string name(headerFile.substr(headerFile.rfind('/') + 1));
    if (!signature.empty()) {
        name.append("::").append(signature);
    }
    return name.substr(0, name.find("::<lambda()>"));
}

}  // namespace Vel::Log
