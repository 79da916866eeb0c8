#include "records/record_terminal.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <string_view>

namespace Vel::Zepctl {

namespace {

/// What is done sooner needs no bar.
constexpr std::chrono::milliseconds FIRST_DRAWING(500);
constexpr std::chrono::milliseconds DRAWING_INTERVAL(100);
/// Beside the bar: brackets, a space, the percentage and a free last column, so that no terminal wraps the
/// line.
constexpr std::size_t BAR_MARGIN = 8;
constexpr std::size_t MAX_BAR = 60;

std::string_view environment(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
}

}  // namespace

bool isTerminal(int fd) {
    return ::isatty(fd) == 1 && environment("TERM") != "dumb";
}

Colours Colours::of(int fd) {
    if (!isTerminal(fd) || !environment("NO_COLOR").empty()) {
        return {};
    }
    return {"\x1b[31m", "\x1b[32m", "\x1b[2m", "\x1b[0m"};
}

TerminalSize TerminalSize::of(int fd) {
    winsize size{};
    if (::ioctl(fd, TIOCGWINSZ, &size) == -1 || size.ws_col == 0 || size.ws_row == 0) {
        return {};
    }
    return {size.ws_col, size.ws_row};
}

std::string drawBar(double part, std::size_t width) {
    const double cells = std::round(std::clamp(part, 0.0, 1.0) * static_cast<double>(width));
    const auto filled = static_cast<std::size_t>(cells);
    return std::string(filled, '#') + std::string(width - filled, '-');
}

std::string drawCentredBar(double part, std::size_t width) {
    const std::string half = drawBar(std::abs(part), width / 2);
    const std::string empty(width / 2, '-');
    return part < 0 ? std::string(half.rbegin(), half.rend()) + "|" + empty : empty + "|" + half;
}

ProgressBar::ProgressBar(std::uint64_t total)
    : m_Wanted(total != 0 && isTerminal(STDERR_FILENO)),
      m_Total(total),
      m_NextDrawing(Clock::now() + FIRST_DRAWING) {}

ProgressBar::~ProgressBar() {
    if (m_Shown) {
        std::cerr << "\r\x1b[K";
    }
}

void ProgressBar::add(std::uint64_t bytes) {
    m_Done += bytes;
    if (!m_Wanted || Clock::now() < m_NextDrawing) {
        return;
    }
    m_NextDrawing = Clock::now() + DRAWING_INTERVAL;
    m_Shown = true;
    const double part = std::min(1.0, static_cast<double>(m_Done) / static_cast<double>(m_Total));
    const std::size_t columns = std::max(BAR_MARGIN, TerminalSize::of(STDERR_FILENO).columns);
    const std::size_t width = std::min(columns - BAR_MARGIN, MAX_BAR);
    std::cerr << fmt::format("\r[{}] {:3.0f}%", drawBar(part, width), 100 * part) << std::flush;
}

}  // namespace Vel::Zepctl
