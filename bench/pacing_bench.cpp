#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "cpu_time.h"
#include "tspacket_streaming/packet_dispatcher.h"
#include "tspacket_streaming/pcr_clock_adapter.h"
#include "tspacket_streaming/pcr_rate_adapter.h"
#include "tspacket_streaming/pktio_stream_in.h"
#include "vel/ts_basics/zep_record.h"

// Streams of constant rate, paced in real time into FIFOs whose readers stamp the arrivals.
// ZEPTFEM_BENCH_SECONDS is their length, by default 60. With ZEPTFEM_BENCH_ARRIVALS, a directory, the
// arrivals are written there.

namespace {

using namespace Vel;

constexpr std::uint32_t PID = 0x100;
constexpr double PACKET_BITS = Ts::TS_PACKET_SIZE * 8;
constexpr double PCR_HZ = 27e6;
constexpr double PCR_INTERVAL = 0.04;  // seconds

enum Rule { Bare, Batches, Clock };

double now() {
    return Bench::secondsOf(CLOCK_MONOTONIC);
}

double benchSeconds() {
    const char* text = std::getenv("ZEPTFEM_BENCH_SECONDS");
    return text == nullptr ? 60 : std::stod(text);
}

/// A stream of one PID at a constant rate, with a PCR every 40 ms.
class RateFile {
public:
    explicit RateFile(double bitsPerSecond)
        : m_PacketSeconds(PACKET_BITS / bitsPerSecond),
          m_Packets(static_cast<std::size_t>(benchSeconds() / m_PacketSeconds)),
          m_Path(std::filesystem::temp_directory_path() /
                 ("zeptfem-bench-" + std::to_string(::getpid()) + ".ts")) {
        const auto gap = static_cast<std::size_t>(PCR_INTERVAL / m_PacketSeconds);
        std::ofstream file(m_Path, std::ios::binary);
        for (std::size_t i = 0; i < m_Packets; ++i) {
            std::array<char, Ts::TS_PACKET_SIZE> packet = {Ts::SYNC_BYTE, PID >> 8, PID & 0xFF, 0x10};
            if (i % gap == 0) {
                const auto ticks = static_cast<std::uint64_t>(
                    std::llround(static_cast<double>(i) * m_PacketSeconds * PCR_HZ));
                const std::uint64_t field = (ticks / 300) << 15 | 0x7E00 | ticks % 300;
                packet[3] = 0x30;
                packet[4] = 7;
                packet[5] = 0x10;
                for (std::size_t k = 0; k < 6; ++k) {
                    packet[6 + k] = static_cast<char>(field >> (40 - 8 * k));
                }
            }
            file.write(packet.data(), packet.size());
        }
    }
    ~RateFile() { std::filesystem::remove(m_Path); }
    RateFile(const RateFile&) = delete;
    RateFile& operator=(const RateFile&) = delete;

    double packetSeconds() const { return m_PacketSeconds; }
    std::size_t packets() const { return m_Packets; }
    const std::string& path() const { return m_Path; }

private:
    double m_PacketSeconds;
    std::size_t m_Packets;
    std::string m_Path;
};

/// A FIFO whose reader stamps what arrives.
class StampedFifo {
public:
    StampedFifo(std::size_t n, std::size_t packets)
        : m_Path(std::filesystem::temp_directory_path() /
                 ("zeptfem-bench-" + std::to_string(::getpid()) + "-" + std::to_string(n))) {
        if (::mkfifo(m_Path.c_str(), 0600) != 0) {
            std::abort();
        }
        m_Arrivals.reserve(packets);
        m_Reader = std::thread([this, fd = ::open(m_Path.c_str(), O_RDONLY | O_NONBLOCK)] {
            ::fcntl(fd, F_SETFL, 0);
            // The first writer has not come yet; after it, 0 bytes are the end.
            std::vector<char> block(std::size_t{100} * Ts::RECORD_SIZE);
            std::size_t bytes = 0;
            for (ssize_t got = 0; (got = ::read(fd, block.data(), block.size())) > 0 || bytes == 0;) {
                bytes += static_cast<std::size_t>(got);
                m_Arrivals.resize(bytes / Ts::RECORD_SIZE, now());
            }
            ::close(fd);
        });
    }
    ~StampedFifo() { std::filesystem::remove(m_Path); }
    StampedFifo(const StampedFifo&) = delete;
    StampedFifo& operator=(const StampedFifo&) = delete;

