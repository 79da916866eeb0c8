#include <fcntl.h>
#include <malloc.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include "cpu_time.h"
#include "player.h"
#include "test_files.h"
#include "test_packet.h"
#include "vel/cpp_utils/posix/file_descriptor.h"
#include "vel/ts_basics/zep_record.h"

// Inputs of constant rate, paced in real time. ZEPTFEM_BENCH_SECONDS is the length of the runs that measure
// arrival times, by default 60; a run that measures CPU time takes a fifteenth of it. If
// ZEPTFEM_BENCH_ARRIVALS is set, the arrival times of the first input are written to that directory.

namespace {

using namespace Vel;
using Bench::PID;
using Bench::Player;
using Bench::secondsOf;

constexpr double PACKET_BITS = Ts::TS_PACKET_SIZE * 8;
constexpr double PCR_HZ = 27e6;
constexpr double PCR_INTERVAL = 0.04;  // seconds
constexpr double DUE_GROUP = 250e-6;   // seconds
/// From the start of the inputs until everything that happens only once is over: threads have started, and
/// every input has read ahead and written its first packets.
constexpr double START = 1;
/// More than the program reads ahead (with -m 10,000 packets), so that no input ends during a measurement.
constexpr double REST = 20;

double benchSeconds() {
    const char* text = std::getenv("ZEPTFEM_BENCH_SECONDS");
    return text == nullptr ? 60 : std::stod(text);
}

void sleepFor(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

/// A file of one PID at a constant rate, with a PCR every 40 ms.
struct RateFile {
    RateFile(std::int64_t megabits, double seconds)
        : packetSeconds(PACKET_BITS / (static_cast<double>(megabits) * 1e6)),
          packets(static_cast<std::size_t>(seconds / packetSeconds)) {
        const auto gap = static_cast<std::size_t>(PCR_INTERVAL / packetSeconds);
        std::ofstream out(path, std::ios::binary);
        for (std::size_t i = 0; i < packets; ++i) {
            TestSupport::TestPacket packet{.pid = PID};
            if (i % gap == 0) {
                packet.pcr = std::llround(static_cast<double>(i) * packetSeconds * PCR_HZ);
            }
            const TestSupport::Bytes bytes = packet.bytes();
            std::copy(bytes.begin(), bytes.end(), std::ostreambuf_iterator<char>(out));
        }
    }

    double packetSeconds;
    std::size_t packets;
    const TestSupport::TemporaryFolder folder;
    const std::string path = folder / "stream.ts";
};

/// Inputs that start one after the other, at arbitrary phases: packets of different inputs are due at
/// different times, as those of independent sources are.
std::unique_ptr<Player> startInputs(const RateFile& file, std::int64_t inputs, const std::string& device,
                                    Utils::PcrPacing pacing) {
    auto player = std::make_unique<Player>(file.path, static_cast<std::uint32_t>(inputs), device,
                                           Utils::StreamMode::PcrRate, pacing);
    for (std::uint32_t i = 0; i < inputs; ++i) {
        player->send<Utils::FPGAMonEvent_CPUPIDAdded>(i, PID);
        player->endChange();
        sleepFor(file.packetSeconds * 0.618);
    }
    return player;
}

/// A file that is read in blocks, as the program does.
struct BareInput {
    explicit BareInput(const std::string& path) : file(::open(path.c_str(), O_RDONLY)) {}
    const std::uint8_t* next() {
        if (position == block.size()) {
            benchmark::DoNotOptimize(::read(file.get(), block.data(), block.size()));
            position = 0;
        }
        return block.data() + std::exchange(position, position + Ts::TS_PACKET_SIZE);
    }

    CppUtil::FileDescriptor file;
    std::vector<std::uint8_t> block = std::vector<std::uint8_t>(std::size_t{348} * Ts::TS_PACKET_SIZE);
    std::size_t position = block.size();
};

/// The minimal code that does the same job: reads all inputs, whose packets are due at evenly spread times,
/// sleeps until the absolute time of each due group, and writes each record.
void playBare(const RateFile& file, std::int64_t inputs, const std::string& device) {
    const CppUtil::FileDescriptor out(::open(device.c_str(), O_WRONLY));
    std::deque<BareInput> sources;
    for (std::int64_t n = 0; n < inputs; ++n) {
        sources.emplace_back(file.path);
    }
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    const double begin = secondsOf(CLOCK_MONOTONIC);
    const auto dueTime = [&](std::size_t i) {
        return begin + static_cast<double>(i) * file.packetSeconds / static_cast<double>(inputs);
    };
    std::uint8_t record[Ts::RECORD_SIZE] = {};
    const std::size_t all = file.packets * static_cast<std::size_t>(inputs);
    for (std::size_t i = 0; i < all;) {
        const double due = dueTime(i);
        const timespec deadline{static_cast<time_t>(due), static_cast<long>(std::fmod(due, 1) * 1e9)};
        ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr);
        for (; i < all && dueTime(i) <= due + DUE_GROUP; ++i) {
            const std::size_t tsiidx = i % sources.size();
            Ts::writeRecordHeader(record, static_cast<std::uint32_t>(tsiidx));
            std::copy_n(sources[tsiidx].next(), Ts::TS_PACKET_SIZE, record + Ts::RECORD_HEADER_SIZE);
            benchmark::DoNotOptimize(::write(out.get(), record, sizeof record));
        }
    }
    ::prctl(PR_SET_TIMERSLACK, 0UL, 0UL, 0UL, 0UL);  // the default
}

/// What the inputs did in a stretch of time after their start.
struct Cost {
    double cpuPercent;   // processor time, of one core
    double sentPercent;  // packets written, of those that were due
};

Cost playForCost(const RateFile& file, std::int64_t inputs, double seconds, Utils::PcrPacing pacing) {
    const auto player = startInputs(file, inputs, "/dev/null", pacing);
    sleepFor(START);
    const double begin = secondsOf(CLOCK_MONOTONIC);
    const double cpu = secondsOf(CLOCK_PROCESS_CPUTIME_ID);
    const std::uint64_t records = player->getRecordCount();
    sleepFor(seconds);
    const auto sent = static_cast<double>(player->getRecordCount() - records);
    const double percent = 100 / (secondsOf(CLOCK_MONOTONIC) - begin);
    return {(secondsOf(CLOCK_PROCESS_CPUTIME_ID) - cpu) * percent,
            sent * file.packetSeconds / static_cast<double>(inputs) * percent};
}

/// Processor time of paced inputs against one bare loop that sends the packets of all of them. Each
/// repetition is a pair; the medians count. Arguments: megabits per second, inputs.
void pacingCost(benchmark::State& state) {
    const double seconds = benchSeconds() / 15;
    const RateFile file(state.range(0), START + seconds + REST);
    const RateFile bareFile(state.range(0), seconds);
    while (state.KeepRunning()) {
        const Cost clock = playForCost(file, state.range(1), seconds, Utils::PcrPacing::Clock);
        const double begin = secondsOf(CLOCK_PROCESS_CPUTIME_ID);
        playBare(bareFile, state.range(1), "/dev/null");
        const double bare = (secondsOf(CLOCK_PROCESS_CPUTIME_ID) - begin) / seconds * 100;
        const Cost batches = playForCost(file, state.range(1), seconds, Utils::PcrPacing::Batches);
        state.counters["cpu_ratio"] = clock.cpuPercent / bare;
        state.counters["clock_percent"] = clock.cpuPercent;
        state.counters["clock_sent_percent"] = clock.sentPercent;
        state.counters["bare_percent"] = bare;
        state.counters["batches_percent"] = batches.cpuPercent;
    }
}

/// RSS of the process in MiB, without mapped files.
double residentMiB() {
    std::size_t total = 0;
    std::size_t resident = 0;
    std::size_t shared = 0;
    std::ifstream("/proc/self/statm") >> total >> resident >> shared;
    return static_cast<double>((resident - shared) * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE))) /
           (1 << 20);
}

