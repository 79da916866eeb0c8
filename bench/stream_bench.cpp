#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "cpu_time.h"
#include "metered_adapter.h"
#include "test_files.h"
#include "test_packet.h"
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

/// A file of PACKETS packets of one PID.
const std::string& samplePath() {
    static const TestSupport::TemporaryFolder folder;
    static const std::string path = [] {
        const TestSupport::Bytes packet = TestSupport::TestPacket{.pid = PID}.bytes();
        TestSupport::Bytes packets;
        for (std::size_t i = 0; i < PACKETS; ++i) {
            packets.insert(packets.end(), packet.begin(), packet.end());
        }
        TestSupport::writeFile(folder / "sample.ts", packets);
        return folder / "sample.ts";
    }();
    return path;
}

constexpr const char* NOWHERE = "/dev/null";
constexpr const char* MEMORY = "/dev/shm/zeptfem-bench-records";

/// The work that no stream can avoid, in one thread per stream: reads in blocks, and for each packet locks
/// one mutex and writes one record.
/// @return processor seconds
double bareLoops(std::size_t streams, const char* device) {
    const std::string& path = samplePath();
    std::mutex mutex;
    const double begin = processSeconds();
    const int out = ::open(device, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    std::vector<std::jthread> loops;
    for (std::size_t i = 0; i < streams; ++i) {
        loops.emplace_back([&] {
            std::vector<std::uint8_t> block(std::size_t{348} * Ts::TS_PACKET_SIZE);
            std::uint8_t record[Ts::RECORD_SIZE] = {};
            const int in = ::open(path.c_str(), O_RDONLY);
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
    loops.clear();  // joins them
    ::close(out);
    return processSeconds() - begin;
}

/// @return processor seconds of `streams` streams that play the sample at the same time
double playStreams(std::size_t streams, const char* device, std::uint32_t routedPid) {
    using Adapter = Bench::MeteredAdapter<Utils::MaxRateAdapter>;
    const std::string& path = samplePath();
    const double begin = processSeconds();
    {
        Bench::Meter meter(streams);
        Utils::PacketDispatcher dispatcher(device);
        std::vector<std::unique_ptr<Utils::PktioStreamIn>> all;
        for (std::uint32_t i = 0; i < streams; ++i) {
            all.push_back(std::make_unique<Utils::PktioStreamIn>(
                path, i, std::make_unique<Adapter>(meter, PACKETS), dispatcher));
            all.back()->changeRoutes(std::array{Utils::PktioStreamIn::RouteChange{routedPid, true}});
        }
        meter.playing.wait();
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

/// Packets per second of all streams together.
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

/// Memory used by the packets that a paced stream holds, as a multiple of the size of their records.
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
