#include <fcntl.h>

#include <csignal>
#include <exception>
#include <memory>
#include <string>

#include "application_owner.h"
#include "vel/cpp_utils/assertion.h"
#include "vel/cpp_utils/log.h"
#include "vel/cpp_utils/posix/file_descriptor.h"

namespace {

using Vel::CppUtil::writeError;

void configureAssertions() {
    auto& assertions = Vel::CppUtil::AssertionHandler::instance();
    assertions.setOutputHandler(
        [](const std::string& text) { writeError("ZEPTFEM - fatal Error: " + text + "\n"); });
    assertions.setStacktraceProvider([] { return "ZEPTFEM - no stack unwinding implemented."; });
    assertions.setAbortOnFailure(true);
}

}  // namespace

int main(int argc, char** argv) {
    Vel::CppUtil::occupyStandardDescriptors(O_RDWR);
    Vel::Utils::ApplicationOwner::blockSignals();
    // A closed pipe and a size limit are reported as write errors.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    try {
        configureAssertions();
        Vel::Log::setLogsystem(std::make_unique<Vel::Log::StdoutLogger>(spdlog::level::info));
        // Created after the logging backend, so destroyed before it at process exit: the teardown can log.
        static Vel::Utils::ApplicationOwner application;
        application.construct(argc, argv);
        return application.run();
    } catch (const std::exception& e) {
        writeError(e.what());
        writeError("\n");
        return Vel::Utils::ApplicationOwner::EXIT_SETUP_FAILED;
    }
}