void memoryOfClockedInputs(benchmark::State& state) {
    constexpr int INPUTS = 64;
    const RateFile file(1, START + REST);
    Log::getLogsystem();  // allocates its queue
    while (state.KeepRunning()) {
        ::malloc_trim(0);  // else freed memory of earlier benchmarks is used again and not counted
        const double before = residentMiB();
        const auto player = startInputs(file, INPUTS, "/dev/null", Utils::PcrPacing::Clock);
        sleepFor(3 * START);
        state.counters["input_mib"] = (residentMiB() - before) / INPUTS;
    }
}

/// A FIFO whose reader records the time of each arrival.
class StampedFifo {
public:
    StampedFifo(std::string path, std::int64_t inputs, std::size_t packets)
        : m_Path(std::move(path)), m_Arrivals(static_cast<std::size_t>(inputs)) {
        for (std::vector<double>& input : m_Arrivals) {
            input.reserve(packets);
        }
        if (::mkfifo(m_Path.c_str(), 0600) != 0) {
            std::abort();
        }
        m_Reader = std::jthread([this] {
            const CppUtil::FileDescriptor fifo(::open(m_Path.c_str(), O_RDONLY));  // waits for the writer
            ::fcntl(fifo.get(), F_SETPIPE_SZ, 1 << 20);
            // A record is shorter than PIPE_BUF: neither write() nor read() tears it.
            std::vector<std::uint8_t> block(std::size_t{1000} * Ts::RECORD_SIZE);
            for (ssize_t got = 0; (got = ::read(fifo.get(), block.data(), block.size())) > 0;) {
                const double now = secondsOf(CLOCK_MONOTONIC);
                for (ssize_t at = 0; at < got; at += Ts::RECORD_SIZE) {
                    m_Arrivals.at(Ts::readRecordHeader(block.data() + at)).push_back(now);
                }
            }
        });
    }

