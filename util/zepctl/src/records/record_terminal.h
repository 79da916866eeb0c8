#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace Vel::Zepctl {

/// Control sequences that colour a text; empty ones where no colour is wanted.
struct Colours {
    std::string bad;
    std::string good;
    std::string faint;
    std::string off;

    /// None unless the descriptor is a terminal and NO_COLOR is not set.
    static Colours of(int fd);
};

/// Whether the descriptor is a terminal that follows control sequences.
bool isTerminal(int fd);

/// In characters.
struct TerminalSize {
    std::size_t columns = 80;
    std::size_t rows = 24;

    /// As the terminal has it now, or the initial values where it does not tell.
    static TerminalSize of(int fd);
};

/// "####----": width characters, filled from the left by that part (0..1) of them.
std::string drawBar(double part, std::size_t width);
/// "--##|----": width characters, an odd number, filled from the middle by that part (-1..1) of a half.
std::string drawCentredBar(double part, std::size_t width);

/// Shows on standard error how much of a long file is done, if that is a terminal, and takes the line away in
/// the end. Thread-bound.
class ProgressBar {
public:
    /// @param total in bytes; 0 where nobody knows, and nothing is shown
    explicit ProgressBar(std::uint64_t total);
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    void add(std::uint64_t bytes);

private:
    using Clock = std::chrono::steady_clock;

    bool m_Wanted;
    bool m_Shown = false;
    std::uint64_t m_Total;
    std::uint64_t m_Done = 0;
    Clock::time_point m_NextDrawing;
};

}  // namespace Vel::Zepctl
