#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>

#include "harness.h"

namespace Vel::SystemTest {
namespace {

constexpr int COUNT_OF_0 = -1;

/// The calls, and the errnos with which each fails; 0 is a short count.
const std::map<std::string, std::vector<int>> FAILURES = {
    {"open", {ENOENT, EACCES, EMFILE}},
    {"fstat", {EIO}},
    {"mmap", {ENOMEM, EACCES}},
    {"read", {EIO, EINTR, EAGAIN, 0}},
    {"write", {ENOSPC, EPIPE, EIO, EINTR, EAGAIN, 0, COUNT_OF_0}},
    {"flock", {ENOLCK}},
    {"ftruncate", {EIO}},
    {"mkfifo", {EACCES}},
    {"close", {EIO}},
    {"poll", {EINTR, ENOMEM}},
    {"malloc", {ENOMEM}},
    {"pthread_create", {EAGAIN}},
    {"clock_nanosleep", {EINTR}}};
/// Those that one of the programs does not make.
const Texts NOT_OF_EMULATOR = {"mkfifo"};
const Texts NOT_OF_COMPANION = {"write", "pthread_create", "clock_nanosleep"};  // the C library writes

/// Runs a scenario with the first, second, third … of the calls failing, until one ends without reaching its
/// call. Of the hundreds of allocations, ever fewer are chosen, and of the sleeps between polls the first.
class FailCallTest : public EmulatorTest,
                     public testing::WithParamInterface<std::pair<const std::string, std::vector<int>>> {
protected:
    void forEachFailure(const std::function<void()>& scenario) {
        if (SANITIZED) {
            GTEST_SKIP() << "a sanitizer replaces the same calls";
        }
        const int last = call == "clock_nanosleep" ? 20 : 1 << 20;
        for (const int failure : GetParam().second) {
            error = failure;
            for (int at = 1; at < last; at += call == "malloc" ? 1 + at / 16 : 1) {
                SCOPED_TRACE(call + ' ' + std::to_string(at) + ": " + std::strerror(error));
                std::filesystem::remove(m_Mark);
                m_At = std::to_string(at);
                scenario();
                if (HasFailure() || !isInjected()) {
                    break;
                }
                ++failures;
            }
        }
    }

    bool isInjected() const { return std::filesystem::exists(m_Mark); }

    std::function<void()> injection() const {
        return [this] {
            ::setenv("LD_PRELOAD", FAIL_CALL_LIBRARY, 1);
            ::setenv("FAIL_CALL", call.c_str(), 1);
            ::setenv("FAIL_AT", m_At.c_str(), 1);
            ::setenv("FAIL_ERRNO", std::to_string(error).c_str(), 1);
            ::setenv("FAIL_MARK", m_Mark.c_str(), 1);
        };
    }

    /// Whether the call is to be repeated or completed, so that nobody sees that it failed.
    bool leavesNoTrace() const {
        return error == 0 || error == EINTR || (error == EAGAIN && call != "pthread_create") ||
               call == "close";
    }
    /// Whether an error is reported with its reason. That of a mapping has a fixed text without one, and
    /// without memory the report may be cut down to that.
    bool isReported() const {
        const std::string text = emulator->out() + emulator->err();
        const auto has = [&](const char* part) { return text.find(part) != std::string::npos; };
        return has(std::strerror(error == COUNT_OF_0 ? EIO : error)) || has("Failed mmap") ||
               (call == "malloc" && (has("[error]") || has("bad_alloc")));
    }

    const std::string call = GetParam().first;
    int error = 0;
    int failures = 0;  // that were injected

private:
    std::string m_Mark = folder / "mark";
    std::string m_At;
};

TEST_P(FailCallTest, EmulatorReportsItAndWritesAGaplessBeginning) {
    const Bytes stream = makeStream({0x100, 0x101}, 8);
    const Texts files = link(1, stream) + link(2, stream);
    const Bytes expected = recordsOf(stream, 1, {0x100});
    forEachFailure([&] {
        std::filesystem::remove(data);
        for (std::uint32_t n = 1; n <= 2; ++n) {
            setInput(n, n, n);
            setRoute(n, n, 0x100);
        }
        start(files + Texts{"-v"}, injection());
        const auto isOver = [&] { return !emulator->isRunning() || emulator->countLog("[error]") > 0; };
        // A failure of the last record is reported at shutdown.
        ASSERT_TRUE(eventually([&] {
            return isOver() || records().size() == 2 * expected.size() ||
                   emulator->countLog("[debug] Stopping packet stream") == 2;
        }));
        emulator->signal(SIGUSR1);
        clearInput(1);
        clearRoute(2);
        // The allocation that failed may have been that of one of these lines.
        const std::size_t removals = call == "malloc" ? 1 : 2;
        ASSERT_TRUE(eventually(
            [&] { return isOver() || emulator->countLog("[info] Detected removed") >= removals; }));
        const int status = emulator->isRunning() ? emulator->terminate() : emulator->wait();

        ASSERT_TRUE(status == 0 || status == 1) << status << emulator->out() << emulator->err();
        const Bytes written = std::filesystem::exists(data) ? records() : Bytes{};
        ASSERT_EQ(written.size() % 192, 0U);
        for (std::uint32_t n = 1; n <= 2; ++n) {
            const Bytes got = recordsOfInput(written, n);
            const Bytes whole = recordsOf(stream, n, {0x100});
            ASSERT_LE(got.size(), whole.size());
            ASSERT_TRUE(std::equal(got.begin(), got.end(), whole.begin())) << "gap in the records of " << n;
        }
        const bool isUntouched = status == 0 && written.size() == 2 * expected.size();
        ASSERT_TRUE(isUntouched || (!leavesNoTrace() && isReported()))
            << status << ' ' << written.size() << emulator->out() << emulator->err();
        ASSERT_FALSE(leavesNoTrace() && emulator->countLog("[error]") > 0) << emulator->out();
        if (error == EINTR || error == 0) {
            ASSERT_EQ(emulator->err(), "\nReceived signal SIGTERM\n");
        }
    });
    EXPECT_TRUE(SANITIZED || (failures > 0) == (std::ranges::count(NOT_OF_EMULATOR, call) == 0)) << failures;
}

TEST_P(FailCallTest, CompanionLeavesEachTableAsItWasOrAsItShouldBe) {
    const auto fill = [&] {
        std::filesystem::remove_all(folder / "new");
        tsio.writeBlock8(0, Bytes(TSIO_SIZE));
        router.writeBlock8(0, Bytes(ROUTER_SIZE));
        setInput(0, 1, 1);
        setInput(1, 3, 3);
        setRoute(0, 3, 0x100);
    };
    const auto tables = [&] { return std::array{readFile(tsioPath), readFile(routerPath)}; };
    const auto run = [&](const Texts& command, const std::function<void()>& prepare) {
        const Texts devices = {"-t", tsioPath, "-r", routerPath};
        emulator = std::make_unique<Program>(ZEPCTL_PROGRAM, devices + command, prepare);
        return emulator->wait();
    };
    writeFile(folder / "in", recordsOf(makeStream({0x100}, 20), 3, {0x100}));
    const std::vector<Texts> commands = {{"input", "add", uri(2), "2"},
                                         {"input", "remove", uri(1)},
                                         {"route", "add", "1", "0x20"},
                                         {"route", "remove", "3", "0x100"},
                                         {"input", "list"},
                                         {"clear"},
                                         {"records", "check", folder / "in"},
                                         {"records", "split", folder / "in", folder / "new"},
                                         {"create", "--force", folder / "."},
                                         {"create", "--fifo", folder / "new"}};
    for (const auto& command : commands) {
        SCOPED_TRACE(testing::PrintToString(command));
        fill();
        const auto before = tables();
        ASSERT_EQ(run(command, {}), 0) << emulator->err();
        const std::string out = emulator->out();
        const auto after = tables();
        forEachFailure([&] {
            fill();
            const int status = run(command, injection());
            const auto now = tables();
            for (const std::size_t i : {0U, 1U}) {
                ASSERT_TRUE(now[i] == after[i] || (status != 0 && now[i] == before[i]));
            }
            const std::string err = emulator->err();
            ASSERT_TRUE(status != 0 || call != "flock" || !isInjected());
            if (status == 0) {
                ASSERT_EQ(emulator->out(), out);
                ASSERT_EQ(err, "");
            } else {
                ASSERT_TRUE(status == 2 || status == 3) << status << err;
                ASSERT_TRUE(err.starts_with("zepctl: ") && err.find('\n') == err.size() - 1) << err;
                ASSERT_TRUE(isReported()) << err;
                ASSERT_TRUE(!leavesNoTrace() || error == EAGAIN) << err;
            }
        });
    }
    EXPECT_TRUE(SANITIZED || (failures > 0) == (std::ranges::count(NOT_OF_COMPANION, call) == 0)) << failures;
}

INSTANTIATE_TEST_SUITE_P(Calls, FailCallTest, testing::ValuesIn(FAILURES),
                         [](const auto& failure) { return failure.param.first; });

}  // namespace
}  // namespace Vel::SystemTest
