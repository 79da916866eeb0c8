#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include <fmt/core.h>
#include <spdlog/common.h>
#include <spdlog/fwd.h>

namespace Vel::Log {

/// A log system hands out named loggers. A component gets its logger once, in its constructor, and keeps it.
class ILogsystem {
public:
    virtual ~ILogsystem() = default;
    /// The logger of that name, created with the log system's default level if it does not exist yet. Any
    /// thread.
    virtual std::shared_ptr<spdlog::logger> getLogger(const std::string& name) = 0;
    /// The logger of that name, created with `level` if it does not exist yet; an existing one keeps its
    /// level.
    virtual std::shared_ptr<spdlog::logger> getLogger(const std::string& name,
                                                      spdlog::level::level_enum level) = 0;
    /// Drops all loggers, writes out what is queued and joins the worker.
    virtual void shutdown() = 0;
    /// Sets the level of all existing and future loggers.
    virtual void setLevel(spdlog::level::level_enum level) = 0;
};

/// Writes every line to standard output through one background worker, "[time] [level] message". A full queue
/// drops its oldest line; no caller ever waits. Thread-safe, except for construction and shutdown(). If two
/// threads create the same logger at the same time, one of them may get spdlog's exception.
class StdoutLogger : public ILogsystem {
public:
    explicit StdoutLogger(spdlog::level::level_enum defaultLevel);

    std::shared_ptr<spdlog::logger> getLogger(const std::string& name) override;
    std::shared_ptr<spdlog::logger> getLogger(const std::string& name,
                                              spdlog::level::level_enum level) override;
    void shutdown() override;
    void setLevel(spdlog::level::level_enum level) override;

private:
    spdlog::level::level_enum m_DefaultLevel;
    std::vector<spdlog::sink_ptr> m_Sinks;
    std::mutex m_CreationLock;  // of loggers
};

/// Waits until the worker has written every queued line. False once `patience` has passed without progress,
/// for example because standard output is a full pipe that nobody reads. For shutdown: no other thread may
/// log meanwhile.
[[nodiscard]] bool drain(std::chrono::milliseconds patience);

/// Replaces the process-wide log system. Thread-safe.
void setLogsystem(std::unique_ptr<ILogsystem> logsystem);

/// The process-wide log system. If there is none, it installs a StdoutLogger and logs a warning. Thread-safe.
std::shared_ptr<ILogsystem> getLogsystem();

/// Registry key of a class's logger: the header's file name without its folders, "::" and the qualified class
/// name, which is `signature` up to "::<lambda()>".
std::string makeLoggerName(std::string_view headerFile, std::string_view signature);

/// A format text and the source location of the statement that uses it.
template <typename... Args>
struct LocatedFormat {
    template <typename Text>
    consteval LocatedFormat(const Text& format,  // not explicit, so that a literal converts
                            const char* file = __builtin_FILE(), int line = __builtin_LINE(),
                            const char* function = __builtin_FUNCTION())
        : text(format), where(file, line, function) {}

    fmt::format_string<Args...> text;
    spdlog::source_loc where;
};

/// Not deduced from: the arguments alone decide the types.
template <typename... Args>
using Format = LocatedFormat<std::type_identity_t<Args>...>;

/// Formats and queues one line if the logger has that level. Never throws: if memory is short, the line is
/// dropped. So logging is safe in thread bodies, event handlers and destructors.
void write(spdlog::logger& logger, spdlog::level::level_enum level, const spdlog::source_loc& where,
           fmt::string_view format, fmt::format_args args) noexcept;

template <typename... Args>
void debug(spdlog::logger& logger, Format<Args...> format, Args&&... args) noexcept {
    write(logger, spdlog::level::debug, format.where, format.text, fmt::make_format_args(args...));
}

template <typename... Args>
void info(spdlog::logger& logger, Format<Args...> format, Args&&... args) noexcept {
    write(logger, spdlog::level::info, format.where, format.text, fmt::make_format_args(args...));
}

template <typename... Args>
void warning(spdlog::logger& logger, Format<Args...> format, Args&&... args) noexcept {
    write(logger, spdlog::level::warn, format.where, format.text, fmt::make_format_args(args...));
}

template <typename... Args>
void error(spdlog::logger& logger, Format<Args...> format, Args&&... args) noexcept {
    write(logger, spdlog::level::err, format.where, format.text, fmt::make_format_args(args...));
}

}  // namespace Vel::Log
