#include "records/record_plot.h"

#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <sstream>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "plain_file.h"
#include "records/record_reader.h"
#include "records/record_watch.h"
#include "vel/cpp_utils/text.h"

namespace Vel::Zepctl {

namespace {

constexpr Ts::PcrTicks STEP = std::chrono::milliseconds(100);  // of bit rates
constexpr std::size_t LARGEST_PIDS = 8;
constexpr std::size_t MAX_INPUTS = 16;
using Json = nlohmann::ordered_json;

/// What all drawings share. The key is to the right of the diagrams, where it covers no data. The
/// colours are the Okabe-Ito palette, which colour-blind people can tell apart.
///
/// {0} terminal, {1} lines of the heading, each indented, {2} their number, {3} number of drawings, {4} end
/// of the time axis in seconds
constexpr const char* STYLE = R"(
$heading << END
{1}END
TOP = 20.*{2} + 15; H = TOP + 530*{3}
set terminal {0} size 960,H noenhanced background '#ffffff'
set encoding utf8; set multiplot; set lmargin at screen 0.1; set rmargin at screen 0.78
set border 3 lc rgb '#444444'; set tics nomirror; set grid lt 1 lc rgb '#dddddd'; set style fill solid noborder
set key at screen 0.79, graph 1 left top Left reverse samplen 2; set xrange [0:{4}]
colours = '#0072b2 #e69f00 #009e73 #56b4e9 #d55e00 #f0e442 #cc79a7 #333333 #aaaaaa'
panel(top, bottom) = sprintf('set tmargin at screen %f; set bmargin at screen %f', 1-(TOP+top)/H, 1-(TOP+bottom)/H)
do for [i=1:|$heading|] {{set label i $heading[i] at screen 0.01, screen 1-20*(i-0.3)/H}}
)";

/// The drawing of one input from records.
///
/// {0} TSIIDX, {1} data, {2} columns of the rates, {3} labels of the faults
constexpr const char* RECORDS = R"({1}
eval panel(30, 250); set title 'TSIIDX {0}'; set ylabel 'kbit/s'; set yrange [0:*]; set y2range [0:1]; set format x ''
plot $gaps using 1:(0):1:2:(0):(1) axes x1y2 with boxxyerror fc rgb '#dddddd' title 'no PCR for over 100 ms', \
     for [i={2}:2:-1] $rates using 1:(sum [c=2:i] column(c)) with fillsteps fc rgb word(colours, i-1) title columnhead(i), \
     $breaks using 1:(1) axes x1y2 with impulses dt 2 lc rgb '#000000' title 'new time base'
unset label; unset title; eval panel(265, 375)
set ylabel 'PCR distance, ms'; set logscale y; set yrange [1:1000]; set ytics add (40)
plot 100 lw 2 lc rgb '#d55e00' title '100 ms', 40 lw 2 lc rgb '#e69f00' title '40 ms', \
     $distances using 1:($2 < 1 ? 1 : $2) with points pt 7 ps 0.4 lc rgb '#0072b2' title 'PCR'
unset logscale; eval panel(390, 460); set ylabel 'faults'; set xlabel 'PCR time since the first PCR, s'; set format x
set yrange [3.5:-0.5]; set y2range [3.5:-0.5]; unset ytics; set y2tics ({3})
plot $faults using 1:($2-0.35):(0):(0.7) with vectors nohead lw 2 lc rgb '#d55e00' notitle
unset xlabel; unset y2tics; set ytics autofreq nomirror; TOP = TOP + 530
)";

/// The drawing of one input from a CSV file. A row begins with the two ends of its interval.
///
/// {0} TSIIDX, {1} data, {2} number of faults
constexpr const char* CSV = R"({1}
set datafile separator ','; set format x ''
eval panel(30, 250); set title 'TSIIDX {0}'; set ylabel 'lateness, ms'; set yrange [*<-10:10<*]
plot $rows using 1:6:1:2:5:7 with boxxyerror fc rgb '#56b4e9' title 'minimum to maximum', 0 lc rgb '#444444' notitle, \
     $rows using 1:6:($2-$1):(0) with vectors nohead lw 2 lc rgb '#0072b2' title 'median'
