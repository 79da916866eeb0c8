#include "records/record_watch.h"

#include <sys/ioctl.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <string_view>

#include <fmt/format.h>

#include "command_error.h"
#include "records/record_reader.h"
#include "records/record_report.h"

namespace Vel::Zepctl {

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using std::chrono::milliseconds;

/// What arrives within this time is one burst: longer than a paced stream takes for one, and the step in
/// which streams that never pause are measured.
constexpr milliseconds BURST_LENGTH(20);
/// Holds a good many bursts of any stream above 0.5 Mbit/s.
constexpr milliseconds WINDOW(2000);

constexpr milliseconds TERMINAL_INTERVAL(200);
constexpr milliseconds LINE_INTERVAL(1000);
/// A signal that comes just before the wait for records is noticed after it.
constexpr milliseconds MAX_WAIT(100);

volatile std::sig_atomic_t s_EndRequested = 0;

/// Lets SIGINT, SIGTERM and SIGHUP end the watch instead of the program, unless they are ignored, as by
/// nohup.
void catchEndingSignals() {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        if (std::signal(signal, [](int) { s_EndRequested = 1; }) == SIG_IGN) {
            std::signal(signal, SIG_IGN);
        }
    }
}

/// Whether standard output takes control sequences.
bool isTerminal() {
    const char* type = std::getenv("TERM");
    return ::isatty(STDOUT_FILENO) == 1 && (type == nullptr || std::string_view(type) != "dumb");
}

std::size_t terminalRows() {
    constexpr std::size_t USUAL_ROWS = 24;
    winsize size{};
    return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 2 ? size.ws_row : USUAL_ROWS;
}

/// The table of a watch on standard output: redrawn in place on a terminal, with its rows appended elsewhere.
class WatchTable {
public:
    bool isOnTerminal() const { return m_OnTerminal; }

    /// Prints one row per input; on a terminal no more than it has room for, unless they are the last ones.
    void print(std::vector<std::string> rows, bool isLast) {
        std::string text;
        if (m_OnTerminal && m_Lines != 0) {
            text = fmt::format("\x1b[{}A\x1b[J", m_Lines);
        }
        if (m_OnTerminal || m_Lines == 0) {
            text += fmt::format("{}\n", RecordWatch::HEADER);
        }
        // The header and the line of the cursor take room as well.
        if (const std::size_t room = terminalRows() - 2; m_OnTerminal && !isLast && rows.size() > room) {
            const std::size_t hidden = rows.size() - room + 1;
            rows.resize(room);
            rows.back() = fmt::format("{} more inputs", hidden);
        }
        text += fmt::format("{}\n", fmt::join(rows, "\n"));
        // A line that is too long for the terminal is cut, since one that wraps would shift the table.
        printOutput(m_OnTerminal ? "\x1b[?7l" + text + "\x1b[?7h" : text);
        m_Lines = rows.size() + 1;
    }

private:
    bool m_OnTerminal = isTerminal();
    std::size_t m_Lines = 0;  // of the table printed last
};

}  // namespace

void ArrivalRate::add(ArrivalTime at, std::uint64_t packets) {
    if (m_Latest.empty() || at - m_Latest.back().start >= BURST_LENGTH) {
        m_Latest.push_back({at, m_Packets});
        while (m_Latest.size() > 2 && m_Latest[1].start <= at - WINDOW) {
            m_Latest.pop_front();
        }
    }
    m_First = m_First.value_or(m_Latest.back());
    m_Packets += packets;
}

std::optional<double> ArrivalRate::getLatest(ArrivalTime now) const {
    if (m_Latest.size() < 2) {
        return std::nullopt;
    }
    const auto span = std::max<ArrivalTime::duration>(m_Latest.back().start - m_Latest.front().start, WINDOW);
    return now - m_Latest.back().start > span ? 0 : rateBetween(m_Latest.front(), m_Latest.back());
}

std::optional<double> ArrivalRate::getOverall() const {
    return m_Latest.size() < 2 ? std::nullopt : std::optional(rateBetween(*m_First, m_Latest.back()));
}

double ArrivalRate::rateBetween(const Burst& from, const Burst& to) {
    const auto packets = static_cast<double>(to.packetsBefore - from.packetsBefore);
    return packets * BITS_PER_PACKET / Seconds(to.start - from.start).count();
}

