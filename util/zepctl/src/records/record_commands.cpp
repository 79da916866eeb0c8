#include "records/record_commands.h"

#include <fmt/format.h>

#include <charconv>
#include <chrono>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>

#include "command_error.h"
#include "records/record_check.h"
#include "records/record_reader.h"
#include "records/record_report.h"
#include "records/record_split.h"
#include "records/record_terminal.h"
#include "records/record_text.h"
#include "records/record_watch.h"

namespace Vel::Zepctl {

namespace {

/// A year: a limit that keeps the end on the clock.
constexpr double MAX_WATCH_SECONDS = 366 * 86400.0;

/// Hands all records on, block by block.
void readToEnd(RecordReader& reader, const std::function<void(std::span<const std::uint8_t>)>& take) {
    ProgressBar progress(reader.getSize());
    while (!reader.isAtEnd()) {
        reader.waitForData();
        const auto records = reader.read();
        take(records);
        progress.add(records.size());
    }
}

void check(const std::string& file, bool json) {
    RecordReader reader(file);
    RecordCheck result;
    readToEnd(reader, [&](auto records) { result.add(records); });
    result.end(reader.getTornBytes());
    if (json) {
        // A file name may hold bytes that are no UTF-8.
        constexpr auto REPLACE = nlohmann::json::error_handler_t::replace;
        printOutput(makeJsonReport(reader.getName(), result).dump(2, ' ', false, REPLACE) + '\n');
    } else {
        printOutput(formatReport(reader.getName(), result, Colours::of(STDOUT_FILENO)));
    }
    if (!result.getFaults().isEmpty()) {
        throw CommandError(STREAM_FAULTY, reader.getName() + " is faulty");  // how, the report has said
    }
}

void split(const std::string& file, const std::string& directory) {
    RecordReader reader(file);
    RecordSplit result(directory, reader.getDescriptor());
    readToEnd(reader, [&](auto records) { result.add(records); });
    result.end(reader.getTornBytes());
    std::string lines;
    for (const TsOutput* output : result.getOutputs()) {
        lines += fmt::format("{}: {}\n", output->getPath(), formatCount(output->getPackets(), "packet"));
    }
    if (result.getRecords() == 0) {
        lines += reader.getName() + " is empty: no record, no file\n";
    }
    printOutput(lines);
    if (!result.getFaults().isEmpty()) {
        throw CommandError(STREAM_FAULTY, reader.getName() + " is faulty: " + result.getFaults().toString());
    }
}

std::chrono::duration<double> parseDuration(const std::string& text) {
    const char* end = text.data() + text.size();
    double seconds = 0;
    const auto [stop, error] = std::from_chars(text.data(), end, seconds);
    if (error != std::errc{} || stop != end || !(seconds > 0 && seconds <= MAX_WATCH_SECONDS)) {
        throw CommandError(WRONG_USE, fmt::format("--for \"{}\" is not a number of seconds above 0, up to {}",
                                                  text, MAX_WATCH_SECONDS));
    }
    return std::chrono::duration<double>(seconds);
}

void addCheck(CLI::App& records) {
    struct Arguments {
        std::string file;
        bool json = false;
    };
    const auto arguments = std::make_shared<Arguments>();
    CLI::App* command =
        records.add_subcommand("check", "Check the records of a file; exit status 1 if they are faulty");
    command->add_option("FILE", arguments->file, "records, or - for standard input")->required();
    command->add_flag("--json", arguments->json, "print the result as JSON");
    command->footer(fmt::format(
        R"(Faults are continuity errors (ISO/IEC 13818-1, 2.4.3.3), transport errors, a sync byte
other than 0x47, a TSIIDX above 255 and a torn last record. Scrambled packets are none, nor
is a file without records. The bit rate is that of the recorded packets, 188 bytes each, by
the clock of the input's first PID with PCR, between the first PCR and the last. PIDs that
are not routed do not count, nor do intervals in which the PCR restarts.

Keys of the JSON object:
{}

Example: zepctl records check out.rec
         some-receiver | zepctl records check --json - > result.json)",
        JSON_KEYS));
    command->callback([arguments] { check(arguments->file, arguments->json); });
}

void addSplit(CLI::App& records) {
    struct Arguments {
        std::string file;
        std::string directory;
    };
    const auto arguments = std::make_shared<Arguments>();
    CLI::App* command =
        records.add_subcommand("split", "Write the packets of each input to a transport stream file");
    command->add_option("FILE", arguments->file, "records, or - for standard input")->required();
    command->add_option("DIR", arguments->directory, "where the files go, made where it is missing")
        ->required();
    command->footer(
        R"(The packets of TSIIDX 3 go to DIR/tsiidx-003.ts, in their order. Files of that name are
overwritten, others stay. Records with a bad sync byte or a TSIIDX above 255 and a torn last
one are left out; the exit status is 1 if there were any.

Example: zepctl records split out.rec streams && ffprobe streams/tsiidx-003.ts)");
    command->callback([arguments] { split(arguments->file, arguments->directory); });
}

void addWatch(CLI::App& records) {
    struct Arguments {
        std::string file;
        std::optional<std::chrono::duration<double>> duration;
    };
    const auto arguments = std::make_shared<Arguments>();
    CLI::App* command = records.add_subcommand("watch", "Show live what arrives, by input");
    command->add_option("FILE", arguments->file, "FIFO, growing file or device, or - for standard input")
        ->required();
    const auto parse = [arguments](const std::string& text) { arguments->duration = parseDuration(text); };
    command->add_option_function<std::string>("--for", parse, "end after so many seconds")
        ->type_name("SECONDS");
    command->footer(
        R"(Shows the rate over the latest two seconds and over all, and the drift: how much later
(+) or earlier (-) than their PCRs say packets arrive, since the first two seconds, in ms and as
a part of the time by the PCR. It restarts with each new time base. Records that a file
holds already are counted, but not timed; a file that is emptied is watched from its start.
Without a terminal, one line per input and second is printed.

Ends with Ctrl-C, or when the last writer of a FIFO has left; waits for the first one.

Example: zepctl records watch pktio --for 60)");
    command->callback([arguments] { watchRecords(arguments->file, arguments->duration); });
}

}  // namespace

void addRecordCommands(CLI::App& app) {
    CLI::App* records =
        app.add_subcommand("records", "Look at records: each a TSIIDX and a transport packet");
    records->require_subcommand(1);
    records->footer("Example: zepctl records check out.rec");
    addCheck(*records);
    addSplit(*records);
    addWatch(*records);
}

}  // namespace Vel::Zepctl
