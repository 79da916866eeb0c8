#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "test_files.h"
#include "test_packet.h"
#include "vel/userspace_drivers/interfaces/pci/pciif.h"

namespace Vel::SystemTest {

using TestSupport::Bytes;
using TestSupport::eventually;
using TestSupport::readFile;
using TestSupport::TestPacket;
using TestSupport::writeFile;
using Texts = std::vector<std::string>;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

inline Texts operator+(Texts left, const Texts& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/// A program under test as a child process, with its standard output and error in files. Killed at the end of
/// the test if it is still there then.
class Program {
public:
    /// @param prepare runs in the child before the program does, for limits, signal dispositions and closed
    /// descriptors
    Program(const std::string& program, const Texts& arguments, const std::function<void()>& prepare = {}) {
        Texts texts = Texts{program} + arguments;
        std::vector<char*> pointers;
        std::ranges::transform(texts, std::back_inserter(pointers), [](auto& text) { return text.data(); });
        pointers.push_back(nullptr);
        m_Pid = ::fork();
        if (m_Pid == 0) {
            constexpr int FLAGS = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
            ::dup2(::open(outPath().c_str(), FLAGS, 0600), STDOUT_FILENO);
            ::dup2(::open((m_Folder / "err").c_str(), FLAGS, 0600), STDERR_FILENO);
            if (prepare) {
                prepare();
            }
            ::execv(pointers[0], pointers.data());
            ::_exit(127);
        }
    }
    ~Program() {
        if (isRunning()) {
            signal(SIGKILL);
            wait();
        }
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    pid_t pid() const { return m_Pid; }
    void signal(int number) const {
        if (m_Pid != -1) {  // which would be every process
            ::kill(m_Pid, number);
        }
    }
    bool isRunning() {
        int status = 0;
        if (m_Pid != -1 && ::waitpid(m_Pid, &status, WNOHANG) == m_Pid) {
            m_Status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
            m_Pid = -1;
        }
        return m_Pid != -1;
    }
    /// Waits for the program to end. Its exit status; 128 and the signal that killed it; -1 when it does not
    /// end in time.
    int wait(std::chrono::seconds limit = std::chrono::seconds(30)) {
        return eventually([this] { return !isRunning(); }, limit) ? m_Status : -1;
    }
    int terminate(std::chrono::seconds limit = std::chrono::seconds(30)) {
        signal(SIGTERM);
        return wait(limit);
    }

    std::string outPath() const { return m_Folder / "out"; }
    std::string out() const { return readFile<std::string>(outPath()); }
    std::string err() const { return readFile<std::string>(m_Folder / "err"); }
    /// How many log lines begin with this text, after their time.
    std::size_t countLog(const std::string& beginning) const {
        std::size_t count = 0;
        std::istringstream text(out());
        for (std::string line; std::getline(text, line);) {
            count += line.substr(line.find(' ') + 1).starts_with(beginning) ? 1 : 0;
        }
        return count;
    }

private:
    TestSupport::TemporaryFolder m_Folder;
    pid_t m_Pid = -1;
    int m_Status = -1;  // of the ended program
};

constexpr std::uint32_t TSIO_SIZE = 16384;
constexpr std::uint32_t ROUTER_SIZE = 131072;
constexpr std::size_t PACKET = 188;
constexpr std::size_t RECORD = 192;

/// `count` packets of the PIDs in turn, with steady continuity counters. With `ticksPerPacket` above 0, every
/// 20th packet of the first PID carries a PCR of that pace, and after each `clockPackets` the clock is 0
/// again.
inline Bytes makeStream(const std::vector<std::uint32_t>& pids, std::uint32_t count,
                        std::uint64_t ticksPerPacket = 0, std::uint32_t clockPackets = UINT32_MAX) {
    Bytes stream;
    for (std::uint32_t i = 0; i < count; ++i) {
        const auto turn = static_cast<std::uint32_t>(i / pids.size());
        TestPacket packet{.pid = pids[i % pids.size()], .number = i, .counter = turn};
        if (ticksPerPacket > 0 && packet.pid == pids[0] && turn % 20 == 0) {
            packet.pcr = i % clockPackets * ticksPerPacket;
        }
        const Bytes bytes = packet.bytes();
        stream.insert(stream.end(), bytes.begin(), bytes.end());
    }
    return stream;
}

/// What the data device must hold for one input: the packets of `stream` whose PID is in `pids`, after their
/// header.
inline Bytes recordsOf(const Bytes& stream, std::uint32_t tsiidx, const std::vector<std::uint32_t>& pids) {
    Bytes records;
    for (auto packet = stream.begin(); packet < stream.end(); packet += PACKET) {
        if (std::ranges::count(pids, (packet[1] & 0x1FU) << 8 | packet[2]) > 0) {
            records.insert(records.end(), {static_cast<std::uint8_t>(tsiidx), 0, 0, 0});
            records.insert(records.end(), packet, packet + PACKET);
        }
    }
    return records;
}

/// The records of one input among those of all.
inline Bytes recordsOfInput(const Bytes& records, std::uint32_t tsiidx) {
    Bytes selected;
    for (auto record = records.begin(); record < records.end(); record += RECORD) {
        if (*record == tsiidx) {
            selected.insert(selected.end(), record, record + RECORD);
        }
    }
    return selected;
}

constexpr std::uint32_t CPU_ROUTE = 1U << 13;
// The layout is written out here, so that tests and programs do not share a mistake.
constexpr std::uint32_t PID_LUT = 8192;  // first word
constexpr std::uint32_t IP_LUT = 2048;

inline std::string uri(std::uint32_t n) {
    return "udp://239.1.2." + std::to_string(n) + ":5000";
}

/// Stand-in tables and the emulator on them, as a developer has them on a desk. Rows are stored word by word,
/// word 1 with the used bits last.
class EmulatorTest : public testing::Test {
protected:
    /// Starts the emulator on the stand-ins. `more` holds at least one -f pair.
    void start(const Texts& more, const std::function<void()>& prepare = {}) {
        const Texts devices = {"-t", tsioPath, "-r", routerPath, "-P", data};
        emulator = std::make_unique<Program>(ZEPTFEM_PROGRAM, devices + more, prepare);
    }
    /// start(), and waits until it monitors the tables: what is stored after that is a change.
    void startAndWait(const Texts& more, const std::function<void()>& prepare = {}) {
        start(more, prepare);
        ASSERT_TRUE(eventually([this] {
            std::error_code ended;
            std::filesystem::directory_iterator threads("/proc/" + std::to_string(emulator->pid()) + "/task",
                                                        ended);
            for (; threads != end(threads); threads.increment(ended)) {
                std::ifstream comm(threads->path() / "comm");
                // Reads nothing, and does not throw, if the thread ends at this moment.
                if (std::string name; std::getline(comm, name) && name == "fpga-monitor") {
                    return true;
                }
            }
            return false;
        }));
    }
    /// The -f pair that links a file with these bytes to 239.1.2.n, port 5000.
    Texts link(std::uint32_t n, const Bytes& stream) const {
        const std::string file = folder / (std::to_string(n) + ".ts");
        writeFile(file, stream);
        return {"-f", uri(n) + " " + file};
    }

    void setInput(std::uint32_t row, std::uint32_t n, std::uint32_t tsiidx) {
        tsio.write32(IP_LUT + 2 * row, 0xEF010200U | n);
        tsio.write32(IP_LUT + 2 * row + 1, 1U << 24 | tsiidx << 16 | 5000);
    }
    void clearInput(std::uint32_t row) { tsio.write32(IP_LUT + 2 * row + 1, 0); }
    void setRoute(std::uint32_t row, std::uint32_t tsiidx, std::uint32_t pid, std::uint32_t filter = 255) {
        router.write32(PID_LUT + 2 * row, tsiidx << 13 | pid);
        router.write32(PID_LUT + 2 * row + 1, filter << 24 | CPU_ROUTE | (row + 1));
    }
    void clearRoute(std::uint32_t row) { router.write32(PID_LUT + 2 * row + 1, 0); }

    Bytes records() const { return readFile(data); }

    static std::string createTable(const std::string& path, std::size_t size) {
        writeFile(path, Bytes(size));
        return path;
    }

    TestSupport::TemporaryFolder folder;
    const std::string tsioPath = createTable(folder / "tsio", TSIO_SIZE);
    const std::string routerPath = createTable(folder / "router", ROUTER_SIZE);
    Pci::PciIf tsio{tsioPath, TSIO_SIZE, 0};
    Pci::PciIf router{routerPath, ROUTER_SIZE, 0};
    std::string data = folder / "pktio";
    std::unique_ptr<Program> emulator;
};

}  // namespace Vel::SystemTest
