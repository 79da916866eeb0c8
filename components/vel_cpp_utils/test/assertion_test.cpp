#include "vel/cpp_utils/assertion.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <csignal>
#include <iostream>
#include <string>
#include <vector>

#include "captured_output.h"

namespace Vel::CppUtil {
namespace {

using testing::ElementsAre;
using testing::Eq;
using testing::KilledBySignal;

/// The handler is one for the whole process, so every test leaves it as it was created.
class AssertionDeathTest : public testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
    void TearDown() override {
        handler.setOutputHandler({});
        handler.setStacktraceProvider({});
        handler.setAbortOnFailure(true);
    }

    std::vector<std::string>& recordTexts() {
        handler.setOutputHandler([this](const std::string& text) { m_Texts.push_back(text); });
        return m_Texts;
    }

    AssertionHandler& handler = AssertionHandler::instance();

private:
    std::vector<std::string> m_Texts;
};

TEST_F(AssertionDeathTest, FailureWritesBothTextsAndAborts) {
    const auto failAsConfiguredAtStartUp = [this] {
        handler.setOutputHandler(
            [](const std::string& text) { std::cerr << "ZEPTFEM - fatal Error: " << text << std::endl; });
        handler.setStacktraceProvider([] { return "ZEPTFEM - no stack unwinding implemented."; });
        handler.setAbortOnFailure(true);
        handler.check(false, "!m_LutMonitors.empty()", "fpga_monitor.cpp", 42);
    };
    EXPECT_EXIT(failAsConfiguredAtStartUp(), KilledBySignal(SIGABRT),
                Eq("ZEPTFEM - fatal Error: Assertion failed: [!m_LutMonitors.empty()] \n"
                   "at:fpga_monitor.cpp:42\n"
                   "Aborting process!\n"
                   "ZEPTFEM - fatal Error: Stacktrace:\n"
                   "ZEPTFEM - no stack unwinding implemented.\n"));
}

TEST_F(AssertionDeathTest, UnconfiguredHandlerWritesToStandardErrorAndAborts) {
    EXPECT_EXIT(handler.check(false, "expression", "file.cpp", 7), KilledBySignal(SIGABRT),
                Eq("Assertion failed: [expression] \nat:file.cpp:7\nAborting process!\n"
                   "Stacktrace: Not available\n"));
}

TEST_F(AssertionDeathTest, WithoutAbortTheCheckReturnsToItsCaller) {
    handler.setAbortOnFailure(false);
    EXPECT_EQ(outputOf(STDERR_FILENO, [this] { handler.check(false, "expression", "file.cpp", 7); }),
              "Assertion failed: [expression] \nat:file.cpp:7\n\nStacktrace: Not available\n");

    const auto& texts = recordTexts();
    handler.setStacktraceProvider([] { return "frame"; });
    handler.check(true, "holds", "file.cpp", 7);
    handler.check(false, "expression", "file.cpp", 7);
    EXPECT_THAT(texts, ElementsAre("Assertion failed: [expression] \nat:file.cpp:7\n", "Stacktrace:\nframe"));
}

TEST_F(AssertionDeathTest, MacroReportsTheExpressionAsWrittenAndItsPlace) {
    handler.setAbortOnFailure(false);
    const auto& texts = recordTexts();
    const void* state = nullptr;
    int evaluations = 0;

    VEL_ASSERT(++evaluations == 1);
    EXPECT_THAT(texts, ElementsAre());
    EXPECT_EQ(evaluations, 1);

    VEL_ASSERT(static_cast<bool>(state));
    const std::string place = fmt::format("{}:{}", __FILE__, __LINE__ - 1);
    EXPECT_THAT(texts, ElementsAre("Assertion failed: [static_cast<bool>(state)] \nat:" + place + "\n",
                                   "Stacktrace: Not available"));
}

}  // namespace
}  // namespace Vel::CppUtil
