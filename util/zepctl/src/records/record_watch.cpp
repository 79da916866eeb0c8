#include "records/record_watch.h"

#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <string_view>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "command_result.h"
#include "plain_file.h"
#include "records/record_reader.h"
#include "records/record_report.h"

namespace Vel::Zepctl {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// Packets that arrive within this time form one burst. It is longer than a burst of a paced stream; unpaced
/// streams are sampled at this interval.
constexpr milliseconds BURST_LENGTH(20);
/// Holds several bursts of any stream above 0.5 Mbit/s.
constexpr milliseconds WINDOW(2000);

constexpr milliseconds TERMINAL_INTERVAL(200);
constexpr milliseconds LINE_INTERVAL(1000);
/// A signal ends the wait for records within this time.
constexpr milliseconds MAX_WAIT(50);

volatile std::sig_atomic_t g_IsEnding = 0;  // set by a signal

/// Those that are ignored, for example under nohup, stay ignored.
void endOnSignals() {
    sigset_t ending;
    ::sigemptyset(&ending);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action {};
        if (::sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
            action = {};  // interrupts a write
            action.sa_handler = [](int) { g_IsEnding = 1; };
            ::sigaction(signal, &action, nullptr);
        }
        ::sigaddset(&ending, signal);
    }
    ::sigprocmask(SIG_UNBLOCK, &ending, nullptr);
}

