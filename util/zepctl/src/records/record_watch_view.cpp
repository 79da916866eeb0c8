#include "records/record_watch_view.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <optional>
#include <string_view>

#include "records/record_text.h"

namespace Vel::Zepctl {

namespace {

constexpr double MIN_DRIFT_SCALE_MS = 10;
constexpr std::size_t MIN_BAR = 5;

/// Room for the text of an input's line, with a space before each of its two bars.
constexpr std::size_t TEXT_COLUMNS = 64;

/// A line that ends where the screen does.
class ScreenLine {
public:
    explicit ScreenLine(std::size_t columns) : m_Room(columns) {}

    ScreenLine& add(std::string_view text, std::string_view colour = {}, std::string_view off = {}) {
        const std::string_view shown = text.substr(0, m_Room);
        m_Room -= shown.size();
        m_Text.append(colour).append(shown).append(off);
        return *this;
    }
    const std::string& get() const { return m_Text; }

private:
    std::string m_Text;
    std::size_t m_Room;
};

/// Signed, but for what rounds to zero.
std::string formatSigned(double value, int decimals) {
    const double unit = std::pow(10, decimals);
    const double rounded = std::round(value * unit) / unit;
    return rounded == 0 ? fmt::format("{:.{}f}", 0.0, decimals) : fmt::format("{:+.{}f}", rounded, decimals);
}

std::string formatDrift(const std::optional<Drift>& drift) {
    return drift ? fmt::format("drift {} ms ({} ppm)", formatSigned(drift->milliseconds, 1),
                               formatSigned(drift->ppm, 0))
                 : "no drift known";
}

/// What the bars of a screen measure by.
struct Scale {
    double bitRate = 0;  // of a full rate bar
    double driftMs = MIN_DRIFT_SCALE_MS;
    std::size_t barColumns = 0;  // of one bar, an odd number; 0 for no bars

    Scale(const std::vector<WatchedInput>& inputs, std::size_t columns) {
        for (const WatchedInput& input : inputs) {
            bitRate = std::max(bitRate, input.bitRateNow.value_or(0));
            while (input.drift && std::abs(input.drift->milliseconds) > driftMs) {
                driftMs *= 10;
            }
        }
        const std::size_t room = columns > TEXT_COLUMNS ? (columns - TEXT_COLUMNS) / 2 : 0;
        barColumns = room >= MIN_BAR ? (room - 1) / 2 * 2 + 1 : 0;
    }
};

std::string drawInput(const WatchedInput& input, const Scale& scale, std::size_t columns,
                      const Colours& colours) {
    const double rate = input.bitRateNow.value_or(0);
    const double driftMs = input.drift ? input.drift->milliseconds : 0;
    const std::size_t bar = scale.barColumns;
    ScreenLine line(columns);
    line.add(fmt::format("{:6} {:>9}", input.tsiidx, formatBitRate(input.bitRateNow)));
    if (bar != 0) {
        line.add(" ").add(drawBar(scale.bitRate > 0 ? rate / scale.bitRate : 0, bar), colours.good,
                          colours.off);
    }
    line.add(fmt::format(" {:>9} {:10} ", formatBitRate(input.bitRateOverall), input.packets));
    line.add(fmt::format("{:7}", input.continuityErrors), input.continuityErrors == 0 ? "" : colours.bad,
             colours.off);
    line.add(fmt::format(" {:>8} {:>7}", input.drift ? formatSigned(driftMs, 1) : "-",
                         input.drift ? formatSigned(input.drift->ppm, 0) : "-"));
    if (bar != 0) {
        line.add(" ").add(drawCentredBar(driftMs / scale.driftMs, bar), colours.good, colours.off);
    }
    return line.get();
}

}  // namespace

std::vector<std::string> drawWatchScreen(const WatchFrame& frame, const TerminalSize& size,
                                         const Colours& colours) {
    const Scale scale(frame.inputs, size.columns);
    const auto seconds = static_cast<std::uint64_t>(frame.seconds);
    std::vector<std::string> lines;
    const auto addLine = [&](std::string_view text, std::string_view colour) {
        lines.push_back(ScreenLine(size.columns).add(text, colour, colours.off).get());
    };
    addLine(fmt::format("{}  {:02}:{:02}:{:02}  {}  (Ctrl-C ends)", frame.name, seconds / 3600,
                        seconds / 60 % 60, seconds % 60, formatCount(frame.records, "record")),
            {});
    addLine(frame.faults.empty() ? "no fault" : frame.faults,
            frame.faults.empty() ? colours.good : colours.bad);
    addLine(fmt::format("TSIIDX    KBIT/S{:{}}  OVER ALL    PACKETS CC ERRS DRIFT MS     PPM", "",
                        scale.barColumns == 0 ? 0 : scale.barColumns + 1),
            colours.faint);
    for (const WatchedInput& input : frame.inputs) {
        lines.push_back(drawInput(input, scale, size.columns, colours));
    }
    if (lines.size() > size.rows && size.rows > 0) {
        const std::size_t hidden = lines.size() - size.rows + 1;
        lines.resize(size.rows - 1);
        addLine(fmt::format("{} more lines", hidden), colours.faint);
    } else if (frame.inputs.empty()) {
        addLine("waiting for records", colours.faint);
    } else if (scale.barColumns != 0 && lines.size() < size.rows) {
        addLine(fmt::format("bars: 0..{} kbit/s, early -{:.0f} | +{:.0f} ms late",
                            formatBitRate(scale.bitRate), scale.driftMs, scale.driftMs),
                colours.faint);
    }
    return lines;
}

std::string formatWatchLines(const WatchFrame& frame) {
    if (frame.inputs.empty()) {
        return fmt::format("{:.0f} s: no records yet\n", frame.seconds);
    }
    std::string lines;
    for (const WatchedInput& input : frame.inputs) {
        lines +=
            fmt::format("{:.0f} s: TSIIDX {}: {} kbit/s now, {} kbit/s over all, {}, {}, {}\n", frame.seconds,
                        input.tsiidx, formatBitRate(input.bitRateNow), formatBitRate(input.bitRateOverall),
                        formatCount(input.packets, "packet"),
                        formatCount(input.continuityErrors, "continuity error"), formatDrift(input.drift));
    }
    return lines;
}

std::string formatWatchSummary(const WatchFrame& frame) {
    std::string lines =
        fmt::format("{} watched for {:.1f} s: {}, {}\n", frame.name, frame.seconds,
                    formatCount(frame.records, "record"), frame.faults.empty() ? "no fault" : frame.faults);
    for (const WatchedInput& input : frame.inputs) {
        lines +=
            fmt::format("TSIIDX {}: {} kbit/s over all, {}, {}, {}\n", input.tsiidx,
                        formatBitRate(input.bitRateOverall), formatCount(input.packets, "packet"),
                        formatCount(input.continuityErrors, "continuity error"), formatDrift(input.drift));
    }
    return lines;
}

}  // namespace Vel::Zepctl
