#pragma once

#include <functional>
#include <string>
#include <utility>

namespace Vel::CppUtil {

/// Process-wide check of invariants: reports an expression that does not hold and aborts the process. For
/// bugs of this program only; bad input causes an exception. Configured once at start-up, before other
/// threads exist; check() may then be called on any thread.
class AssertionHandler {
public:
    using OutputHandler = std::function<void(const std::string&)>;
    using StacktraceProvider = std::function<std::string()>;

    AssertionHandler(const AssertionHandler&) = delete;
    AssertionHandler& operator=(const AssertionHandler&) = delete;

    /// The one handler, created by the first call and never destroyed. Thread-safe.
    static AssertionHandler& instance();

    /// Receives the two texts of a report. Without a handler they go to standard error, each followed by a
    /// newline.
    void setOutputHandler(OutputHandler handler) { m_OutputHandler = std::move(handler); }
    void setStacktraceProvider(StacktraceProvider provider) { m_StacktraceProvider = std::move(provider); }
    void setAbortOnFailure(bool abortOnFailure) { m_AbortOnFailure = abortOnFailure; }

    /// If `condition` does not hold, writes the report and, unless that is turned off, aborts.
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

/// Checks an invariant. If it holds, only the test itself is executed, so this may be used per packet; the
/// handler is reached only if it fails.
#define VEL_ASSERT(expression)  \
    ((expression)               \
         ? static_cast<void>(0) \
         : ::Vel::CppUtil::AssertionHandler::instance().check(false, #expression, __FILE__, __LINE__))