/// Writes as standard output takes it. False if it takes nothing for 100 ms after a signal, or after `end`.
[[nodiscard]] bool printUntil(ArrivalTime end, std::string_view text) {
    while (!text.empty()) {
        if (!CppUtil::waitFor(STDOUT_FILENO, POLLOUT, {}, milliseconds(100))) {
            if (g_IsEnding != 0 || Clock::now() >= end) {
                return false;
            }
            continue;
        }
        // A pipe that polls as writable takes this much at once.
        const ssize_t got = ::write(STDOUT_FILENO, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
        errno = got == 0 ? EIO : errno;
        if (got == 0 || (got < 0 && errno != EINTR && errno != EAGAIN)) {
            throw systemError("Cannot write to standard output");
        }
        text.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    }
    return true;
}

/// Adds whole lines to a plain file, or nothing.
void append(const CppUtil::FileDescriptor& file, const std::string& path, const std::string& lines) {
    const off_t size = ::lseek(file.get(), 0, SEEK_CUR);
    errno = ENOSPC;  // why a write may be short
    if (::write(file.get(), lines.data(), lines.size()) != static_cast<ssize_t>(lines.size())) {
        const int reason = errno;
        [[maybe_unused]] const int result = ::ftruncate(file.get(), size);
        errno = reason;
        throw systemError("Cannot write " + path);
    }
}

/// Whether standard output understands control sequences.
bool isTerminal() {
    const char* type = std::getenv("TERM");
    return ::isatty(STDOUT_FILENO) == 1 && (type == nullptr || std::string_view(type) != "dumb");
}

std::size_t terminalRows() {
    constexpr std::size_t USUAL_ROWS = 24;
    winsize size{};
    return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 2 ? size.ws_row : USUAL_ROWS;
}

/// The table on standard output: redrawn in place on a terminal; elsewhere, and in JSON, rows are appended.
class WatchTable {
public:
    explicit WatchTable(bool isJson) : m_IsJson(isJson) {}

    bool isOnTerminal() const { return m_OnTerminal; }

    /// The text of one row per input; on a terminal no more than fit, except for the final table.
    std::string format(std::vector<std::string> rows, bool isLast) {
        std::string text;
        if (m_OnTerminal && m_Lines != 0) {
            text = fmt::format("\x1b[{}A\x1b[J", m_Lines);
        }
        if (m_OnTerminal || (m_Lines == 0 && !m_IsJson)) {
            text += fmt::format("{}\n", RecordWatch::HEADER);
        }
        // The header and the line with the cursor need space as well.
        if (const std::size_t room = terminalRows() - 2; m_OnTerminal && !isLast && rows.size() > room) {
            const std::size_t hidden = rows.size() - room + 1;
            rows.resize(room);
            rows.back() = fmt::format("{} more inputs", hidden);
        }
        text += fmt::format("{}{}", fmt::join(rows, "\n"), rows.empty() ? "" : "\n");
        m_Lines = rows.size() + 1;
        // Without automatic wrapping, since a wrapped line would shift the table.
        return m_OnTerminal ? "\x1b[?7l" + text + "\x1b[?7h" : text;
    }

private:
    bool m_IsJson;
    bool m_OnTerminal = !m_IsJson && isTerminal();
    std::size_t m_Lines = 0;  // of the previous table
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

std::optional<Milliseconds> ArrivalDrift::add(ArrivalTime at, const ClockTime& clock) {
    if (clock.timeBases != m_TimeBase) {
        *this = {};
        m_TimeBase = clock.timeBases;
    }
    const Seconds pcr = clock.elapsed;
    if (m_TimeBase == 0 || pcr == m_LastPcr) {
        return std::nullopt;
    }
    m_LastPcr = pcr;
    const Sample sample{pcr, at.time_since_epoch() - pcr};
    if (m_WindowStart && at - *m_WindowStart >= WINDOW) {
        m_Latest = m_Earliest;
        m_First = m_First.value_or(m_Earliest);
        m_WindowStart.reset();
    }
    if (!m_WindowStart || sample.lateness < m_Earliest.lateness) {
        m_WindowStart = m_WindowStart.value_or(at);
        m_Earliest = sample;
    }
    return m_First ? std::optional<Milliseconds>(sample.lateness - m_First->lateness) : std::nullopt;
}

std::optional<Drift> ArrivalDrift::get() const {
    if (!m_First || m_Latest->pcr <= m_First->pcr) {
        return std::nullopt;
    }
    const Seconds drift = m_Latest->lateness - m_First->lateness;
    return Drift{drift, drift / (m_Latest->pcr - m_First->pcr) * 1e6};
}

void RecordWatch::add(std::span<const std::uint8_t> records, std::optional<ArrivalTime> arrival) {
    for (; records.size() >= Ts::RECORD_SIZE; records = records.subspan(Ts::RECORD_SIZE)) {
        const RecordView record(records.data());
        const RecordInput* input = m_Check.add(record);
        if (input != nullptr && arrival && record.hasPcr()) {
            Arrival& known = m_Arrivals[record.getTsiidx()];
            const auto lateness = known.drift.add(*arrival, input->getTime());
            if (lateness && m_IsSaved) {
                known.lateness.push_back(lateness->count());
            }
        }
    }
    for (const auto& [tsiidx, input] : m_Check.getInputs()) {
        Arrival& known = m_Arrivals[tsiidx];
        const std::uint64_t packets = input.getTotal().packets - known.packets;
        known.packets += packets;
        if (packets != 0 && arrival) {
            known.rate.add(*arrival, packets);
        }
    }
}

std::string RecordWatch::takeCsvRows(Seconds watched, ArrivalTime now) {
    std::string rows;
    for (auto& [tsiidx, arrival] : m_Arrivals) {
        std::vector<double> lateness = std::exchange(arrival.lateness, {});
        std::ranges::sort(lateness);
        const PacketCounts& total = m_Check.getInputs().at(tsiidx).getTotal();
        const std::uint64_t faults = total.continuityErrors + total.transportErrors;
        const auto rate = arrival.rate.getLatest(now);
        rows +=
            fmt::format("{:.3f},{},{},", watched.count(), tsiidx, rate ? fmt::format("{:.0f}", *rate) : "");
        rows += lateness.empty() ? ",,"
                                 : fmt::format("{:.3f},{:.3f},{:.3f}", lateness.front(),
                                               lateness[lateness.size() / 2], lateness.back());
        rows += fmt::format(",{}\n", faults - std::exchange(arrival.faults, faults));
    }
    return rows;
}

std::vector<std::string> RecordWatch::formatRows(Seconds watched, ArrivalTime now, bool isJson) const {
    std::vector<std::string> rows;
    for (const auto& [tsiidx, input] : m_Check.getInputs()) {
        const Arrival& arrival = m_Arrivals.at(tsiidx);
        const auto drift = arrival.drift.get();
        if (isJson) {
            nlohmann::ordered_json row = jsonOf(tsiidx, input);
            row["seconds"] = watched.count();
            row["arrival_bit_rate"] = jsonOf(arrival.rate.getLatest(now));
            row["overall_bit_rate"] = jsonOf(arrival.rate.getOverall());
            row["drift_ms"] = drift ? nlohmann::ordered_json(drift->lateness.count()) : nullptr;
            row["drift_ppm"] = drift ? nlohmann::ordered_json(drift->ppm) : nullptr;
            rows.push_back(row.dump());
            continue;
        }
        rows.push_back(fmt::format("{:7.0f}  {:6}  {:>9}  {:>9}  {:10}  {:10}  {:>8}  {:>7}", watched.count(),
                                   tsiidx, formatBitRate(arrival.rate.getLatest(now)),
                                   formatBitRate(arrival.rate.getOverall()), input.getTotal().packets,
                                   input.getTotal().continuityErrors,
                                   drift ? fmt::format("{:+.1f}", drift->lateness.count()) : "-",
                                   drift ? fmt::format("{:+.0f}", drift->ppm) : "-"));
    }
    if (rows.empty() && !isJson) {
        rows.push_back(fmt::format("{:7.0f}  no records yet", watched.count()));
    }
    return rows;
}

void watchRecords(const std::string& path, std::optional<double> seconds, bool isJson,
                  const std::string& savePath) {
    endOnSignals();
    RecordReader reader(path);
    CppUtil::FileDescriptor saved;
    if (!savePath.empty()) {
        saved = createOutput(savePath, reader.getStatus());
        append(saved, savePath, RecordWatch::CSV_HEADER);
    }
    RecordWatch watch(saved.isOpen());
    WatchTable table(isJson);
    const auto start = Clock::now();
    const auto end = seconds ? start + std::chrono::duration_cast<Clock::duration>(Seconds(*seconds))
                             : Clock::time_point::max();
    const auto interval = table.isOnTerminal() && !saved.isOpen() ? TERMINAL_INTERVAL : LINE_INTERVAL;
    auto nextPrint = start + interval;
    auto now = start;
    // Records that a plain file already holds did not arrive now.
    bool isLive = !reader.isPlainFile();
    bool isClosed = false;
    bool isPrinted = true;
    const auto save = [&] {
        if (saved.isOpen()) {
            append(saved, savePath, watch.takeCsvRows(now - start, now));
        }
    };
    for (; g_IsEnding == 0 && !isClosed && isPrinted && now < end; now = Clock::now()) {
        if (now >= nextPrint) {
            save();
            isPrinted = printUntil(end, table.format(watch.formatRows(now - start, now, isJson), false));
            nextPrint = (nextPrint + interval > now ? nextPrint : now) + interval;
        }
        const auto wait = std::chrono::ceil<milliseconds>(std::min(nextPrint, end) - now);
        if (!reader.waitForData(std::clamp(wait, milliseconds(1), MAX_WAIT))) {
            continue;
        }
        if (reader.restartIfRewritten()) {
            watch = RecordWatch(saved.isOpen());
            isLive = false;
        }
        const auto records = reader.read();
        watch.add(records, isLive ? std::optional(Clock::now()) : std::nullopt);
        isLive |= reader.isAtEnd();
        isClosed = reader.isAtEnd() && !reader.isPlainFile();
    }
    save();
    watch.end(isClosed ? reader.getTornBytes() : 0);
    const FaultLog& faults = watch.getCheck().getFaults();
    const Seconds watched = now - start;
    const std::string result =
        isJson ? formatJsonReport(reader.getRawName(), watch.getCheck(), watched)
               : fmt::format("{} watched for {:.1f} s: {}{}", reader.getName(), watched.count(),
                             formatCount(faults.getRecords(), "record"),
                             faults.isEmpty() ? ", no faults\n" : "\n" + faults.toLines());
    const std::string last = table.format(watch.formatRows(watched, now, isJson), true) + result;
    // After a part of a row, the result would be on the same line.
    if (!isPrinted || !printUntil(isClosed ? Clock::time_point::max() : now, last)) {
        throw CommandError(DeviceUnusable, "Nobody reads standard output, so the result is lost");
    }
    faults.requireNone(reader.getName());
}

}  // namespace Vel::Zepctl
