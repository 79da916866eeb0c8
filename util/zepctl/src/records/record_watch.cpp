#include "records/record_watch.h"

#include <poll.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <iostream>
#include <memory>

#include "command_error.h"
#include "records/record_reader.h"
#include "records/record_watch_model.h"
#include "records/record_watch_view.h"

namespace Vel::Zepctl {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds SCREEN_INTERVAL(200);
constexpr milliseconds LINE_INTERVAL(1000);
/// A plain file does not tell that it has grown, so it is asked.
constexpr milliseconds FILE_INTERVAL(20);

/// Makes the signals that end the watch readable from a descriptor instead of ending the program.
class EndingSignals {
public:
    EndingSignals() {
        ::sigemptyset(&m_Signals);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
            ::sigaddset(&m_Signals, signal);
        }
        ::sigprocmask(SIG_BLOCK, &m_Signals, &m_Former);
        m_Pending = CppUtil::FileDescriptor(::signalfd(-1, &m_Signals, SFD_NONBLOCK | SFD_CLOEXEC));
        if (m_Pending.get() == -1) {
            throw systemError("Cannot wait for signals");
        }
    }
    ~EndingSignals() {
        signalfd_siginfo taken;
        while (::read(m_Pending.get(), &taken, sizeof taken) > 0) {
        }
        ::sigprocmask(SIG_SETMASK, &m_Former, nullptr);
    }
    EndingSignals(const EndingSignals&) = delete;
    EndingSignals& operator=(const EndingSignals&) = delete;

    int getDescriptor() const { return m_Pending.get(); }

private:
    sigset_t m_Signals{};
    sigset_t m_Former{};
    CppUtil::FileDescriptor m_Pending;
};

/// The terminal's second screen, with the cursor hidden; what stood on the first one comes back with the end.
class Screen {
public:
    Screen() { printOutput("\x1b[?1049h\x1b[?25l"); }
    ~Screen() { std::cout << "\x1b[?25h\x1b[?1049l" << std::flush; }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    void draw(const WatchFrame& frame) const {
        std::string text = "\x1b[H";
        const auto lines = drawWatchScreen(frame, TerminalSize::of(STDOUT_FILENO), m_Colours);
        for (std::size_t i = 0; i < lines.size(); ++i) {
            text += (i == 0 ? "" : "\r\n") + lines[i] + "\x1b[K";
        }
        printOutput(text + "\x1b[J");
    }

private:
    Colours m_Colours = Colours::of(STDOUT_FILENO);
};

class RecordWatch {
public:
    RecordWatch(const std::string& path, std::optional<std::chrono::duration<double>> duration)
        : m_Reader(path),
          m_End(duration ? m_Start + std::chrono::duration_cast<Clock::duration>(*duration)
                         : Clock::time_point::max()) {}

    /// @return what there was in the end
    WatchFrame run() {
        const auto screen = isTerminal(STDOUT_FILENO) ? std::make_unique<Screen>() : nullptr;
        const milliseconds interval = screen ? SCREEN_INTERVAL : LINE_INTERVAL;
        auto nextDrawing = screen ? m_Start : m_Start + interval;
        while (waitUntil(std::min(nextDrawing, m_End)) && takeRecords() && Clock::now() < m_End) {
            if (const auto now = Clock::now(); now >= nextDrawing) {
                screen ? screen->draw(makeFrame(now)) : printOutput(formatWatchLines(makeFrame(now)));
                nextDrawing = std::max(nextDrawing + interval, now);
            }
        }
        return makeFrame(Clock::now());
    }

private:
    WatchFrame makeFrame(Clock::time_point now) const {
        return {m_Reader.getName(), std::chrono::duration<double>(now - m_Start).count(),
                m_Model.getRecords(), m_Model.getFaults().toString(), m_Model.getInputs(now)};
    }

    /// Waits for records, but no longer than until then. False on a signal.
    bool waitUntil(Clock::time_point time) {
        const auto now = Clock::now();
        if (m_Reader.isPlainFile()) {
            time = m_Reader.isAtEnd() ? std::min(time, now + FILE_INTERVAL) : now;
        }
        const auto wait =
            std::chrono::duration_cast<std::chrono::nanoseconds>(std::max(time - now, {})).count();
        const timespec timeout{wait / 1'000'000'000, wait % 1'000'000'000};
        std::array<pollfd, 2> files{{{m_Signals.getDescriptor(), POLLIN, 0},
                                     {m_Reader.isPlainFile() ? -1 : m_Reader.getDescriptor(), POLLIN, 0}}};
        ::ppoll(files.data(), files.size(), &timeout, nullptr);
        m_Ready = m_Reader.isPlainFile() || files[1].revents != 0;
        return files[0].revents == 0;
    }

    /// Takes what is there. False at the end of the stream, which a plain file does not have.
    bool takeRecords() {
        if (!m_Ready) {
            return true;
        }
        if (m_Reader.restartIfTruncated()) {
            m_Model = {};
        }
        const auto records = m_Reader.read();
        const bool live = m_CaughtUp || !m_Reader.isPlainFile();
        m_Model.add(records, live ? std::optional(Clock::now()) : std::nullopt);
        m_CaughtUp |= m_Reader.isAtEnd();
        if (!m_Reader.isAtEnd() || m_Reader.isPlainFile()) {
            return true;
        }
        m_Model.end(m_Reader.getTornBytes());
        return false;
    }

    EndingSignals m_Signals;
    RecordReader m_Reader;
    RecordWatchModel m_Model;
    Clock::time_point m_Start = Clock::now();
    Clock::time_point m_End;
    bool m_Ready = false;     // reading will not wait
    bool m_CaughtUp = false;  // a plain file: what was in it at the start has been read, the rest arrives now
};

}  // namespace

void watchRecords(const std::string& path, std::optional<std::chrono::duration<double>> duration) {
    const WatchFrame frame = RecordWatch(path, duration).run();
    printOutput(formatWatchSummary(frame));
}

}  // namespace Vel::Zepctl
