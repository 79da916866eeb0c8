#include <unistd.h>

#include <charconv>
#include <chrono>
#include <thread>

#include <fmt/format.h>

#include "command_line.h"
#include "command_result.h"
#include "commands.h"
#include "records/record_plot.h"
#include "records/record_report.h"
#include "records/record_split.h"
#include "records/record_watch.h"

namespace Vel::Zepctl {

namespace {

/// One year; the end time then cannot overflow the clock's range.
constexpr double MAX_SECONDS = 366 * 86400.0;

using Clock = std::chrono::steady_clock;

/// The records are complete once nothing more arrives for this time.
constexpr std::chrono::milliseconds QUIET(200);
/// A missing file is looked for at this interval.
constexpr std::chrono::milliseconds RETRY_INTERVAL(20);

std::string checkSeconds(const std::string& text) {
    double seconds = 0;
    const char* end = text.data() + text.size();
    const bool isNumber = std::from_chars(text.data(), end, seconds).ptr == end;
    return isNumber && seconds > 0 && seconds <= MAX_SECONDS
               ? std::string()
               : fmt::format("\"{}\" is not a number of seconds greater than 0 and at most {} (366 days)",
                             text, MAX_SECONDS);
}

/// Passes records to a check until they are complete or the time is up. Starts over if a plain file is
/// rewritten; the last writer of a FIFO may be followed by another one.
void readUntil(Clock::time_point end, RecordReader& reader, RecordCheck& check, const Arguments& args) {
    auto latest = Clock::now();
    for (auto now = latest; now < end && (now - latest < QUIET || !check.isSettled()); now = Clock::now()) {
        if (!reader.waitForData(RETRY_INTERVAL)) {
            continue;
        }
        if (reader.restartIfRewritten()) {
            check = RecordCheck(args.against, args.strict);
        }
        check.add(reader.read());
        latest = reader.isAtEnd() ? latest : Clock::now();
    }
}

void checkRecords(const Arguments& args) {
    const std::string file = args.getRecordFile();
    RecordCheck check(args.against, args.strict);
    const Seconds limit(args.seconds.value_or(0));
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(limit);
    // Another program may still have to create the file.
    while (file != "-" && ::access(file.c_str(), F_OK) == -1 && Clock::now() < end) {
        std::this_thread::sleep_for(RETRY_INTERVAL);
    }
    RecordReader reader(file);
    if (args.seconds) {
        readUntil(end, reader, check, args);
    } else {
        readToEnd(reader, check);
    }
    check.end(reader.getTornBytes());
    check.requireComparisons();
    const std::string name = reader.getName();
    printOutput(args.json ? formatJsonReport(reader.getRawName(), check) : formatReport(name, check));
    check.getFaults().requireNone(name);
}

void splitRecords(const std::string& file, const std::string& directory) {
    RecordReader reader(file);
    RecordSplit split(directory, reader.getStatus());
    readToEnd(reader, split);
    split.end(reader.getTornBytes());
    std::string lines;
    for (const auto& [tsiidx, output] : split.getOutputs()) {
        lines += fmt::format("{}: {}\n", CppUtil::escapeControls(output.path),
                             formatCount(output.packets, "packet"));
    }
    const FaultLog& faults = split.getFaults();
    if (faults.getRecords() == 0) {
        lines += reader.getName() + " is empty: nothing written\n";
    }
    printOutput(lines + faults.toLines());
    faults.requireNone(reader.getName());
}

}  // namespace

void declareRecordCommands(CLI::App& app, Arguments& args) {
    CLI::App& records = declareCommand(
        app, "records", "Inspect records (each a TSIIDX followed by a transport stream packet)",
        "Example: zepctl records check out.rec");
    records.require_subcommand(1);

    CLI::App& check = declareCommand(
        records, "check", "Check the records of a file; exit status 1 if they have faults",
        R"(Faults are continuity errors (ISO/IEC 13818-1, 2.4.3.3), transport errors, a sync byte other
than 0x47, a TSIIDX above 255 and a torn last record. Scrambled packets are not faults, nor is
a file without records. With --against, the records of that input must be exactly the packets of
the PIDs in FILE, first to last; without PIDs, of the PIDs seen in the records. The last colon
separates the PIDs, so a FILE that contains a colon is followed by one. The man page explains the
figures and lists the keys of the JSON object.

Example: zepctl records check out.rec
         some-receiver | zepctl records check --json - > result.json
         zepctl records check --against 3=a.ts:0x100,0x101 --wait 10 out.rec)",
        [&] { checkRecords(args); });
    check.add_option("FILE", args.file,
                     "records, or - for standard input (default: pktio in the directory of -d)");
    check.add_flag("--json", args.json, "print the result as JSON");
    check.add_flag("--strict", args.strict, "PCR jumps and PCR distances above 100 ms are faults");
    CLI::Option* against = check.add_option("--against", args.against, "compare an input with FILE")
                               ->type_name("TSIIDX=FILE[:PID,...]")
                               ->allow_extra_args(false);
    check.add_option("--wait", args.seconds, "wait until all has arrived, at most SECONDS")
        ->type_name("SECONDS")
        ->check(checkSeconds)
        ->needs(against);