    const std::string& path() const { return m_Path; }
    /// For each input, seconds on the monotonic clock for each packet. Waits until the writer closes the
    /// FIFO.
    const std::vector<std::vector<double>>& arrivals() {
        m_Reader.join();
        return m_Arrivals;
    }

private:
    std::string m_Path;
    std::vector<std::vector<double>> m_Arrivals;
    std::jthread m_Reader;
};

struct Quality {
    double driftPpm = 0;     // slope of the arrivals against the PCR
    double within500us = 1;  // share of the packets that are at most 0.5 ms early or late
    double within1ms = 1;
    double latestMs = 0;  // lateness of the latest packet

    /// Keeps the worse value of both.
    void merge(const Quality& other) {
        driftPpm = std::abs(other.driftPpm) > std::abs(driftPpm) ? other.driftPpm : driftPpm;
        within500us = std::min(within500us, other.within500us);
        within1ms = std::min(within1ms, other.within1ms);
        latestMs = std::max(latestMs, other.latestMs);
    }
};

/// Lateness is measured against a line with the PCR's slope through the median arrival.
Quality judge(const std::vector<double>& arrivals, double packetSeconds) {
    if (arrivals.size() < 2) {
        return {};
    }
    const auto n = static_cast<double>(arrivals.size());
    std::vector<double> late(arrivals.size());
    double product = 0;
    for (std::size_t i = 0; i < arrivals.size(); ++i) {
        late[i] = arrivals[i] - arrivals[0] - static_cast<double>(i) * packetSeconds;
        product += late[i] * (static_cast<double>(i) - (n - 1) / 2);
    }
    const double slope = product * 12 / (n * (n * n - 1)) / packetSeconds;
    std::ranges::sort(late);
    const double middle = late[late.size() / 2];
    const auto within = [&](double limit) {
        const auto count =
            std::ranges::count_if(late, [&](double l) { return std::abs(l - middle) <= limit; });
        return static_cast<double>(count) / n;
    };
    return {slope * 1e6, within(500e-6), within(1e-3), (late.back() - middle) * 1e3};
}