    const std::string& path() const { return m_Path; }
    /// Seconds on the monotonic clock, one for each packet, once the writer has left.
    const std::vector<double>& arrivals() {
        m_Reader.join();
        return m_Arrivals;
    }

private:
    std::string m_Path;
    std::vector<double> m_Arrivals;
    std::thread m_Reader;
};

/// Passes on to an adapter, and notes the processor time of the thread that uses it.
class MeteredAdapter final : public Utils::IRateAdapter {
public:
    MeteredAdapter(std::unique_ptr<Utils::IRateAdapter> adapter, std::atomic<double>& cpuSeconds,
                   std::atomic<std::size_t>& left)
        : m_Adapter(std::move(adapter)), m_CpuSeconds(cpuSeconds), m_Left(left) {}
    std::int32_t bufferPacket(const Ts::TSPacket& packet, bool last) override {
        return m_Adapter->bufferPacket(packet, last);
    }
    std::uint32_t getMaxBufferedPackets() const override { return m_Adapter->getMaxBufferedPackets(); }
    void delayPacket() override {
        m_Adapter->delayPacket();
        if (--m_Left == 0) {
            m_CpuSeconds = Bench::secondsOf(CLOCK_THREAD_CPUTIME_ID);
            m_Left.notify_one();
        }
    }
    std::int32_t waitUntilDue(const std::stop_token& stop) override { return m_Adapter->waitUntilDue(stop); }

private:
    std::unique_ptr<Utils::IRateAdapter> m_Adapter;
    std::atomic<double>& m_CpuSeconds;
    std::atomic<std::size_t>& m_Left;
};

/// @return processor seconds of the streaming thread
double playStream(const RateFile& file, const std::string& device, Rule rule) {
    Utils::PacketDispatcher dispatcher(device);
    std::atomic<double> cpuSeconds = 0;
    std::atomic<std::size_t> left = file.packets();
    std::unique_ptr<Utils::IRateAdapter> adapter;
    if (rule == Clock) {
        adapter = std::make_unique<Utils::PCRClockAdapter>(3);
    } else {
        adapter = std::make_unique<Utils::PCRRateAdapter>();
    }
    Utils::PktioStreamIn stream(
        file.path(), 3, std::make_unique<MeteredAdapter>(std::move(adapter), cpuSeconds, left), dispatcher);
    stream.changeRoutes(std::array{Utils::PktioStreamIn::RouteChange{PID, true}});
    for (std::size_t some = left; some > 0; some = left) {
        left.wait(some);
    }
    return cpuSeconds;
}

/// The least that keeps the times: a sleep until the absolute time of each group, and one write per record.
/// @return processor seconds
double playBare(const RateFile& file, const std::string& device) {
    const int out = ::open(device.c_str(), O_WRONLY);
    const double cpu = Bench::secondsOf(CLOCK_THREAD_CPUTIME_ID);
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    const double begin = now();
    const std::array<char, Ts::RECORD_SIZE> record{};
    for (std::size_t i = 0; i < file.packets();) {
        const double due = begin + static_cast<double>(i) * file.packetSeconds();
        const timespec deadline{static_cast<time_t>(due), static_cast<long>(std::fmod(due, 1) * 1e9)};
        ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr);
        for (; i < file.packets() && begin + static_cast<double>(i) * file.packetSeconds() <= due + 250e-6;
             ++i) {
            benchmark::DoNotOptimize(::write(out, record.data(), record.size()));
        }
    }
    ::close(out);
    return Bench::secondsOf(CLOCK_THREAD_CPUTIME_ID) - cpu;
}