void ArrivalDrift::add(ArrivalTime at, const PcrClock& clock) {
    if (clock.getTimeBases() != m_TimeBase) {
        *this = {};
        m_TimeBase = clock.getTimeBases();
    }
    const double pcr = clock.getElapsed().count();
    if (m_TimeBase == 0 || pcr == m_LastPcr) {
        return;
    }
    m_LastPcr = pcr;
    const Sample sample{pcr, Seconds(at.time_since_epoch()).count() - pcr};
    if (m_WindowStart && at - *m_WindowStart >= WINDOW) {
        m_Latest = m_Earliest;
        m_First = m_First.value_or(m_Earliest);
        m_WindowStart.reset();
    }
    if (!m_WindowStart || sample.lateness < m_Earliest.lateness) {
        m_WindowStart = m_WindowStart.value_or(at);
        m_Earliest = sample;
    }
}

std::optional<Drift> ArrivalDrift::get() const {
    if (!m_First || m_Latest->pcr <= m_First->pcr) {
        return std::nullopt;
    }
    const double drift = m_Latest->lateness - m_First->lateness;
    return Drift{drift * 1e3, drift / (m_Latest->pcr - m_First->pcr) * 1e6};
}

void RecordWatch::add(std::span<const std::uint8_t> records, std::optional<ArrivalTime> arrival) {
    m_Check.add(records);
    for (const auto& [tsiidx, input] : m_Check.getInputs()) {
        Arrival& known = m_Arrivals[tsiidx];
        const std::uint64_t packets = input.getTotal().packets - known.packets;
        known.packets += packets;
        if (packets != 0 && arrival) {
            known.rate.add(*arrival, packets);
            known.drift.add(*arrival, input.getClock());
        }
    }
}

std::vector<std::string> RecordWatch::formatRows(double seconds, ArrivalTime now) const {
    std::vector<std::string> rows;
    for (const auto& [tsiidx, input] : m_Check.getInputs()) {
        const Arrival& arrival = m_Arrivals.at(tsiidx);
        const auto drift = arrival.drift.get();
        rows.push_back(fmt::format("{:7.0f}  {:6}  {:>9}  {:>9}  {:10}  {:10}  {:>8}  {:>7}", seconds, tsiidx,
                                   formatBitRate(arrival.rate.getLatest(now)),
                                   formatBitRate(arrival.rate.getOverall()), arrival.packets,
                                   input.getTotal().continuityErrors,
                                   drift ? fmt::format("{:+.1f}", drift->milliseconds) : "-",
                                   drift ? fmt::format("{:+.0f}", drift->ppm) : "-"));
    }
    if (rows.empty()) {
        rows.push_back(fmt::format("{:7.0f}  no records yet", seconds));
    }
    return rows;
}

void watchRecords(const std::string& path, std::optional<double> seconds) {
    catchEndingSignals();
    RecordReader reader(path);
    RecordWatch watch;
    WatchTable table;
    const auto start = Clock::now();
    const auto end = seconds ? start + std::chrono::duration_cast<Clock::duration>(Seconds(*seconds))
                             : Clock::time_point::max();
    const auto interval = table.isOnTerminal() ? TERMINAL_INTERVAL : LINE_INTERVAL;
    auto nextPrint = start + interval;
    auto now = start;
    // What a plain file holds at the start did not arrive now, only what comes after its end.
    bool isLive = !reader.isPlainFile();
    bool isOver = false;
    for (; s_EndRequested == 0 && !isOver && now < end; now = Clock::now()) {
        if (now >= nextPrint) {
            table.print(watch.formatRows(Seconds(now - start).count(), now), false);
            nextPrint = std::max(nextPrint + interval, now);
        }
        const auto untilNext = std::chrono::ceil<milliseconds>(std::min(nextPrint, end) - now);
        if (!reader.waitForData(std::clamp(untilNext, milliseconds(0), MAX_WAIT))) {
            continue;
        }
        if (reader.restartIfTruncated()) {
            watch = {};
        }
        const auto records = reader.read();
        watch.add(records, isLive ? std::optional(Clock::now()) : std::nullopt);
        isLive |= reader.isAtEnd();
        isOver = reader.isAtEnd() && !reader.isPlainFile();
    }
    if (isOver) {
        watch.end(reader.getTornBytes());
    }
    const double watched = Seconds(now - start).count();
    table.print(watch.formatRows(watched, now), true);
    const FaultLog& faults = watch.getFaults();
    printOutput(fmt::format("{} watched for {:.1f} s: {}{}", reader.getName(), watched,
                            formatCount(faults.getRecords(), "record"),
                            faults.isEmpty() ? ", no fault\n" : "\n" + faults.toLines()));
}

}  // namespace Vel::Zepctl