unset label; unset title; eval panel(265, 375); set ylabel 'kbit/s'; set yrange [0:*]
plot 0 lc rgb '#444444' notitle, \
     $rows using 1:($4/1000):($2-$1):(0) with vectors nohead lw 2 lc rgb '#009e73' title 'rate over 2 s'
eval panel(390, 460); set ylabel 'faults'; set xlabel 'time since the watch began, s'; set format x
set yrange [0:1]; unset ytics
plot $rows using 2:(0):(0):($8 > 0 ? 1 : NaN) with vectors nohead lw 2 lc rgb '#d55e00' title '{2}'
unset xlabel; set ytics autofreq nomirror; TOP = TOP + 530
)";

std::string dataBlock(const std::string& name, const std::string& lines) {
    return fmt::format("${} << END\n{}END\n", name, lines);
}

double secondsOf(Ts::PcrTicks time) {
    return Seconds(time).count();
}

struct Picture {
    std::string heading;
    std::vector<std::string> drawings;
    double end = 0;  // of the time axis, in seconds
};

/// The records of one input over its PCR time; what is complete is text for gnuplot. Reentrant.
class InputPlot {
public:
    /// Takes the input after each of its records.
    void follow(const RecordInput& input);
    /// Adds the drawing, or a line in the heading if no time is known.
    void draw(std::uint32_t tsiidx, const RecordInput& input, Picture& picture) const;

private:
    /// A step, a part of one, or an interval between PCRs that is longer than a step.
    struct Step {
        Ts::PcrTicks begin;
        Ts::PcrTicks end;
        std::map<std::uint32_t, double> packets;  // by PID; those of an interval are spread evenly over it
    };

    void addInterval(const RecordInput& input, Ts::PcrTicks interval);

    ClockTime m_Clock;                               // after the previous record
    std::array<std::uint64_t, 4> m_FaultCounts{};    // until then, by kind
    std::map<std::uint32_t, std::uint64_t> m_Timed;  // packets until then, by PID
    Ts::PcrTicks m_Time{0};
    std::vector<Step> m_Steps;
    std::string m_Distances;
    std::string m_Gaps;
    std::string m_Breaks;
    std::set<std::pair<Ts::PcrTicks, std::size_t>> m_Faults;
};

void InputPlot::follow(const RecordInput& input) {
    const ClockTime before = std::exchange(m_Clock, input.getTime());
    const Ts::PcrTicks interval = m_Clock.elapsed - before.elapsed;
    const Ts::PcrTicks end = m_Time + (m_Clock.skipped - before.skipped) + interval;
    if (end - m_Time > RecordInput::MAX_PCR_DISTANCE) {
        m_Gaps += fmt::format("{:.3f} {:.3f}\n", secondsOf(m_Time), secondsOf(end));
    } else if (m_Clock.timeBases != before.timeBases && before.timeBases != 0) {
        m_Breaks += fmt::format("{:.3f}\n", secondsOf(m_Time));
    }
    if (interval.count() != 0) {
        m_Distances += fmt::format("{:.3f} {:.3f}\n", secondsOf(end), Milliseconds(interval).count());
        addInterval(input, interval);
    }
    m_Time = end;
    // In the order of FaultKind.
    const std::array counts{input.getTotal().continuityErrors, input.getTotal().transportErrors,
                            m_Clock.jumps, m_Clock.gaps};
    for (std::size_t kind = 0; kind < counts.size(); ++kind) {
        if (std::exchange(m_FaultCounts[kind], counts[kind]) != counts[kind]) {
            m_Faults.emplace(m_Time, kind);
        }
    }
}

void InputPlot::addInterval(const RecordInput& input, Ts::PcrTicks interval) {
    const bool isLong = interval > STEP;
    const Ts::PcrTicks end = m_Time + interval;
    std::map<std::uint32_t, double> packets;
    for (const auto& [number, pid] : input.getPids()) {
        const std::uint64_t timed = pid.counts.timedPackets - m_Timed[number];
        if (timed != 0) {
            packets[number] = static_cast<double>(timed) / secondsOf(interval);
            m_Timed[number] += timed;
        }
    }
    for (Ts::PcrTicks from = m_Time; from < end; from = m_Steps.back().end) {
        const bool isContinued =
            !m_Steps.empty() && m_Steps.back().end == from && from % STEP != Ts::PcrTicks(0);
        if (!isContinued || isLong || from - m_Steps.back().begin > STEP) {
            m_Steps.push_back({from, from, {}});
        }
        Step& step = m_Steps.back();
        step.end = isLong ? end : std::min(end, from - from % STEP + STEP);
        for (const auto& [number, rate] : packets) {
            step.packets[number] += rate * secondsOf(step.end - from);
        }
    }
}

void InputPlot::draw(std::uint32_t tsiidx, const RecordInput& input, Picture& picture) const {
    if (m_Steps.empty()) {
        picture.heading += fmt::format("Not drawn: TSIIDX {}, which has no PCR clock\n", tsiidx);
        return;
    }
    std::vector<std::pair<std::uint64_t, std::uint32_t>> pids;
    for (const auto& [number, pid] : input.getPids()) {
        if (pid.counts.timedPackets != 0) {
            pids.emplace_back(pid.counts.timedPackets, number);
        }
    }
    std::ranges::stable_sort(pids, std::greater(), &std::pair<std::uint64_t, std::uint32_t>::first);
    std::map<std::uint32_t, std::size_t> columns;  // by PID
    std::string rates = "s";
    for (const auto& [packets, number] : pids) {
        const std::size_t column = std::min(columns.size(), LARGEST_PIDS);
        rates += column < LARGEST_PIDS ? fmt::format(" \"PID 0x{:04x}\"", number) : "";
        columns[number] = column;
    }
    if (pids.size() > LARGEST_PIDS) {
        rates += " \"" + formatCount(pids.size() - LARGEST_PIDS, "other PID") + '"';
    }
    rates += '\n';
    const std::size_t columnCount = std::min(pids.size(), LARGEST_PIDS + 1);
    for (auto step = m_Steps.begin(); step != m_Steps.end();) {
        std::vector<double> row(columnCount);
        for (const auto& [number, packets] : step->packets) {
            row[columns.at(number)] += packets * BITS_PER_PACKET / 1000 / secondsOf(step->end - step->begin);
        }
        rates += fmt::format("{:.3f} {:.1f}\n", secondsOf(step->begin), fmt::join(row, " "));
        // The last step before a gap is closed, and not joined with the one after it.
        if (const Ts::PcrTicks end = step->end; ++step == m_Steps.end() || step->begin != end) {
            rates += fmt::format("{:.3f} {:.1f}\n\n", secondsOf(end), fmt::join(row, " "));
        }
    }
    std::string faults;
    for (const auto& [time, kind] : m_Faults) {
        faults += fmt::format("{:.3f} {}\n", secondsOf(time), kind);
    }
    std::vector<std::string> labels;
    for (std::size_t kind = 0; kind < m_FaultCounts.size(); ++kind) {
        labels.push_back(
            fmt::format("'{}' {}", formatCount(m_FaultCounts[kind], FAULT_TEXTS[kind].name), kind));
    }
    const std::string data = dataBlock("rates", rates) + dataBlock("gaps", m_Gaps) +
                             dataBlock("breaks", m_Breaks) + dataBlock("distances", m_Distances) +
                             dataBlock("faults", faults);
    picture.drawings.push_back(fmt::format(RECORDS, tsiidx, data, columnCount + 1, fmt::join(labels, ", ")));
    picture.end = std::max(picture.end, secondsOf(m_Time));
}

class RecordPlot {
public:
    void add(std::span<const std::uint8_t> records) {
        for (; records.size() >= Ts::RECORD_SIZE; records = records.subspan(Ts::RECORD_SIZE)) {
            const RecordView record(records.data());
            if (const RecordInput* input = m_Check.add(record)) {
                m_Inputs[record.getTsiidx()].follow(*input);
            }
        }
    }

    Picture draw(const std::string& name, std::size_t tornBytes) {
        m_Check.end(tornBytes);
        const FaultLog& faults = m_Check.getFaults();
        // Faults that belong to no input are only in the heading.
        Picture picture{
            name + ": " + formatCount(faults.getRecords(), "record") + '\n' + faults.toLines(), {}, 0};
        for (const auto& [tsiidx, input] : m_Inputs) {
            input.draw(tsiidx, m_Check.getInputs().at(tsiidx), picture);
        }
        return picture;
    }

private:
    RecordCheck m_Check{{}, true};
    std::map<std::uint32_t, InputPlot> m_Inputs;  // by TSIIDX, like the inputs of the check
};

/// The cells of a line that RecordWatch has written, else nothing.
Json parseRow(const std::string& line) {
    std::string cells = '[' + line + ']';
    for (std::size_t at = 0; (at = cells.find(",,", at)) != std::string::npos;) {
        cells.insert(at + 1, "null");
    }
    Json row = Json::parse(cells, nullptr, false);
    const auto isValue = [](const Json& cell) { return cell.is_number() || cell.is_null(); };
    const bool isRow = row.is_array() && row.size() == 7 && row[0].is_number() &&
                       row[1].is_number_unsigned() && row[1] <= MAX_TSIIDX &&
                       std::all_of(row.begin() + 2, row.begin() + 6, isValue) && row[6].is_number_unsigned();
    return isRow ? row : Json();
}

Picture drawCsv(const std::string& path, const std::string& name) {
    std::map<std::uint32_t, std::pair<std::string, std::uint64_t>> inputs;  // rows and number of faults
    Picture picture{name + '\n', {}, 0};
    double begin = 0;  // of the interval up to picture.end
    std::ifstream file(path);
    std::string line;
    bool isValid = !std::getline(file, line) || line + '\n' == RecordWatch::CSV_HEADER;
    while (isValid && std::getline(file, line)) {
        const Json row = parseRow(line);
        isValid = !row.is_null() && row[0] >= picture.end;
        if (isValid) {
            const double end = row[0];
            begin = end > picture.end ? std::exchange(picture.end, end) : begin;
            auto& [rows, faults] = inputs[row[1]];
            rows += fmt::format("{:.3f},{}\n", begin, line);
            faults += row[6].get<std::uint64_t>();
        }
    }
    if (!isValid) {
        throw CommandError(DeviceUnusable, fmt::format("{} has a line that is not from records watch: \"{}\"",
                                                       name, CppUtil::escapeControls(line.substr(0, 80))));
    }
    for (const auto& [tsiidx, input] : inputs) {
        picture.drawings.push_back(
            fmt::format(CSV, tsiidx, dataBlock("rows", input.first), formatCount(input.second, "fault")));
    }
    return picture;
}

