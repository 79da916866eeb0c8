#include "vel/cpp_utils/log.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <future>
#include <sstream>

#include <gmock/gmock.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/ostream_sink.h>

#include "test_files.h"
#include "vel/cpp_utils/assertion.h"

namespace Vel::Log {
namespace {

using testing::MatchesRegex;

const std::string TIME = "\\[[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9][0-9][0-9]\\] ";

/// What a log system at info writes until it has shut down.
std::string logged(const std::function<void(ILogsystem&)>& body) {
    testing::internal::CaptureStdout();
    StdoutLogger logsystem(spdlog::level::info);
    body(logsystem);
    logsystem.shutdown();
    return testing::internal::GetCapturedStdout();
}

TEST(Log, LineIsTimeLevelAndMessageAndANameYieldsItsFirstLogger) {
    EXPECT_EQ(makeLoggerName("a/b.h", "N::C::<lambda()>") + makeLoggerName("b", ""), "b.h::N::Cb");
    const std::string text = logged([](ILogsystem& logsystem) {
        const auto logger = logsystem.getLogger("name that is not written");
        debug(*logger, "below the level");
        info(*logger, "Detected added input TS: {} @ TSIIDX {}", "udp://239.10.0.1:5000", 3);
        warning(*logger, "{{literal}} %v");
        const auto verbose = logsystem.getLogger("verbose", spdlog::level::debug);
        EXPECT_EQ(logsystem.getLogger("verbose", spdlog::level::err), verbose);
        EXPECT_EQ(logsystem.getLogger("verbose"), verbose);
        EXPECT_NE(logger, verbose);
        debug(*verbose, "{}", "{}");
        error(*verbose, "last");
    });
    EXPECT_THAT(
        text,
        MatchesRegex(TIME + "\\[info\\] Detected added input TS: udp://239\\.10\\.0\\.1:5000 @ TSIIDX 3\n" +
                     TIME + "\\[warning\\] \\{literal\\} %v\n" + TIME + "\\[debug\\] \\{\\}\n" + TIME +
                     "\\[error\\] last\n"));
}

/// As streams that start together do.
TEST(Log, ThreadsMayWantANewLoggerAtOnce) {
    logged([](ILogsystem& logsystem) {
        const auto getAll = [&] {
            for (int i = 0; i < 2000; ++i) {
                logsystem.getLogger(std::to_string(i));
            }
        };
        std::array<std::future<void>, 4> threads;
        std::ranges::generate(threads, [&] { return std::async(std::launch::async, getAll); });
        for (auto& thread : threads) {
            EXPECT_NO_THROW(thread.get());
        }
    });
}

TEST(Log, MissingLogsystemIsReplacedOnceWithAWarning) {
    setLogsystem(nullptr);
    testing::internal::CaptureStdout();
    const auto fallback = getLogsystem();
    EXPECT_EQ(getLogsystem(), fallback);
    EXPECT_EQ(fallback->getLogger("any")->level(), spdlog::level::info);
    fallback->shutdown();
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                MatchesRegex(TIME + "\\[warning\\] No logsystem initialized\\. Falling back to stdout\\.\n"));
    auto installed = std::make_unique<StdoutLogger>(spdlog::level::warn);
    const ILogsystem* expected = installed.get();
    setLogsystem(std::move(installed));
    EXPECT_EQ(getLogsystem().get(), expected);
    getLogsystem()->shutdown();
    setLogsystem(nullptr);
}

/// Nobody reads the log at first: no caller waits, and the newest lines are kept.
TEST(Log, FullQueueDropsOldestLines) {
    constexpr int LINES = 3 * 8192;
    const TestSupport::TemporaryFolder folder;
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    ::fcntl(ends[1], F_SETPIPE_SZ, 4096);  // far less than the lines below
    const int original = ::dup(STDOUT_FILENO);
    ::dup2(ends[1], STDOUT_FILENO);
    ::close(ends[1]);
    StdoutLogger logsystem(spdlog::level::info);
    for (int line = 0; line < LINES; ++line) {
        info(*logsystem.getLogger("flood"), "{}", line);
    }
    std::jthread reader([&] {
        std::array<char, 4096> block{};
        std::string text;
        for (ssize_t got = 0; (got = ::read(ends[0], block.data(), block.size())) > 0;) {
            text.append(block.data(), static_cast<std::size_t>(got));
        }
        TestSupport::writeFile(folder / "log", text);
    });
    logsystem.shutdown();
    ::dup2(original, STDOUT_FILENO);
    ::close(original);
    reader.join();
    const auto text = TestSupport::readFile<std::string>(folder / "log");
    const auto lines = std::ranges::count(text, '\n');
    EXPECT_TRUE(lines >= 8192 && lines < LINES) << lines;
    EXPECT_THAT(text, testing::EndsWith(fmt::format(" {}\n", LINES - 1)));
}

TEST(Log, LocationIsThatOfTheStatement) {
    std::ostringstream text;
    spdlog::logger logger("located", std::make_shared<spdlog::sinks::ostream_sink_mt>(text));
    logger.set_pattern("%s:%# %v");
    info(logger, "{}", "message");
    EXPECT_EQ(text.str(), fmt::format("log_test.cpp:{} message\n", __LINE__ - 1));
}

TEST(AssertionDeathTest, FailureIsWrittenAndAbortsUnlessItIsTurnedOff) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto& handler = CppUtil::AssertionHandler::instance();
    EXPECT_EXIT(handler.check(false, "expression", "file.cpp", 7), testing::KilledBySignal(SIGABRT),
                testing::Eq("Assertion failed: [expression] \nat:file.cpp:7\nAborting process!\n"
                            "Stacktrace: Not available\n"));
    std::string texts;
    handler.setOutputHandler([&](const std::string& text) { texts += text + "|"; });
    handler.setAbortOnFailure(false);
    int evaluations = 0;
    VEL_ASSERT(++evaluations == 1);
    EXPECT_EQ(texts, "");
    VEL_ASSERT(++evaluations == 1);
    handler.setStacktraceProvider([] { return "frame"; });
    handler.check(false, "expression", "file.cpp", 7);
    EXPECT_EQ(texts,
              fmt::format("Assertion failed: [++evaluations == 1] \nat:{}:{}\n|Stacktrace: Not available|"
                          "Assertion failed: [expression] \nat:file.cpp:7\n|Stacktrace:\nframe|",
                          __FILE__, __LINE__ - 6));
    EXPECT_EQ(evaluations, 2);
    handler.setOutputHandler({});
    handler.setStacktraceProvider({});
    handler.setAbortOnFailure(true);
}

}  // namespace
}  // namespace Vel::Log
