#include <algorithm>
#include <map>
#include <set>

#include "emulator.h"

namespace Vel::SystemTest {
namespace {

/// Both programs together: rows go in and records are judged by zepctl alone.
class CompanionTest : public EmulatorTest {
protected:
    struct Result {
        int status;
        std::string out;
        std::string err;
    };

    Result zepctl(const std::vector<std::string>& command) const {
        std::vector<std::string> arguments = {"-t", tsio.path(), "-r", router.path()};
        arguments.insert(arguments.end(), command.begin(), command.end());
        Program program(ZEPCTL_PROGRAM, arguments);
        const int status = program.wait();
        return {status, program.out(), program.err()};
    }
    void run(const std::vector<std::string>& command) const {
        const Result result = zepctl(command);
        EXPECT_EQ(result.status, 0) << command[0] << ' ' << command[1] << ": " << result.err;
    }

    // Each of these asks for one event, waits for it, and remembers it.

    void addInput(std::uint32_t n, std::uint32_t tsiidx) {
        run({"input", "add", uri(n), std::to_string(tsiidx)});
        std::vector<std::string> told = {"[info] Detected added input TS: " + uri(n) + " @ TSIIDX " +
                                         std::to_string(tsiidx)};
        // Routes that waited for the input are told again.
        auto& waiting = m_Waiting[tsiidx];
        told.insert(told.end(), waiting.begin(), waiting.end());
        waiting.clear();
        m_Playing.insert(tsiidx);
        expect(told);
    }
    void removeInput(std::uint32_t n, std::uint32_t tsiidx) {
        run({"input", "remove", uri(n)});
        m_Playing.erase(tsiidx);
        expect({"[info] Detected removed input TS: " + uri(n) + " @ TSIIDX " + std::to_string(tsiidx)});
    }
    void changeRoute(const std::string& verb, const std::string& told, std::uint32_t tsiidx,
                     std::uint32_t pid) {
        run({"route", verb, std::to_string(tsiidx), std::to_string(pid)});
        const std::string line = "[info] Detected " + told + " CPU route of PID " + std::to_string(pid) +
                                 " from TSIIDX " + std::to_string(tsiidx);
        if (!m_Playing.contains(tsiidx)) {
            m_Waiting[tsiidx].push_back(line);
        }
        expect({line});
    }
    void addRoute(std::uint32_t tsiidx, std::uint32_t pid) { changeRoute("add", "added", tsiidx, pid); }
    void removeRoute(std::uint32_t tsiidx, std::uint32_t pid) {
        changeRoute("remove", "removed", tsiidx, pid);
    }

    std::vector<std::string> detected() const {
        std::vector<std::string> lines = emulator->log();
        std::erase_if(lines, [](const std::string& line) { return !line.starts_with("[info] Detected"); });
        return lines;
    }

    std::vector<std::string> m_Expected;

private:
    void expect(const std::vector<std::string>& lines) {
        m_Expected.insert(m_Expected.end(), lines.begin(), lines.end());
        ASSERT_TRUE(eventually([this] { return detected().size() >= m_Expected.size(); })) << lines.front();
    }

    std::map<std::uint32_t, std::vector<std::string>> m_Waiting;
    std::set<std::uint32_t> m_Playing;
};

TEST_F(CompanionTest, FortyRoutesInDescendingOrderAreFortyAdditions) {
    constexpr std::uint32_t ROUTES = 40;
    startAndWait(link(1, {}));
    for (std::uint32_t i = ROUTES; i > 0; --i) {
        run({"route", "add", std::to_string(i / 10), std::to_string(100 + i)});
    }
    ASSERT_TRUE(emulator->waitForLog("[info] Detected added CPU route", ROUTES));
    EXPECT_EQ(emulator->terminate(), 0);
    EXPECT_EQ(detected().size(), ROUTES);
}

TEST_F(CompanionTest, ChangesInAnyOrderYieldJustTheirEventsAndDisturbNoStream) {
    const std::map<std::uint32_t, std::uint32_t> tsiidxOf = {{1, 40}, {2, 20}, {3, 30}, {4, 10}, {5, 50}};
    constexpr std::uint64_t MILLISECOND = 27000;  // ticks
    std::map<std::uint32_t, Bytes> streams;
    std::vector<std::string> arguments = {"-m"};
    for (const auto& [n, tsiidx] : tsiidxOf) {
        streams[n] =
            makeStream({0x100, 0x101}, n == 3 ? 2000 : 300, n == 3 ? 2 * MILLISECOND : MILLISECOND / 100);
        const auto pair = link(n, streams[n]);
        arguments.insert(arguments.end(), pair.begin(), pair.end());
    }
    startAndWait(arguments);
    const auto play = [&](std::uint32_t n) {
        addRoute(tsiidxOf.at(n), 0x101);
        addRoute(tsiidxOf.at(n), 0x100);
        addInput(n, tsiidxOf.at(n));
    };
    // The long one plays for four seconds, while rows come and go on both sides of its own.
    play(3);
    for (const std::uint32_t n : {5U, 1U, 4U, 2U}) {
        play(n);
    }
    addRoute(7, 0x1FFF);
    ASSERT_TRUE(waitForRecords(4 * 300 * 192));
    removeInput(1, 40);
    removeRoute(10, 0x100);
    removeRoute(7, 0x1FFF);
    removeInput(5, 50);
    removeRoute(40, 0x101);
    addInput(9, 60);
    addInput(1, 41);
    ASSERT_TRUE(waitForRecords((4 * 300 + 2000) * 192));
    EXPECT_EQ(emulator->terminate(), 0);

    EXPECT_EQ(detected(), m_Expected);
    const Result check = zepctl({"records", "check", data});
    EXPECT_EQ(check.status, 0) << check.out << check.err;
    run({"records", "split", data, folder / "split"});
    for (const auto& [n, tsiidx] : tsiidxOf) {
        const std::string name = "tsiidx-0" + std::to_string(tsiidx) + ".ts";
        EXPECT_TRUE(readBytes(folder / "split" / name) == streams[n]) << name;
    }
}

TEST_F(CompanionTest, OnePacketCutOutOfAMillionIsFound) {
    constexpr std::uint32_t PACKETS = 1'000'000;
    constexpr std::size_t CUT = 654'321;
    Bytes all = recordsOf(makeStream({0x100, 0x101, 0x102}, PACKETS), 3, {0x100, 0x101, 0x102});
    writeBytes(data, all);
    EXPECT_EQ(zepctl({"records", "check", data}).status, 0);
    all.erase(all.begin() + CUT * 192, all.begin() + (CUT + 1) * 192);
    writeBytes(data, all);
    const Result check = zepctl({"records", "check", data});
    EXPECT_EQ(check.status, 1);
    // The packet after the cut one, of the same PID, is two records further on.
    EXPECT_NE((check.out + check.err).find(std::to_string(CUT + 2)), std::string::npos)
        << check.out << check.err;
}

}  // namespace
}  // namespace Vel::SystemTest