struct Quality {
    double driftPpm;     // slope of the arrivals against the PCR
    double within500us;  // share of the packets that arrive within 0.5 ms of the PCR's line
    double worstMs;      // the latest packet
};

/// The line has the slope of the PCR, and half of the packets are above it.
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

/// `streams` streams of so many megabits per second at once, by one rule, while so many other threads keep
/// the processors busy. The worst of the streams counts.
void pacing(benchmark::State& state, const std::string& name, Rule rule, double megabits, std::size_t streams,
            std::size_t loops) {
    const RateFile file(megabits * 1e6);
    while (state.KeepRunning()) {
        std::atomic<bool> isOver = false;
        std::vector<std::thread> busy(loops);
        for (std::thread& loop : busy) {
            loop = std::thread([&] {
                while (!isOver) {
                }
            });
        }
        std::vector<std::unique_ptr<StampedFifo>> fifos;
        std::vector<std::thread> players;
        std::vector<double> cpuSeconds(streams);
        for (std::size_t n = 0; n < streams; ++n) {
            fifos.push_back(std::make_unique<StampedFifo>(n, file.packets()));
            players.emplace_back([&, n] {
                cpuSeconds[n] = rule == Bare ? playBare(file, fifos[n]->path())
                                             : playStream(file, fifos[n]->path(), rule);
            });
        }
        for (std::thread& player : players) {
            player.join();
        }
        isOver = true;
        for (std::thread& loop : busy) {
            loop.join();
        }
        Quality worst{0, 1, 0};
        for (const auto& fifo : fifos) {
            const std::vector<double>& arrivals = fifo->arrivals();
            const Quality quality = judge(arrivals, file.packetSeconds());
            writeArrivals(name, arrivals, file.packetSeconds());
            if (std::abs(quality.driftPpm) > std::abs(worst.driftPpm)) {
                worst.driftPpm = quality.driftPpm;
            }
            worst.within500us = std::min(worst.within500us, quality.within500us);
            worst.worstMs = std::max(worst.worstMs, quality.worstMs);
        }
        double cpu = 0;
        for (const double seconds : cpuSeconds) {
            cpu += seconds;
        }
        state.counters["drift_ppm"] = worst.driftPpm;
        state.counters["within_500us_percent"] = worst.within500us * 100;
        state.counters["latest_ms"] = worst.worstMs;
        state.counters["cpu_percent"] = cpu / benchSeconds() * 100;
    }
}
// Names have the rule, megabits per second, streams, and other threads that are busy.
#define PACING(rule, megabits, streams, loops)                                                 \
    BENCHMARK_CAPTURE(pacing, rule##_##megabits##x##streams##_##loops,                         \
                      #rule #megabits "x" #streams "_" #loops, rule, megabits, streams, loops) \
        ->Iterations(1)                                                                        \
        ->UseRealTime()                                                                        \
        ->Unit(benchmark::kSecond)
PACING(Bare, 5, 1, 0);
PACING(Batches, 5, 1, 0);
PACING(Clock, 5, 1, 0);
PACING(Bare, 40, 1, 0);
PACING(Batches, 40, 1, 0);
PACING(Clock, 40, 1, 0);
PACING(Bare, 5, 16, 0);
PACING(Clock, 5, 16, 0);
PACING(Bare, 5, 1, 4);
PACING(Batches, 5, 1, 4);
PACING(Clock, 5, 1, 4);
PACING(Clock, 40, 1, 4);
PACING(Batches, 1, 1, 0);
PACING(Batches, 1, 4, 0);
PACING(Batches, 1, 16, 0);
PACING(Batches, 1, 64, 0);
PACING(Batches, 1, 256, 0);
PACING(Clock, 1, 1, 0);
PACING(Clock, 1, 4, 0);
PACING(Clock, 1, 16, 0);
PACING(Clock, 1, 64, 0);
PACING(Clock, 1, 256, 0);

}  // namespace
