#include "program.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

namespace Vel::SystemTest {

namespace {

void redirect(const std::filesystem::path& file, int descriptor) {
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(fd, descriptor);
    ::close(fd);
}

}  // namespace

Program::Program(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                 const std::function<void()>& prepare) {
    std::vector<std::string> texts = {program};
    texts.insert(texts.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    std::transform(texts.begin(), texts.end(), std::back_inserter(pointers),
                   [](std::string& text) { return text.data(); });
    pointers.push_back(nullptr);
    m_Pid = ::fork();
    if (m_Pid == 0) {
        redirect(m_Folder / "out", STDOUT_FILENO);
        redirect(m_Folder / "err", STDERR_FILENO);
        if (prepare) {
            prepare();
        }
        ::execv(pointers[0], pointers.data());
        ::_exit(127);
    }
}

Program::~Program() {
    if (isRunning()) {
        signal(SIGKILL);
        wait();
    }
}

void Program::signal(int number) const {
    ::kill(m_Pid, number);
}

bool Program::isRunning() {
    if (m_Pid == -1) {
        return false;
    }
    int status = 0;
    if (::waitpid(m_Pid, &status, WNOHANG) != m_Pid) {
        return true;
    }
    m_Status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    m_Pid = -1;
    return false;
}

int Program::wait(std::chrono::seconds limit) {
    return eventually([this] { return !isRunning(); }, limit) ? m_Status : -1;
}

int Program::terminate(std::chrono::seconds limit) {
    signal(SIGTERM);
    return wait(limit);
}

std::vector<std::string> Program::log() const {
    std::vector<std::string> lines;
    std::istringstream text(out());
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line.starts_with('[') ? line.substr(line.find(' ') + 1) : line);
    }
    return lines;
}

std::size_t Program::countLog(const std::string& beginning) const {
    const auto lines = log();
    return static_cast<std::size_t>(std::count_if(
        lines.begin(), lines.end(), [&](const std::string& line) { return line.starts_with(beginning); }));
}

bool Program::waitForLog(const std::string& beginning, std::size_t count) const {
    return eventually([&] { return countLog(beginning) >= count; });
}

}  // namespace Vel::SystemTest
