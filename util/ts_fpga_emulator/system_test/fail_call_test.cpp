#include <algorithm>
#include <cerrno>
#include <cstring>

#include "harness.h"

namespace Vel::SystemTest {
namespace {

struct Failure {
    std::string call;
    int error;  // an errno, 0 for a short count

    /// Whether the call is to be repeated or completed, so that nobody sees that it failed.
    bool leavesNoTrace() const {
        return error == 0 || error == EINTR || (error == EAGAIN && call != "pthread_create");
    }
};

const std::vector<Failure> FAILURES = {{"open", ENOENT},
                                       {"open", EACCES},
                                       {"open", EMFILE},
                                       {"fstat", EIO},
                                       {"mmap", ENOMEM},
                                       {"mmap", EACCES},
                                       {"read", EIO},
                                       {"read", EINTR},
                                       {"read", EAGAIN},
                                       {"read", 0},
                                       {"write", ENOSPC},
                                       {"write", EPIPE},
                                       {"write", EIO},
                                       {"write", EINTR},
                                       {"write", EAGAIN},
                                       {"write", 0},
                                       {"poll", EINTR},
                                       {"poll", ENOMEM},
                                       {"malloc", ENOMEM},
                                       {"pthread_create", EAGAIN},
                                       {"clock_nanosleep", EINTR}};

/// Runs a scenario with the first, second, third … of the calls failing, until one ends without reaching its
/// call. Of the thousands of allocations, ever fewer are chosen, and of the sleeps between polls the first.
class FailCallTest : public EmulatorTest, public testing::WithParamInterface<Failure> {
protected:
    void SetUp() override {
        if (SANITIZED) {
            GTEST_SKIP() << "a sanitizer replaces the same calls";
        }
    }

    void forEachCall(const std::function<void()>& scenario) {
        constexpr int MAX_SLEEPS = 20;
        const bool isSleep = GetParam().call == "clock_nanosleep";
        for (m_At = 1; !isSleep || m_At < MAX_SLEEPS;
             m_At += GetParam().call == "malloc" ? 1 + m_At / 32 : 1) {
            SCOPED_TRACE(GetParam().call + " " + std::to_string(m_At) + " " +
                         std::strerror(GetParam().error));
            std::filesystem::remove(m_Mark);
            scenario();
            if (HasFailure() || !std::filesystem::exists(m_Mark)) {
                break;
            }
        }
    }

    std::function<void()> injection() const {
        return [this] {
            ::setenv("LD_PRELOAD", FAIL_CALL_LIBRARY, 1);
            ::setenv("FAIL_CALL", GetParam().call.c_str(), 1);
            ::setenv("FAIL_AT", std::to_string(m_At).c_str(), 1);
            ::setenv("FAIL_ERRNO", std::to_string(GetParam().error).c_str(), 1);
            ::setenv("FAIL_MARK", m_Mark.c_str(), 1);
        };
    }

