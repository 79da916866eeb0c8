#include "vel/cpp_utils/assertion.h"

#include <cstdlib>
#include <iostream>

namespace Vel::CppUtil {

AssertionHandler& AssertionHandler::instance() {
    static auto* const handler = new AssertionHandler;
    return *handler;
}

void AssertionHandler::check(bool condition, const char* expression, const char* file, unsigned line) const {
    if (condition) {
        return;
    }
    output(std::string("Assertion failed: [") + expression + "] \nat:" + file + ":" + std::to_string(line) +
           "\n" + (m_AbortOnFailure ? "Aborting process!" : ""));
    output(m_StacktraceProvider ? "Stacktrace:\n" + m_StacktraceProvider() : "Stacktrace: Not available");
    if (m_AbortOnFailure) {
        std::abort();
    }
}

void AssertionHandler::output(const std::string& text) const {
    if (m_OutputHandler) {
        m_OutputHandler(text);
    } else {
        std::cerr << text << std::endl;
    }
}

}  // namespace Vel::CppUtil