void writeArrivals(const std::string& name, const std::vector<double>& arrivals, double packetSeconds) {
    if (const char* folder = std::getenv("ZEPTFEM_BENCH_ARRIVALS")) {
        std::ofstream file(std::filesystem::path(folder) / (name + ".dat"));
        for (std::size_t i = 0; i < arrivals.size(); i += 100) {
            const double due = static_cast<double>(i) * packetSeconds;
            file << due << ' ' << (arrivals[i] - arrivals[0] - due) * 1e3 << '\n';
        }
    }
}

using Play = void (*)(const RateFile& file, std::int64_t inputs, const std::string& device);

template <Utils::PcrPacing PACING>
void playProgram(const RateFile& file, std::int64_t inputs, const std::string& device) {
    const auto player = startInputs(file, inputs, device, PACING);
    const auto limit = std::chrono::seconds(60 + static_cast<int>(benchSeconds()));
    TestSupport::eventually(
        [&] { return player->getRecordCount() == file.packets * static_cast<std::size_t>(inputs); }, limit);
}

/// Plays several inputs while other threads keep the processors busy, and reports the worst of the inputs.
/// Arguments: megabits per second, inputs, busy threads.
void pacingQuality(benchmark::State& state, const char* name, Play play) {
    const RateFile file(state.range(0), benchSeconds());
    while (state.KeepRunning()) {
        std::vector<std::jthread> busy;
        for (std::int64_t n = 0; n < state.range(2); ++n) {
            busy.emplace_back([](const std::stop_token& stop) {
                while (!stop.stop_requested()) {
                }
            });
        }
        StampedFifo fifo(file.folder / "fifo", state.range(1), file.packets);
        play(file, state.range(1), fifo.path());
        busy.clear();  // stops and joins them
        const std::vector<std::vector<double>>& all = fifo.arrivals();
        Quality worst;
        double missing = 0;
        for (const std::vector<double>& arrivals : all) {
            worst.merge(judge(arrivals, file.packetSeconds));
            missing += static_cast<double>(file.packets) - static_cast<double>(arrivals.size());
        }
        writeArrivals(fmt::format("{}-{}x{}-{}", name, state.range(0), state.range(1), state.range(2)),
                      all[0], file.packetSeconds);
        state.counters["drift_ppm"] = worst.driftPpm;
        state.counters["within_500us_percent"] = worst.within500us * 100;
        state.counters["within_1ms_percent"] = worst.within1ms * 100;
        state.counters["latest_ms"] = worst.latestMs;
        state.counters["missing"] = missing;
    }
}

BENCHMARK(memoryOfClockedInputs)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

BENCHMARK(pacingCost)
    ->ArgNames({"mbit", "inputs"})
    ->ArgsProduct({{1}, {1, 4, 16, 64, 256}})
    ->Args({5, 16})
    ->Args({40, 1})
    ->Iterations(1)
    ->Repetitions(5)
    ->ReportAggregatesOnly()
    ->UseRealTime()
    ->Unit(benchmark::kSecond);

void oneRun(benchmark::internal::Benchmark* each) {
    each->ArgNames({"mbit", "inputs", "busy"})
        ->Args({5, 1, 0})
        ->Iterations(1)
        ->UseRealTime()
        ->Unit(benchmark::kSecond);
}
void sixRuns(benchmark::internal::Benchmark* each) {
    each->Apply(oneRun);
    each->Args({5, 16, 0})->Args({1, 64, 0})->Args({1, 256, 0})->Args({40, 1, 0})->Args({1, 64, 4});
}
BENCHMARK_CAPTURE(pacingQuality, Bare, "Bare", playBare)->Apply(sixRuns);
BENCHMARK_CAPTURE(pacingQuality, Batches, "Batches", playProgram<Utils::PcrPacing::Batches>)->Apply(oneRun);
BENCHMARK_CAPTURE(pacingQuality, Clock, "Clock", playProgram<Utils::PcrPacing::Clock>)->Apply(sixRuns);

}  // namespace
