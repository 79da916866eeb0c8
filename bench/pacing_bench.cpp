#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include "cpu_time.h"
#include "metered_adapter.h"
#include "test_files.h"
#include "test_packet.h"
#include "tspacket_streaming/packet_dispatcher.h"
#include "tspacket_streaming/pcr_clock_adapter.h"
#include "tspacket_streaming/pcr_rate_adapter.h"
#include "tspacket_streaming/pktio_stream_in.h"
#include "vel/ts_basics/zep_record.h"

// Streams of constant rate, paced in real time into FIFOs whose readers record the time of each arrival.
// ZEPTFEM_BENCH_SECONDS is their length, by default 60. If ZEPTFEM_BENCH_ARRIVALS is set, the arrivals are
// written to that directory.

namespace {

using namespace Vel;

constexpr std::uint32_t PID = 0x100;
constexpr std::uint32_t TSIIDX = 3;
constexpr double PACKET_BITS = Ts::TS_PACKET_SIZE * 8;
constexpr double PCR_HZ = 27e6;
constexpr double PCR_INTERVAL = 0.04;  // seconds

double now() {
    return Bench::secondsOf(CLOCK_MONOTONIC);
}

double benchSeconds() {
    const char* text = std::getenv("ZEPTFEM_BENCH_SECONDS");
    return text == nullptr ? 60 : std::stod(text);
}

/// A file of one PID at a constant rate, with a PCR every 40 ms.
struct RateFile {
    RateFile(std::string file, double bitsPerSecond)
        : path(std::move(file)),
          packetSeconds(PACKET_BITS / bitsPerSecond),
          packets(static_cast<std::size_t>(benchSeconds() / packetSeconds)) {
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

    std::string path;
    double packetSeconds;
    std::size_t packets;
};

/// A FIFO whose reader records the time of each arrival.
class StampedFifo {
public:
    StampedFifo(std::string path, std::size_t packets) : m_Path(std::move(path)) {
        if (::mkfifo(m_Path.c_str(), 0600) != 0) {
            std::abort();
        }
        m_Arrivals.reserve(packets);
        m_Reader = std::thread([this, fd = ::open(m_Path.c_str(), O_RDONLY | O_NONBLOCK)] {
            ::fcntl(fd, F_SETFL, 0);
            // read() returns 0 before the first writer opens the FIFO, and after it has closed it.
            std::vector<char> block(std::size_t{100} * Ts::RECORD_SIZE);
            std::size_t bytes = 0;
            for (ssize_t got = 0; (got = ::read(fd, block.data(), block.size())) > 0 || bytes == 0;) {
                bytes += static_cast<std::size_t>(got);
                m_Arrivals.resize(bytes / Ts::RECORD_SIZE, now());
            }
            ::close(fd);
        });
    }

