#include "vel/cpp_utils/log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <spdlog/sinks/ostream_sink.h>

#include <algorithm>
#include <array>
#include <future>
#include <sstream>
#include <thread>

#include "captured_output.h"

namespace Vel::Log {
namespace {

using testing::MatchesRegex;

constexpr const char* TIME = "\\[[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9][0-9][0-9]\\] ";

std::string messageOf(const std::string& line) {
    return line.substr(line.rfind("] ") + 2);
}

/// What a log system at info writes until it has shut down.
std::string logged(const std::function<void(ILogsystem&)>& body) {
    return outputOf(STDOUT_FILENO, [&body] {
        StdoutLogger logsystem(spdlog::level::info);
        body(logsystem);
        logsystem.shutdown();
    });
}

TEST(Log, LineIsTimeLevelAndMessage) {
    const std::string text = logged([](ILogsystem& logsystem) {
        const auto logger = logsystem.getLogger("name that is not written");
        debug(*logger, "below the level");
        info(*logger, "Detected added input TS: {} @ TSIIDX {}", "udp://239.10.0.1:5000", 3);
        warning(*logger, "{{literal}} %v");
        error(*logger, "{}", "{}");
    });
    EXPECT_THAT(text,
                MatchesRegex(std::string(TIME) +
                             "\\[info\\] Detected added input TS: udp://239\\.10\\.0\\.1:5000 @ TSIIDX 3\n" +
                             TIME + "\\[warning\\] \\{literal\\} %v\n" + TIME + "\\[error\\] \\{\\}\n"));
}

TEST(Log, NameAlwaysYieldsItsFirstLogger) {
    const std::string text = logged([](ILogsystem& logsystem) {
        const auto verbose = logsystem.getLogger("verbose", spdlog::level::debug);
        EXPECT_EQ(logsystem.getLogger("verbose", spdlog::level::err), verbose);
        EXPECT_EQ(logsystem.getLogger("verbose"), verbose);
        EXPECT_NE(logsystem.getLogger("other"), verbose);
        EXPECT_EQ(verbose->level(), spdlog::level::debug);
        debug(*verbose, "written");
        debug(*logsystem.getLogger("other"), "not written");
    });
    EXPECT_THAT(text, MatchesRegex(std::string(TIME) + "\\[debug\\] written\n"));
}

TEST(Log, MissingLogsystemIsReplacedOnceWithAWarning) {
    setLogsystem(nullptr);
    const std::string text = outputOf(STDOUT_FILENO, [] {
        const auto fallback = getLogsystem();
        EXPECT_EQ(getLogsystem(), fallback);
        EXPECT_EQ(fallback->getLogger("any")->level(), spdlog::level::info);
        fallback->shutdown();
    });
    EXPECT_THAT(text, MatchesRegex(std::string(TIME) +
                                   "\\[warning\\] No logsystem initialized\\. Falling back to stdout\\.\n"));

    auto installed = std::make_unique<StdoutLogger>(spdlog::level::warn);
    const ILogsystem* expected = installed.get();
    setLogsystem(std::move(installed));
    EXPECT_EQ(getLogsystem().get(), expected);
    getLogsystem()->shutdown();
    setLogsystem(nullptr);
}

TEST(Log, LinesOfAllThreadsStayWholeAndInOrder) {
    constexpr int THREADS = 4;
    constexpr int LINES = 1000;  // all fit the queue, so that none is dropped
    const std::string text = logged([](ILogsystem& logsystem) {
        const auto logger = logsystem.getLogger("shared");
        std::array<std::thread, THREADS> writers;
        for (std::size_t writer = 0; writer < THREADS; ++writer) {
            writers.at(writer) = std::thread([&logger, writer] {
                for (int line = 0; line < LINES; ++line) {
                    info(*logger, "{} {} {}", writer, line, std::string(100, 'x'));
                }
            });
        }
        for (auto& writer : writers) {
            writer.join();
        }
    });
    std::array<int, THREADS> next{};
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const int writer = messageOf(line).at(0) - '0';
        ASSERT_TRUE(writer >= 0 && writer < THREADS) << line;
        ASSERT_EQ(messageOf(line), fmt::format("{} {} {}", writer, next.at(writer)++, std::string(100, 'x')));
    }
    EXPECT_THAT(next, testing::Each(LINES));
}

TEST(Log, FullQueueDropsOldestLinesAndNoCallerWaits) {
    constexpr int QUEUE = 8192;
    constexpr int LINES = 3 * QUEUE;
    std::array<int, 2> pipeEnds{};
    ASSERT_EQ(pipe2(pipeEnds.data(), O_CLOEXEC), 0);
    fcntl(pipeEnds[1], F_SETPIPE_SZ, 4096);  // far less than the lines below
    std::future<std::string> received;
    {
        const RedirectedDescriptor redirected(STDOUT_FILENO, pipeEnds[1]);
        close(pipeEnds[1]);
        StdoutLogger logsystem(spdlog::level::info);
        const auto logger = logsystem.getLogger("flood");
        for (int line = 0; line < LINES; ++line) {  // nobody reads yet
            info(*logger, "{}", line);
        }
        received = std::async(std::launch::async, readToEnd, pipeEnds[0]);
        logsystem.shutdown();
    }
    const std::string text = received.get();
    const auto lines = std::count(text.begin(), text.end(), '\n');
    EXPECT_GE(lines, QUEUE);
    EXPECT_LT(lines, LINES);
    EXPECT_THAT(text, testing::EndsWith(fmt::format(" {}\n", LINES - 1)));
}

TEST(Log, LineAfterShutdownGoesToTheErrorHandlerAlone) {
    std::vector<std::string> errors;
    const std::string text = logged([&errors](ILogsystem& logsystem) {
        const auto logger = logsystem.getLogger("kept");
        logger->set_error_handler([&errors](const std::string& error) { errors.push_back(error); });
        info(*logger, "before");
        logsystem.shutdown();
        info(*logger, "after");
    });
    EXPECT_EQ(messageOf(text), "before\n");
    EXPECT_THAT(errors, testing::SizeIs(1));
}

TEST(Log, PlaceOfTheStatementTravelsWithTheMessage) {
    std::ostringstream text;
    spdlog::logger logger("located", std::make_shared<spdlog::sinks::ostream_sink_mt>(text));
    logger.set_pattern("%s:%# %! %v");
    info(logger, "{}", "message");
    const int line = __LINE__ - 1;
    EXPECT_THAT(text.str(), testing::StartsWith(fmt::format("log_test.cpp:{} ", line)));
    EXPECT_THAT(text.str(), testing::EndsWith(" TestBody message\n"));
}

TEST(Log, LoggerNameIsHeaderFileAndClass) {
    EXPECT_EQ(makeLoggerName("src/streaming/stream.h", "Vel::Utils::Stream::<lambda()>"),
              "stream.h::Vel::Utils::Stream");
    EXPECT_EQ(makeLoggerName("stream.h", "Vel::Utils::Stream::<lambda()>::<lambda()>"),
              "stream.h::Vel::Utils::Stream");
    EXPECT_EQ(makeLoggerName("stream.h", "Vel::Utils::Stream"), "stream.h::Vel::Utils::Stream");
    EXPECT_EQ(makeLoggerName("/stream.h", ""), "stream.h");
}

}  // namespace
}  // namespace Vel::Log
