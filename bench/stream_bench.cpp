#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "cpu_time.h"
#include "tspacket_streaming/max_rate_adapter.h"
#include "tspacket_streaming/packet_dispatcher.h"
#include "tspacket_streaming/pktio_stream_in.h"
#include "vel/ts_basics/ll_tspackets.h"
#include "vel/ts_basics/zep_record.h"

namespace {

using namespace Vel;

constexpr std::uint32_t PID = 0x100;
constexpr std::size_t PACKETS = 400'000;

double processSeconds() {
    return Bench::secondsOf(CLOCK_PROCESS_CPUTIME_ID);
}

/// A file of PACKETS packets of one PID, in memory if the machine has /dev/shm.
class SampleFile {
public:
    SampleFile()
        : m_Path(std::filesystem::exists("/dev/shm") ? "/dev/shm/zeptfem-bench-XXXXXX"
                                                     : "/tmp/zeptfem-bench-XXXXXX") {
        const int fd = ::mkstemp(m_Path.data());
        std::vector<std::uint8_t> packets(PACKETS * Ts::TS_PACKET_SIZE, 0);
        for (std::size_t at = 0; at < packets.size(); at += Ts::TS_PACKET_SIZE) {
            packets[at] = Ts::SYNC_BYTE;
            packets[at + 1] = PID >> 8;
            packets[at + 2] = PID & 0xFF;
            packets[at + 3] = 0x10;
        }
        if (::write(fd, packets.data(), packets.size()) != static_cast<ssize_t>(packets.size())) {
            std::abort();
        }
        ::close(fd);
    }
    ~SampleFile() { ::unlink(m_Path.c_str()); }
    SampleFile(const SampleFile&) = delete;
    SampleFile& operator=(const SampleFile&) = delete;
    const std::string& path() const { return m_Path; }

private:
    std::string m_Path;
};

const SampleFile& sample() {
    static const SampleFile file;
    return file;
}

constexpr const char* NOWHERE = "/dev/null";
constexpr const char* MEMORY = "/dev/shm/zeptfem-bench-records";

/// The work that no stream can avoid: reads in blocks, and per packet one mutex lock and one write of a
/// record, in one thread per stream.
/// @return processor seconds
double bareLoops(std::size_t streams, const char* device) {
    std::mutex mutex;
    const double begin = processSeconds();
    const int out = ::open(device, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    std::vector<std::thread> loops;
    for (std::size_t i = 0; i < streams; ++i) {
        loops.emplace_back([&] {
            std::vector<std::uint8_t> block(std::size_t{348} * Ts::TS_PACKET_SIZE);
            std::uint8_t record[Ts::RECORD_SIZE] = {};
            const int in = ::open(sample().path().c_str(), O_RDONLY);
            for (ssize_t got = 0; (got = ::read(in, block.data(), block.size())) > 0;) {
                for (ssize_t at = 0; at < got; at += Ts::TS_PACKET_SIZE) {
                    std::copy_n(block.data() + at, Ts::TS_PACKET_SIZE, record + Ts::RECORD_HEADER_SIZE);
                    const std::lock_guard lock(mutex);
                    benchmark::DoNotOptimize(::write(out, record, sizeof record));
                }
            }
            ::close(in);
        });
    }
    for (std::thread& loop : loops) {
        loop.join();
    }
    ::close(out);
    return processSeconds() - begin;
}

/// Releases every packet at once, and counts the stream as done at the last one.
class CountingAdapter final : public Utils::IRateAdapter {
public:
    explicit CountingAdapter(std::atomic<std::size_t>& playing) : m_Playing(playing) {}
    std::int32_t bufferPacket(const Ts::TSPacket& packet, bool last) override {
        if (last) {
            --m_Playing;
            m_Playing.notify_one();
        }
        return m_Adapter.bufferPacket(packet, last);
    }
    std::uint32_t getMaxBufferedPackets() const override { return 1; }
    void delayPacket() override {}

private:
    Utils::MaxRateAdapter m_Adapter;
    std::atomic<std::size_t>& m_Playing;
};

/// @return processor seconds of so many streams that play the sample at once
double playStreams(std::size_t streams, const char* device, std::uint32_t routedPid) {
    std::atomic<std::size_t> playing = streams;
    const double begin = processSeconds();
    {
        Utils::PacketDispatcher dispatcher(device);
        std::vector<std::unique_ptr<Utils::PktioStreamIn>> all;
        for (std::uint32_t i = 0; i < streams; ++i) {
            all.push_back(std::make_unique<Utils::PktioStreamIn>(
                sample().path(), i, std::make_unique<CountingAdapter>(playing), dispatcher));
            all.back()->changeRoutes(std::array{Utils::PktioStreamIn::RouteChange{routedPid, true}});
        }
        for (std::size_t some = playing; some > 0; some = playing) {
            playing.wait(some);
        }
    }
    return processSeconds() - begin;
}

/// Speed at full rate, as a fraction of the bare loops'.
void fullRateAgainstBareLoop(benchmark::State& state, std::size_t streams, const char* device) {
    double bare = 0;
    double stream = 0;
    while (state.KeepRunning()) {
        bare += bareLoops(streams, device);
        const double once = playStreams(streams, device, PID);
        stream += once;
        state.SetIterationTime(once);
    }
    const auto packets = static_cast<double>(state.iterations()) * static_cast<double>(streams * PACKETS);
    state.counters["speed_ratio"] = bare / stream;
    state.counters["bare_ns"] = bare / packets * 1e9;
    state.counters["stream_ns"] = stream / packets * 1e9;
    if (device == MEMORY) {
        ::unlink(device);
    }
}
BENCHMARK_CAPTURE(fullRateAgainstBareLoop, one, 1, NOWHERE)
    ->UseManualTime()
    ->Iterations(12)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(fullRateAgainstBareLoop, one_to_memory, 1, MEMORY)
    ->UseManualTime()
    ->Iterations(12)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(fullRateAgainstBareLoop, sixteen, 16, NOWHERE)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

/// Packets per second of so many streams at once.
void fullRateInputs(benchmark::State& state) {
    const auto inputs = static_cast<std::size_t>(state.range());
    while (state.KeepRunning()) {
        playStreams(inputs, NOWHERE, PID);
    }
    state.counters["packets_per_second"] =
        benchmark::Counter(static_cast<double>(inputs * PACKETS), benchmark::Counter::kIsRate);
}
BENCHMARK(fullRateInputs)
    ->ArgName("inputs")
    ->RangeMultiplier(4)
    ->Range(1, 256)
    ->UseRealTime()
    ->Iterations(1)
    ->Unit(benchmark::kSecond);

/// Processor time of a packet that is read and queued, but not routed.
void notRoutedPacket(benchmark::State& state) {
    double stream = 0;
    while (state.KeepRunning()) {
        const double once = playStreams(1, NOWHERE, PID + 1);
        stream += once;
        state.SetIterationTime(once);
    }
    state.counters["packet_ns"] = stream / (static_cast<double>(state.iterations()) * PACKETS) * 1e9;
}
BENCHMARK(notRoutedPacket)->UseManualTime()->Iterations(40)->Unit(benchmark::kMillisecond);

/// Memory of the packets that a paced stream holds, as a multiple of the bytes of their records.
void heldPackets(benchmark::State& state) {
    constexpr std::size_t HELD = 10'000;
    double bytes = 0;
    while (state.KeepRunning()) {
        const std::size_t before = ::mallinfo2().uordblks;
        std::deque<Ts::LowlevInTSPacket> queue;
        for (std::size_t i = 0; i < HELD; ++i) {
            queue.push_back(Ts::LowlevInTSPacket::create<Ts::RECORD_SIZE>());
        }
        bytes = static_cast<double>(::mallinfo2().uordblks - before);
    }
    state.counters["memory_ratio"] = bytes / (HELD * Ts::RECORD_SIZE);
}
BENCHMARK(heldPackets)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace
