#include "records/record_commands.h"

#include <unistd.h>

#include <charconv>
#include <iostream>

#include <fmt/format.h>

#include "command_error.h"
#include "records/record_check.h"
#include "records/record_reader.h"
#include "records/record_report.h"
#include "records/record_split.h"
#include "records/record_watch.h"

namespace Vel::Zepctl {

namespace {

/// A year: a limit that keeps the end on the clock.
constexpr double MAX_WATCH_SECONDS = 366 * 86400.0;

/// Passes all records to a check or split, block by block. On a terminal, standard error shows how much of a
/// file is done; the cursor stays before that, so that the next line overwrites it.
template <typename Consumer>
void readToEnd(RecordReader& reader, Consumer& consumer) {
    const std::uint64_t size = ::isatty(STDERR_FILENO) == 1 ? reader.getSize() : 0;
    std::uint64_t done = 0;
    std::uint64_t shown = 0;
    while (!reader.isAtEnd()) {
        if (!reader.waitForData()) {
            continue;
        }
        const auto records = reader.read();
        consumer.add(records);
        done += records.size();
        if (const std::uint64_t percent = size == 0 ? 0 : done * 100 / size; percent != shown) {
            shown = percent;
            std::cerr << fmt::format("{:3} %\r", percent);
        }
    }
    if (shown != 0) {
        std::cerr << "     \r";
    }
    consumer.end(reader.getTornBytes());
}

/// Prints the report, which lists the faults, and ends the command with its status if there are any.
void finish(const std::string& report, const std::string& name, const FaultLog& faults) {
    printOutput(report);
    if (!faults.isEmpty()) {
        throw CommandError(STREAM_FAULTY, name + " is faulty");
    }
}

}  // namespace

RecordCommands::RecordCommands(CLI::App& app) {
    CLI::App* records =
        app.add_subcommand("records", "Look at records: each a TSIIDX and a transport packet");
    records->require_subcommand(1);
    records->footer("Example: zepctl records check out.rec");

    CLI::App* check =
        addCommand(*records, "check", "Check the records of a file; exit status 1 if they are faulty",
                   "records, or - for standard input");
    check->add_flag("--json", m_Json, "print the result as JSON");
    check->footer(
        R"(Faults are continuity errors (ISO/IEC 13818-1, 2.4.3.3), transport errors, a sync byte
other than 0x47, a TSIIDX above 255 and a torn last record. Scrambled packets are none, nor
is a file without records. The bit rate is that of the recorded packets, 188 bytes each, by
the clock of the input's first PID with PCR, between the first PCR and the last. PIDs that
are not routed do not count, nor do intervals in which the PCR restarts. The man page lists
the keys of the JSON object.

Example: zepctl records check out.rec
         some-receiver | zepctl records check --json - > result.json)");
    check->callback([this] { this->check(); });

    CLI::App* split =
        addCommand(*records, "split", "Write the packets of each input to a transport stream file",
                   "records, or - for standard input");
    split->add_option("DIR", m_Directory, "where the files go, created if it is missing")->required();
    split->footer(
        R"(The packets of TSIIDX 3 go to DIR/tsiidx-003.ts, in their order. Files of that name are
overwritten, others stay. Records with a bad sync byte or a TSIIDX above 255 and a torn last
one are left out; the exit status is 1 if there were any.

Example: zepctl records split out.rec streams && ffprobe streams/tsiidx-003.ts)");
    split->callback([this] { this->split(); });

    CLI::App* watch = addCommand(*records, "watch", "Show live what arrives, by input",
                                 "FIFO, growing file or device, or - for standard input");
    watch->add_option("--for", m_Seconds, "end after so many seconds")
        ->type_name("SECONDS")
        ->check([](const std::string& text) {
            double seconds = 0;
            const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
            const bool isNumber = error == std::errc() && end == text.data() + text.size();
            return isNumber && seconds > 0 && seconds <= MAX_WATCH_SECONDS
                       ? std::string()
                       : fmt::format("\"{}\" is not a number of seconds above 0, up to {}", text,
                                     MAX_WATCH_SECONDS);
        });
    watch->footer(
        R"(Shows the rate over the latest two seconds and over all, and the drift: how much later
(+) or earlier (-) than their PCRs say packets arrive, since the first two seconds of the
time base, in ms and in ppm of the time by the PCR. Records that a file holds already are
counted, but not timed; a file that is emptied is watched from its start. A terminal shows
one table; elsewhere, one line per input and second is printed. Waits for the first writer
of a FIFO, and ends with Ctrl-C or when the last one has left.

Example: zepctl records watch pktio --for 60)");
    watch->callback([this] { this->watch(); });
}

CLI::App* RecordCommands::addCommand(CLI::App& records, const std::string& name,
                                     const std::string& description, const std::string& file) {
    CLI::App* command = records.add_subcommand(name, description);
    command->add_option("FILE", m_File, file)->required();
    return command;
}

void RecordCommands::check() const {
    RecordReader reader(m_File);
    RecordCheck result;
    readToEnd(reader, result);
    const std::string& name = reader.getName();
    finish(m_Json ? formatJsonReport(name, result) : formatReport(name, result), name, result.getFaults());
}

void RecordCommands::split() const {
    RecordReader reader(m_File);
    RecordSplit result(m_Directory, reader.getDescriptor());
    readToEnd(reader, result);
    std::string lines;
    for (const auto& [tsiidx, output] : result.getOutputs()) {
        lines += fmt::format("{}: {}\n", output.path, formatCount(output.packets, "packet"));
    }
    const FaultLog& faults = result.getFaults();
    if (faults.getRecords() == 0) {
        lines += reader.getName() + " is empty: no record, no file\n";
    }
    finish(lines + faults.toLines(), reader.getName(), faults);
}

void RecordCommands::watch() const {
    watchRecords(m_File, m_Seconds);
}

}  // namespace Vel::Zepctl