    CLI::App& split = declareCommand(
        records, "split", "Write the packets of each input to a transport stream file",
        R"(The packets of TSIIDX 3 are written to DIR/tsiidx-003.ts, and so on. Existing files with these
names are overwritten. If one of these names is FILE itself, a symbolic link, a file with more than
one hard link, or anything but a plain file, the command fails and changes nothing. Records with a
bad sync byte or a TSIIDX above 255 and a torn last record are skipped; the exit status is then 1.

Example: zepctl records split out.rec streams && ffprobe streams/tsiidx-003.ts)",
        [&] { splitRecords(args.file, args.directory); });
    split.add_option("FILE", args.file, "records, or - for standard input")->required();
    split.add_option("DIR", args.directory, "directory for the files, created if it is missing")->required();

    CLI::App& watch = declareCommand(
        records, "watch", "Show arriving records live, per input",
        R"(Shows the rate over the last two seconds and overall, and the drift: how much later (+) or
earlier (-) packets arrive than their PCRs indicate, in ms and in ppm of the time elapsed on the
PCR clock. A terminal shows one table; otherwise, one line per input is printed every second. Ends
on Ctrl-C, or when the last writer closes a FIFO; the exit status is then 1 if there were faults,
as in a check. The man page explains the figures and lists the JSON keys.

Example: zepctl records watch pktio --for 60 --save out.csv)",
        [&] { watchRecords(args.getRecordFile(), args.seconds, args.json, args.output); });
    watch.add_option(
        "FILE", args.file,
        "FIFO, growing file or device, or - for standard input (default: pktio in the directory of -d)");
    watch.add_flag("--json", args.json, "print one JSON object per line: inputs, and finally the result");
    watch.add_option("--for", args.seconds, "stop after SECONDS")->type_name("SECONDS")->check(checkSeconds);
    watch.add_option("--save", args.output, "save rate, lateness and faults of each second in a .csv file")
        ->type_name("PATH")
        ->check([](const std::string& path) {
            return path.ends_with(".csv") ? std::string() : '"' + path + "\" does not end in .csv";
        });

    CLI::App& plot = declareCommand(
        records, "plot", "Draw a picture of records, or of what a watch has saved",
        R"(Of records, it shows for each input, over its PCR time: the bit rate of the eight largest PIDs and
the rest, in steps of 100 ms; the distance between PCRs; and the faults of a check with --strict. Of a
file that ends in .csv, which watch --save has written: lateness, rate and faults over the time of
arrival. PICTURE ends in .svg or .png; an existing one is replaced. Needs gnuplot.

Example: zepctl records plot out.rec out.svg
         zepctl records plot out.csv out.png)",
        [&] { plotRecords(args.file, args.output); });
    plot.add_option("FILE", args.file, "records, - for standard input, or a CSV file")->required();
    plot.add_option("PICTURE", args.output, "file to draw")->required();
}

}  // namespace Vel::Zepctl
