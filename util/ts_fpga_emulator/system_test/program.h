#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "stand_ins.h"

namespace Vel::SystemTest {

/// A program under test as a child process, with its standard output and error in files. Killed at the end of
/// the test if it is still there then.
class Program {
public:
    /// @param prepare runs in the child before the program does, for limits, signal dispositions and closed
    /// descriptors
    Program(const std::filesystem::path& program, const std::vector<std::string>& arguments,
            const std::function<void()>& prepare = {});
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    pid_t pid() const { return m_Pid; }
    void signal(int number) const;
    bool isRunning();
    /// Waits for the program to end. Its exit status; 128 and the signal that killed it; -1 when it does not
    /// end in time.
    int wait(std::chrono::seconds limit = std::chrono::seconds(30));
    /// Sends SIGTERM and waits.
    int terminate(std::chrono::seconds limit = std::chrono::seconds(30));

    std::filesystem::path outPath() const { return m_Folder / "out"; }
    std::string out() const { return readText(outPath()); }
    std::string err() const { return readText(m_Folder / "err"); }
    /// The lines on standard output without their time, "[info] text".
    std::vector<std::string> log() const;
    /// How many log lines are, or begin with, this text.
    std::size_t countLog(const std::string& beginning) const;
    bool waitForLog(const std::string& beginning, std::size_t count = 1) const;

private:
    TemporaryFolder m_Folder;
    pid_t m_Pid = -1;
    int m_Status = -1;  // of the ended program
};

}  // namespace Vel::SystemTest
