#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include "expected_records.h"
#include "harness.h"
#include "test_random.h"
#include "vel/cpp_utils/posix/file_descriptor.h"

namespace Vel::SystemTest {
namespace {

std::string changeLine(bool isAdded, const std::string& what, std::uint32_t tsiidx) {
    return std::string("[info] Detected ") + (isAdded ? "added " : "removed ") + what +
           std::to_string(tsiidx);
}
std::string inputLine(bool isAdded, std::uint32_t n, std::uint32_t tsiidx) {
    return changeLine(isAdded, "input TS: " + uri(n) + " @ TSIIDX ", tsiidx);
}
std::string routeLine(bool isAdded, std::uint32_t tsiidx, std::uint32_t pid) {
    return changeLine(isAdded, "CPU route of PID " + std::to_string(pid) + " from TSIIDX ", tsiidx);
}

/// Inputs and routes come and go, by zepctl or by rows, while a slow reader takes the records. A model of
/// what each change means knows which log lines must come, and which records may and must.
class StreamModelTest : public EmulatorTest, public testing::WithParamInterface<Texts> {
protected:
    static constexpr std::uint32_t FILES = 3;
    static constexpr std::uint32_t SYNC = 9;  // an input with an empty file, and its TSIIDX
    static constexpr std::uint32_t PIDS[] = {0x100, 0x101, 0x102, 0x103};
    static constexpr std::uint32_t CLOCK_PACKETS = 1600;  // from a jump of the clock to the next one
    const bool isClocked = GetParam() == Texts{"-c"};