/// What gnuplot draws. Its descriptors have no names, so that nothing is left if a signal ends this program.
/// @throws CommandError, with the reason that gnuplot gives, unless it draws all of the script
std::string runGnuplot(const std::string& script) {
    constexpr int NOT_FOUND = 127;
    using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;
    const File input(std::tmpfile(), &std::fclose);
    const File errors(std::tmpfile(), &std::fclose);
    if (!input || !errors || std::fwrite(script.data(), script.size(), 1, input.get()) != 1 ||
        std::fflush(input.get()) != 0) {
        throw systemError("Cannot write a temporary file");
    }
    // -d: without the settings of its user.
    const std::string command = fmt::format("exec gnuplot -d </dev/fd/{} 2>/dev/fd/{}", ::fileno(input.get()),
                                            ::fileno(errors.get()));
    std::FILE* output = ::popen(command.c_str(), "re");
    if (output == nullptr) {
        throw systemError("Cannot start gnuplot");
    }
    std::string picture;
    std::array<char, 65536> block{};
    while (const std::size_t got = std::fread(block.data(), 1, block.size(), output)) {
        picture.append(block.data(), got);
    }
    const int status = ::pclose(output);
    if (status == 0 && !picture.empty()) {
        return picture;
    }
    std::string reason = WIFSIGNALED(status)
                             ? fmt::format("signal {} ended it", WTERMSIG(status))
                             : fmt::format("it ended with status {} and no picture", WEXITSTATUS(status));
    // Its last line is the first error, since that ends it.
    for (std::array<char, 400> text{}; std::fgets(text.data(), text.size(), errors.get()) != nullptr;) {
        std::string line(text.data() + std::strspn(text.data(), " \t"));
        reason = line == "\n" ? reason : line.substr(0, line.find('\n'));
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == NOT_FOUND) {
        reason = "it cannot be run; install the package gnuplot-nox";
    }
    throw CommandError(DeviceUnusable, "Cannot draw with gnuplot: " + reason);
}

/// Nobody sees a part of it under its name.
void replaceFile(const std::string& path, const std::string& content, mode_t mode) {
    const std::string part =
        std::filesystem::path(path).replace_filename(fmt::format(".zepctl.{}", ::getpid()));
    std::FILE* file = std::fopen(part.c_str(), "wxe");
    const bool isWritten = file != nullptr && std::fwrite(content.data(), content.size(), 1, file) == 1;
    if (file == nullptr || std::fclose(file) != 0 || !isWritten ||
        (mode != 0 && ::chmod(part.c_str(), mode) != 0) || std::rename(part.c_str(), path.c_str()) != 0) {
        const int reason = errno;
        ::unlink(part.c_str());
        errno = reason;
        throw systemError("Cannot create " + path);
    }
}

}  // namespace

void plotRecords(const std::string& file, const std::string& path) {
    if (!path.ends_with(".svg") && !path.ends_with(".png")) {
        throw CommandError(WrongUse, "PICTURE \"" + path + "\" does not end in .svg or .png");
    }
    RecordReader reader(file);
    struct stat replaced {};
    if (::lstat(path.c_str(), &replaced) == 0) {
        requireOutput(path, replaced, reader.getStatus());
    }
    const std::string name = reader.getName();
    const bool isCsv = file.ends_with(".csv");
    if (isCsv && !reader.isPlainFile()) {
        throw CommandError(DeviceUnusable, name + " is not a plain file");
    }
    RecordPlot plot;
    if (!isCsv) {
        readToEnd(reader, plot);
    }
    const Picture picture = isCsv ? drawCsv(file, name) : plot.draw(name, reader.getTornBytes());
    if (picture.drawings.empty() || picture.drawings.size() > MAX_INPUTS) {
        throw CommandError(
            DeviceUnusable,
            fmt::format("{} has {} {}, but a picture shows 1 to {}", name, picture.drawings.size(),
                        isCsv ? "inputs" : "inputs with a PCR clock", MAX_INPUTS));
    }
    // A file name may not be valid UTF-8, which an SVG file has to be.
    const auto text = Json(picture.heading).dump(-1, ' ', false, Json::error_handler_t::replace);
    std::istringstream lines(Json::parse(text).get<std::string>());
    std::string heading;
    for (std::string line; std::getline(lines, line);) {
        heading += ' ' + line + '\n';  // a line that begins with END would end the data
    }
    const std::string style = fmt::format(
        STYLE, path.ends_with(".svg") ? "svg font 'sans-serif,13'" : "pngcairo font 'sans,10'", heading,
        std::ranges::count(heading, '\n'), picture.drawings.size(), std::max(picture.end, 0.001));
    replaceFile(path, runGnuplot(style + fmt::format("{}", fmt::join(picture.drawings, ""))),
                replaced.st_mode & 0777);
}

}  // namespace Vel::Zepctl
