#pragma once

#include <functional>
#include <string>
#include <utility>

namespace Vel::CppUtil {

/// Process-wide guard of invariants: reports an expression that does not hold and aborts the process. For
/// bugs of this program only; bad input is an exception. Configured once at start-up, before other threads
/// exist; check() may then be called on any thread.
class AssertionHandler {
public:
    using OutputHandler = std::function<void(const std::string&)>;
    using StacktraceProvider = std::function<std::string()>;

    AssertionHandler(const AssertionHandler&) = delete;
    AssertionHandler& operator=(const AssertionHandler&) = delete;

    /// The one handler, created by the first call and never destroyed. Thread-safe.
    static AssertionHandler& instance();

    /// Receives the two texts of a report; without one they go to standard error, each followed by a line
    /// end.
    void setOutputHandler(OutputHandler handler) { m_OutputHandler = std::move(handler); }
    void setStacktraceProvider(StacktraceProvider provider) { m_StacktraceProvider = std::move(provider); }
    void setAbortOnFailure(bool abortOnFailure) { m_AbortOnFailure = abortOnFailure; }

    /// Returns at once when `condition` holds; otherwise writes the report and, unless that is switched off,
    /// aborts.
    /// @param expression source text of the tested expression
    void check(bool condition, const char* expression, const char* file, unsigned line) const;

private:
    AssertionHandler() = default;
    void output(const std::string& text) const;

    bool m_AbortOnFailure = true;
    OutputHandler m_OutputHandler;
    StacktraceProvider m_StacktraceProvider;
};

}  // namespace Vel::CppUtil

/// Checks an invariant. A holding one costs its test alone, so this may stand on a per-packet path: the
/// handler and its lock are only reached by a failing one.
#define VEL_ASSERT(expression)  \
    ((expression)               \
         ? static_cast<void>(0) \
         : ::Vel::CppUtil::AssertionHandler::instance().check(false, #expression, __FILE__, __LINE__))