    const std::string& path() const { return m_Path; }
    /// Seconds on the monotonic clock, one value for each packet. Waits until the writer closes the FIFO.
    const std::vector<double>& arrivals() {
        m_Reader.join();
        return m_Arrivals;
    }

private:
    std::string m_Path;
    std::vector<double> m_Arrivals;
    std::thread m_Reader;
};

/// The minimal code that keeps the times: a sleep until the absolute time of each group, and one write per
/// record.
double playBare(const RateFile& file, const std::string& device) {
    const int out = ::open(device.c_str(), O_WRONLY);
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    const double begin = now();
    const std::array<char, Ts::RECORD_SIZE> record{};
    for (std::size_t i = 0; i < file.packets;) {
        const double due = begin + static_cast<double>(i) * file.packetSeconds;
        const timespec deadline{static_cast<time_t>(due), static_cast<long>(std::fmod(due, 1) * 1e9)};
        ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr);
        for (; i < file.packets && begin + static_cast<double>(i) * file.packetSeconds <= due + 250e-6; ++i) {
            benchmark::DoNotOptimize(::write(out, record.data(), record.size()));
        }
    }
    ::close(out);
    return Bench::secondsOf(CLOCK_THREAD_CPUTIME_ID);
}

template <class Adapter, class... Args>
double play(const RateFile& file, const std::string& device, Args... adapterArguments) {
    Bench::Meter meter(1);
    Utils::PacketDispatcher dispatcher(device);
    auto adapter = std::make_unique<Bench::MeteredAdapter<Adapter>>(meter, file.packets, adapterArguments...);
    Utils::PktioStreamIn stream(file.path, TSIIDX, std::move(adapter), dispatcher);
    stream.changeRoutes(std::array{Utils::PktioStreamIn::RouteChange{PID, true}});
    meter.playing.wait();
    return meter.cpuSeconds;
}
double playBatches(const RateFile& file, const std::string& device) {
    return play<Utils::PCRRateAdapter>(file, device);
}
double playClock(const RateFile& file, const std::string& device) {
    return play<Utils::PCRClockAdapter>(file, device, TSIIDX);
}

struct Quality {
    double driftPpm;     // slope of the arrivals against the PCR
    double within500us;  // share of the packets that are at most 0.5 ms early or late
    double latestMs;     // lateness of the latest packet
};

/// Lateness is measured against a line with the PCR's slope through the median arrival.
Quality judge(const std::vector<double>& arrivals, double packetSeconds) {
    const auto n = static_cast<double>(arrivals.size());
    std::vector<double> late(arrivals.size());
    double product = 0;
    for (std::size_t i = 0; i < arrivals.size(); ++i) {
        late[i] = arrivals[i] - arrivals[0] - static_cast<double>(i) * packetSeconds;
        product += late[i] * (static_cast<double>(i) - (n - 1) / 2);
    }
    const double slope = product * 12 / (n * (n * n - 1)) / packetSeconds;
    std::vector<double> sorted = late;
    std::ranges::sort(sorted);
    const double middle = sorted[sorted.size() / 2];
    const auto within = std::ranges::count_if(late, [&](double l) { return std::abs(l - middle) <= 500e-6; });
    return {slope * 1e6, static_cast<double>(within) / n, (sorted.back() - middle) * 1e3};
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

/// @return processor seconds of the thread that plays
using Rule = double (*)(const RateFile& file, const std::string& device);

/// Plays several streams at the same time while other threads keep the processors busy, and reports the worst
/// of the streams. Arguments: megabits per second, streams, busy threads.
void pacing(benchmark::State& state, const char* name, Rule rule) {
    const TestSupport::TemporaryFolder folder;
    const RateFile file(folder / "stream.ts", static_cast<double>(state.range(0)) * 1e6);
    while (state.KeepRunning()) {
        std::vector<std::jthread> busy;
        for (std::int64_t n = 0; n < state.range(2); ++n) {
            busy.emplace_back([](const std::stop_token& stop) {
                while (!stop.stop_requested()) {
                }
            });
        }
        std::deque<StampedFifo> fifos;
        std::vector<std::future<double>> players;
        for (std::int64_t n = 0; n < state.range(1); ++n) {
            const auto& fifo = fifos.emplace_back(folder / std::to_string(n), file.packets);
            players.push_back(std::async(std::launch::async, rule, std::cref(file), fifo.path()));
        }
        double cpu = 0;
        for (std::future<double>& player : players) {
            cpu += player.get();
        }
        busy.clear();  // stops and joins them
        Quality worst{0, 1, 0};
        for (StampedFifo& fifo : fifos) {
            const std::vector<double>& arrivals = fifo.arrivals();
            const Quality quality = judge(arrivals, file.packetSeconds);
            writeArrivals(fmt::format("{}-{}x{}-{}", name, state.range(0), state.range(1), state.range(2)),
                          arrivals, file.packetSeconds);
            worst.driftPpm = std::max(worst.driftPpm, quality.driftPpm, [](double left, double right) {
                return std::abs(left) < std::abs(right);
            });
            worst.within500us = std::min(worst.within500us, quality.within500us);
            worst.latestMs = std::max(worst.latestMs, quality.latestMs);
        }
        state.counters["drift_ppm"] = worst.driftPpm;
        state.counters["within_500us_percent"] = worst.within500us * 100;
        state.counters["latest_ms"] = worst.latestMs;
        state.counters["cpu_percent"] = cpu / benchSeconds() * 100;
    }
}
#define PACING(rule)                                   \
    BENCHMARK_CAPTURE(pacing, rule, #rule, play##rule) \
        ->ArgNames({"mbit", "streams", "busy"})        \
        ->ArgsProduct({{5, 40}, {1}, {0, 4}})          \
        ->Iterations(1)                                \
        ->UseRealTime()                                \
        ->Unit(benchmark::kSecond)
PACING(Bare)->Args({5, 16, 0});
PACING(Batches)->ArgsProduct({{1}, {1, 4, 16, 64, 256}, {0}});
PACING(Clock)->Args({5, 16, 0})->ArgsProduct({{1}, {1, 4, 16, 64, 256}, {0}});

}  // namespace