    void SetUp() override {
        ASSERT_EQ(::mkfifo(data.c_str(), 0600), 0);
        m_Fifo = CppUtil::FileDescriptor(::open(data.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        m_Reader = std::jthread([this](const std::stop_token& stop) { readSlowly(stop); });
        Texts arguments = GetParam() + link(SYNC, {});
        for (std::uint32_t n = 1; n <= FILES; ++n) {
            // 50,000 packets per second, or 5000, for which the reader is not too slow. One file is short.
            m_Files[n] = makeStream({std::begin(PIDS), std::end(PIDS)}, (n == 1 ? 2000 : 100000) + n,
                                    isClocked ? 5400 : 540, isClocked ? CLOCK_PACKETS : UINT32_MAX);
            arguments = arguments + link(n, m_Files[n]);
        }
        startAndWait(arguments);
        m_Log.open(emulator->outPath());
        expect("[info] Starting the zeptfem application");
    }

    void playRound() {
        m_ByCompanion = !m_ByCompanion;
        ++seen[m_ByCompanion ? "rounds by zepctl" : "rounds by rows"];
        changeInput(SYNC, SYNC);
        for (int i = 0; i < 60 && !HasFailure(); ++i) {
            const std::uint32_t n = 1 + random.below(FILES);
            const std::uint32_t tsiidx = m_Inputs.contains(n) ? m_Inputs[n] : n + 10 * random.below(2);
            const std::uint32_t what = random.below(20);
            if (what == 0) {
                replaceInputs();
                truncateInputs();
            } else if (what < 5) {
                // On for long, so that the file does not rush to its end.
                const bool waitsForInput = random.oneIn(2);
                if (waitsForInput) {
                    changeRoute(tsiidx, PIDS[0]);
                }
                changeRoute(tsiidx, PIDS[1 + random.below(3)]);
                changeInput(n, tsiidx);
                if (!waitsForInput) {
                    changeRoute(tsiidx, PIDS[0]);
                }
            } else {
                changeRoute(tsiidx, PIDS[1 + random.below(3)]);
            }
        }
        for (const auto& [tsiidx, pid] : std::set(m_Routes)) {
            if (tsiidx != SYNC) {
                changeRoute(tsiidx, pid);
            }
        }
        for (const auto& [n, tsiidx] : std::map(m_Inputs)) {
            changeInput(n, tsiidx);
        }
        if (seen["files played to the end"] == 0) {
            playToTheEnd();
        }
        if (m_Routes.contains({SYNC, PIDS[0]})) {
            toggleRoute(SYNC, PIDS[0]);
        }
        check();
        m_Lives.clear();
    }

    /// The next line of the log must be this one, or begin with it where it is an error.
    void expect(const std::string& expected) {
        std::string line;
        const bool isThere = eventually([&] {
            const auto begin = m_Log.tellg();
            if (std::getline(m_Log, line) && !m_Log.eof()) {
                // On a busy machine, packets are late, and the memory is restored before the next poll.
                return line.find(" ms late; ") == std::string::npos &&
                       (expected.starts_with("[error]") ||
                        line.find("(its file system") == std::string::npos);
            }
            m_Log.clear();
            m_Log.seekg(begin);
            return false;
        });
        ASSERT_TRUE(isThere) << "missing: " << expected;
        line.erase(0, line.find(' ') + 1);
        ASSERT_EQ(expected.starts_with("[error]") ? line.substr(0, expected.size()) : line, expected);
    }

    /// The program ends while an input plays: what has been written is a gapless beginning. More records than
    /// the device holds have been read by then, but the rest does not fit into it.
    void endWhilePlaying() {
        m_ReadLimit = 1000 * RECORD;
        changeInput(SYNC, SYNC);
        changeRoute(FILES, PIDS[0]);
        changeInput(FILES, FILES);
        ASSERT_TRUE(eventually([&] {
            const std::lock_guard lock(m_ReadLock);
            return m_Arrived.size() >= m_ReadLimit;
        }));
        EXPECT_EQ(emulator->terminate(), 0);
        expect("[info] Application exit has been signaled...");
        seen["shutdowns while playing"] += 4 * countWritten() < m_Files[FILES].size() / PACKET ? 1 : 0;
        m_ReadLimit = SIZE_MAX;
        check();
    }

    TestSupport::Random random;
    /// What a run must have seen, and how often.
    std::map<std::string, std::size_t> seen;
    bool hasSeenAll(bool isEnded) const {
        return seen.size() == (isClocked ? 7U : 6U) + (isEnded ? 1 : 0) &&
               std::ranges::all_of(seen, [](const auto& what) { return what.second > 0; });
    }

private:
    /// Reads the data device up to the limit, at times not at all.
    void readSlowly(const std::stop_token& stop) {
        TestSupport::Random pauses;
        for (std::uint8_t block[8192]; !stop.stop_requested();) {
            std::unique_lock lock(m_ReadLock);
            const bool goesOn = m_Arrived.size() < m_ReadLimit;
            const ssize_t got = goesOn ? ::read(m_Fifo.get(), block, sizeof block) : 0;
            m_Arrived.insert(m_Arrived.end(), block, block + std::max<ssize_t>(got, 0));
            lock.unlock();
            std::this_thread::sleep_for(std::chrono::milliseconds(pauses.oneIn(100) ? 50 : 1));
        }
    }

    /// Records of this round that have been written until now, whether they have been read yet or not.
    std::size_t countWritten() {
        const std::lock_guard lock(m_ReadLock);
        int unread = 0;
        ::ioctl(m_Fifo.get(), FIONREAD, &unread);
        return (m_Arrived.size() + static_cast<std::size_t>(unread)) / RECORD;
    }

    void zepctl(const Texts& command) const {
        const Texts devices = {"-t", tsioPath, "-r", routerPath};
        Program program(ZEPCTL_PROGRAM, devices + command);
        ASSERT_EQ(program.wait(), 0) << program.err();
    }

    Life* findPlaying(std::uint32_t tsiidx) {
        auto& lives = m_Lives[tsiidx];
        const auto input = lives.empty() ? m_Inputs.end() : m_Inputs.find(lives.back().n);
        return input == m_Inputs.end() || input->second != tsiidx ? nullptr : &lives.back();
    }

    /// The number in its file of the input's packet that was read last.
    std::optional<std::uint32_t> findLastPacket(std::uint32_t tsiidx) {
        const Life* life = findPlaying(tsiidx);
        const std::lock_guard lock(m_ReadLock);
        for (std::size_t i = m_Arrived.size() / RECORD; life != nullptr && i-- > life->span.mayFrom;) {
            const std::uint8_t* record = m_Arrived.data() + i * RECORD;
            if (record[0] == tsiidx) {
                return Ts::readRecordHeader(record + RECORD - Ts::RECORD_HEADER_SIZE);
            }
        }
        return std::nullopt;
    }
    std::uint32_t countPackets(const Life& life) const {
        return static_cast<std::uint32_t>(m_Files.at(life.n).size() / PACKET);
    }

    /// An input of which a PID has been routed from its first packet delivers more, up to the end of its
    /// file.
    void expectProgress(std::uint32_t tsiidx) {
        const Life* life = findPlaying(tsiidx);
        if (life == nullptr || life->n == SYNC || !life->routes.contains(PIDS[0])) {
            return;
        }
        const std::vector<Span>& spans = life->routes.at(PIDS[0]);
        if (spans.size() != 1 || spans[0].mustFrom != 0 || spans[0].mustTo != NEVER) {
            return;
        }
        const std::uint32_t last = (countPackets(*life) - 1) / 4 * 4;  // of this PID
        const auto before = findLastPacket(tsiidx);
        std::optional<std::uint32_t> now;
        ASSERT_TRUE(eventually([&] {
            now = findLastPacket(tsiidx);
            return now > before || now >= last;
        })) << "TSIIDX "
            << tsiidx << " stands still after packet " << before.value_or(-1) << " of " << last;
        seen["files played to the end"] += now >= last ? 1 : 0;
    }

    void playToTheEnd() {
        constexpr std::uint32_t SHORT_FILE = 1;
        changeInput(SYNC, SYNC);
        // First: routes of earlier rounds would start the stream without it.
        changeRoute(SHORT_FILE, PIDS[0]);
        changeInput(SHORT_FILE, SHORT_FILE);
        while (!HasFailure() && seen["files played to the end"] == 0) {
            expectProgress(SHORT_FILE);
        }
        changeRoute(SHORT_FILE, PIDS[0]);
        changeInput(SHORT_FILE, SHORT_FILE);
        changeInput(SYNC, SYNC);
    }

    void changeInput(std::uint32_t n, std::uint32_t tsiidx) {
        expectProgress(tsiidx);
        const std::size_t before = countWritten();
        const bool isAdded = m_Inputs.emplace(n, tsiidx).second;
        if (m_ByCompanion) {
            zepctl(isAdded ? Texts{"input", "add", uri(n), std::to_string(tsiidx)}
                           : Texts{"input", "remove", uri(n)});
        } else {
            isAdded ? setInput(n, n, tsiidx) : clearInput(n);
        }
        expect(inputLine(isAdded, n, tsiidx));
        if (isAdded) {
            Life life{n, {before}};
            for (const auto& [pid, isRouted] : std::exchange(m_Waiting[tsiidx], {})) {
                expect(routeLine(isRouted, tsiidx, pid));
                life.routes[pid] = isRouted ? std::vector{Span{before, 0}} : std::vector<Span>{};
                life.isStarted |= isRouted;
            }
            seen["inputs started by a pending route"] += life.isStarted ? 1 : 0;
            m_Lives[tsiidx].push_back(life);
        }
        isAdded ? 0 : m_Inputs.erase(n);
        synchronize();
        if (isAdded) {
            expectProgress(tsiidx);
        } else {
            m_Lives[tsiidx].back().span.mayTo = countWritten();
        }
    }

    bool toggleRoute(std::uint32_t tsiidx, std::uint32_t pid) {
        const bool isAdded = m_Routes.insert({tsiidx, pid}).second;
        if (m_ByCompanion) {
            zepctl({"route", isAdded ? "add" : "remove", std::to_string(tsiidx), std::to_string(pid)});
        } else {
            const std::uint32_t row = 8 * tsiidx + pid % 8;
            isAdded ? setRoute(row, tsiidx, pid) : clearRoute(row);
        }
        if (!isAdded) {
            m_Routes.erase({tsiidx, pid});
        }
        expect(routeLine(isAdded, tsiidx, pid));
        if (findPlaying(tsiidx) == nullptr) {
            m_Waiting[tsiidx].emplace_back(pid, isAdded);
        }
        return isAdded;
    }

    /// An event of a later poll: all that earlier ones brought has taken effect.
    void synchronize() { toggleRoute(SYNC, PIDS[0]); }

    void changeRoute(std::uint32_t tsiidx, std::uint32_t pid) {
        const std::size_t before = countWritten();
        const bool isAdded = toggleRoute(tsiidx, pid);
        synchronize();
        Life* life = findPlaying(tsiidx);
        if (life == nullptr) {
            return;
        }
        const auto packet = findLastPacket(tsiidx);
        seen["routes changed while playing"] += packet && *packet < countPackets(*life) - 4 ? 1 : 0;
        auto& spans = life->routes[pid];
        if (isAdded) {
            const bool isStarted = std::exchange(life->isStarted, true);
            spans.push_back({before, isStarted ? countWritten() + 1 : 0});
        } else if (!spans.empty()) {
            spans.back().mustTo = before;
            spans.back().mayTo = countWritten();
        }
    }

    /// Another file by the name of the one that is mapped changes nothing.
    void replaceInputs() {
        std::filesystem::rename(tsioPath, folder / "mapped");
        createTable(tsioPath, TSIO_SIZE);
        synchronize();
        std::filesystem::rename(folder / "mapped", tsioPath);
    }

    void truncateInputs() {
        ASSERT_EQ(::truncate(tsioPath.c_str(), 0), 0);
        expect("[error] PCI Error: Cannot access device memory. Device " + tsioPath);
        ASSERT_EQ(::truncate(tsioPath.c_str(), TSIO_SIZE), 0);
        for (const auto& [n, tsiidx] : m_Inputs) {
            expect(inputLine(false, n, tsiidx));
        }
        expect("[info] The IP LUT is readable again; monitoring resumes");
        for (const auto& [n, tsiidx] : std::exchange(m_Inputs, {})) {
            m_Lives[tsiidx].back().span.mayTo = countWritten();
        }
        changeInput(SYNC, SYNC);
    }

    void check() {
        const std::size_t written = countWritten();
        ASSERT_TRUE(eventually([&] {
            const std::lock_guard lock(m_ReadLock);
            return m_Arrived.size() >= written * RECORD;
        }));
        std::unique_lock lock(m_ReadLock);
        const Bytes arrived = std::exchange(m_Arrived, {});
        lock.unlock();
        ASSERT_EQ(arrived.size() % RECORD, 0U);
        seen["records"] += arrived.size() / RECORD;
        std::size_t jumps = 0;
        judgeRecords(arrived, m_Files, m_Lives, CLOCK_PACKETS, jumps);
        if (isClocked) {  // -m waits for hours for a clock that jumps back
            seen["clock jumps"] += jumps;
        }
    }

    std::map<std::uint32_t, Bytes> m_Files;
    std::ifstream m_Log;
    bool m_ByCompanion = false;
    std::map<std::uint32_t, std::uint32_t> m_Inputs;             // TSIIDX by file
    std::set<std::pair<std::uint32_t, std::uint32_t>> m_Routes;  // TSIIDX and PID, as the rows have them
    std::map<std::uint32_t, std::vector<std::pair<std::uint32_t, bool>>> m_Waiting;  // for their input
    std::map<std::uint32_t, std::vector<Life>> m_Lives;                              // by TSIIDX
    CppUtil::FileDescriptor m_Fifo;
    std::mutex m_ReadLock;
    Bytes m_Arrived;  // guarded by m_ReadLock
    std::atomic<std::size_t> m_ReadLimit = SIZE_MAX;
    std::jthread m_Reader;
};

/// What the process holds when nothing plays.
std::array<std::size_t, 3> measure(pid_t pid) {
    const std::string process = "/proc/" + std::to_string(pid);
    const auto count = [&](const char* entries) {
        std::filesystem::directory_iterator all(process + entries);
        return static_cast<std::size_t>(std::distance(begin(all), end(all)));
    };
    const std::string memory = readFile<std::string>(process + "/statm");
    return {count("/fd"), count("/task"), std::stoul(memory.substr(memory.find(' '))) / 256};
}

TEST_P(StreamModelTest, RecordsAndLogAreThoseOfTheChanges) {
    SCOPED_TRACE(random.origin());
    constexpr int MAX_ROUNDS = 50;  // until everything has happened
    const std::chrono::seconds duration(TestSupport::testNumber("ZEPTFEM_TEST_SECONDS", 2));
    const auto end = std::chrono::steady_clock::now() + duration;
    playRound();
    const auto first = measure(emulator->pid());
    auto last = first;
    int rounds = 1;
    const auto isOver = [&] {
        return std::chrono::steady_clock::now() >= end && (hasSeenAll(false) || rounds >= MAX_ROUNDS);
    };
    for (; !HasFailure() && !isOver(); ++rounds) {
        playRound();
        last = measure(emulator->pid());
        ASSERT_EQ(std::pair(last[0], last[1]), std::pair(first[0], first[1])) << "descriptors, threads";
        // A sanitizer holds back what was freed, 256 MiB of it.
        ASSERT_LE(last[2], first[2] + (SANITIZED ? 512 : 16)) << "MiB";
    }
    HasFailure() ? void() : endWhilePlaying();
    std::cout << random.origin() << ": ";
    for (const auto& [what, count] : seen) {
        std::cout << count << ' ' << what << ", ";
    }
    std::cout << last[0] << " descriptors, " << last[1] << " threads, " << first[2] << " to " << last[2]
              << " MiB\n";
    EXPECT_TRUE(hasSeenAll(true)) << "some of it has not happened";
}

INSTANTIATE_TEST_SUITE_P(Modes, StreamModelTest, testing::Values(Texts{}, Texts{"-m"}, Texts{"-c"}),
                         [](const auto& mode) {
                             return mode.param.empty() ? "FullRate" : "Option" + mode.param[0].substr(1);
                         });

}  // namespace
}  // namespace Vel::SystemTest