    /// Whether an error is reported with its reason. That of a mapping has a fixed text without one, and
    /// without memory the report may be cut down to that.
    bool isReported() const {
        const std::string text = emulator->out() + emulator->err();
        const auto has = [&](const char* part) { return text.find(part) != std::string::npos; };
        return has(std::strerror(GetParam().error)) || has("Failed mmap") ||
               (GetParam().call == "malloc" && (has("[error]") || has("bad_alloc")));
    }

private:
    std::string m_Mark = folder / "mark";
    int m_At = 1;
};

TEST_P(FailCallTest, EmulatorReportsItAndWritesAGaplessBeginning) {
    const Bytes stream = makeStream({0x100, 0x101}, 8);
    Texts files = link(1, stream);
    files += link(2, stream);
    const Bytes expected = recordsOf(stream, 1, {0x100});
    forEachCall([&] {
        std::filesystem::remove(data);
        for (std::uint32_t n = 1; n <= 2; ++n) {
            setInput(n, n, n);
            setRoute(n, n, 0x100);
        }
        start(files, injection());
        const auto isOver = [&] { return !emulator->isRunning() || emulator->countLog("[error]") > 0; };
        const auto patience = std::chrono::seconds(1);
        eventually([&] { return isOver() || records().size() == 2 * expected.size(); }, patience);
        clearInput(1);
        clearRoute(2);
        eventually([&] { return isOver() || emulator->countLog("[info] Detected removed") == 2; }, patience);
        const int status =
            emulator->isRunning() ? emulator->terminate(std::chrono::seconds(10)) : emulator->wait();

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
        ASSERT_TRUE(isUntouched || (!GetParam().leavesNoTrace() && isReported()))
            << status << ' ' << written.size() << emulator->out() << emulator->err();
        ASSERT_FALSE(GetParam().leavesNoTrace() && emulator->countLog("[error]") > 0) << emulator->out();
    });
}

TEST_P(FailCallTest, CompanionLeavesEachTableAsItWasOrAsItShouldBe) {
    const auto fill = [&] {
        tsio.clear();
        router.clear();
        setInput(0, 1, 1);
        setInput(1, 3, 3);
        setRoute(0, 3, 0x100);
    };
    const auto run = [&](Texts command, const std::function<void()>& prepare) {
        Texts arguments = {"-t", tsio.path(), "-r", router.path()};
        arguments += command;
        emulator = std::make_unique<Program>(ZEPCTL_PROGRAM, arguments, prepare);
        return emulator->wait(std::chrono::seconds(10));
    };
    writeFile(folder / "in", recordsOf(makeStream({0x100}, 20), 3, {0x100}));
    const std::vector<Texts> commands = {{"input", "add", uri(2), "2"},
                                         {"input", "remove", uri(1)},
                                         {"route", "add", "1", "0x20"},
                                         {"route", "remove", "3", "0x100"},
                                         {"input", "list"},
                                         {"clear"},
                                         {"records", "check", folder / "in"},
                                         {"records", "split", folder / "in", folder / "split"},
                                         {"create", "--force", folder / "."}};
    for (const auto& command : commands) {
        SCOPED_TRACE(testing::PrintToString(command));
        fill();
        const Bytes tsioBefore = readFile(tsio.path());
        const Bytes routerBefore = readFile(router.path());
        ASSERT_EQ(run(command, {}), 0) << emulator->err();
        const std::string out = emulator->out();
        const Bytes tsioAfter = readFile(tsio.path());
        const Bytes routerAfter = readFile(router.path());
        forEachCall([&] {
            fill();
            const int status = run(command, injection());
            const Bytes tsioNow = readFile(tsio.path());
            const Bytes routerNow = readFile(router.path());
            ASSERT_TRUE(tsioNow == tsioAfter || (status != 0 && tsioNow == tsioBefore));
            ASSERT_TRUE(routerNow == routerAfter || (status != 0 && routerNow == routerBefore));
            const std::string err = emulator->err();
            if (status == 0) {
                ASSERT_EQ(emulator->out(), out);
                ASSERT_EQ(err, "");
            } else {
                ASSERT_TRUE(status == 2 || status == 3) << status << err;
                ASSERT_TRUE(err.starts_with("zepctl: ") && err.find('\n') == err.size() - 1) << err;
                ASSERT_TRUE(isReported()) << err;
                ASSERT_TRUE(!GetParam().leavesNoTrace() || GetParam().error == EAGAIN) << err;
            }
        });
    }
}

INSTANTIATE_TEST_SUITE_P(Calls, FailCallTest, testing::ValuesIn(FAILURES),
                         [](const testing::TestParamInfo<Failure>& failure) {
                             return failure.param.call + "_" +
                                    (failure.param.error == 0 ? "SHORT"
                                                              : ::strerrorname_np(failure.param.error));
                         });

}  // namespace
}  // namespace Vel::SystemTest
