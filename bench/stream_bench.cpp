#include <benchmark/benchmark.h>
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
    return Bench::cpuSeconds(CLOCK_PROCESS_CPUTIME_ID);
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

/// The work that no stream can avoid: reads in blocks, and per packet one mutex lock and one write of a
/// record.
/// @return processor seconds
double bareLoop() {
    std::vector<std::uint8_t> block(std::size_t{348} * Ts::TS_PACKET_SIZE);
    std::uint8_t record[Ts::RECORD_SIZE] = {};
    std::mutex mutex;
    const double begin = processSeconds();
    std::thread loop([&] {
        const int in = ::open(sample().path().c_str(), O_RDONLY);
        const int out = ::open("/dev/null", O_WRONLY);
        for (ssize_t got = 0; (got = ::read(in, block.data(), block.size())) > 0;) {
            for (ssize_t at = 0; at < got; at += Ts::TS_PACKET_SIZE) {
                std::copy_n(block.data() + at, Ts::TS_PACKET_SIZE, record + Ts::RECORD_HEADER_SIZE);
                const std::lock_guard lock(mutex);
                benchmark::DoNotOptimize(::write(out, record, sizeof record));
            }
        }
        ::close(in);
        ::close(out);
    });
    loop.join();
    return processSeconds() - begin;
}

/// Releases every packet at once, and sets `done` at the last one.
class CountingAdapter final : public Utils::IRateAdapter {
public:
    explicit CountingAdapter(std::atomic<bool>& done) : m_Done(done) {}
    std::int32_t bufferPacket(const Ts::TSPacket& packet, bool last) override {
        if (last) {
            m_Done = true;
            m_Done.notify_one();
        }
        return m_Adapter.bufferPacket(packet, last);
    }
    std::uint32_t getMaxBufferedPackets() const override { return 1; }
    void delayPacket() override {}

private:
    Utils::MaxRateAdapter m_Adapter;
    std::atomic<bool>& m_Done;
};

/// @return processor seconds of a stream that plays the sample
double playStream(std::uint32_t routedPid) {
    Utils::PacketDispatcher dispatcher("/dev/null");
    std::atomic<bool> done = false;
    const double begin = processSeconds();
    {
        Utils::PktioStreamIn stream(sample().path(), 3, std::make_unique<CountingAdapter>(done), dispatcher);
        stream.changeRoutes(std::array{Utils::PktioStreamIn::RouteChange{routedPid, true}});
        done.wait(false);
    }
    return processSeconds() - begin;
}

/// Speed of one stream at full rate, as a fraction of the bare loop's.
void fullRateAgainstBareLoop(benchmark::State& state) {
    double bare = 0;
    double stream = 0;
    while (state.KeepRunning()) {
        bare += bareLoop();
        const double once = playStream(PID);
        stream += once;
        state.SetIterationTime(once);
    }
    const auto packets = static_cast<double>(state.iterations()) * PACKETS;
    state.counters["speed_ratio"] = bare / stream;
    state.counters["bare_ns"] = bare / packets * 1e9;
    state.counters["stream_ns"] = stream / packets * 1e9;
}
BENCHMARK(fullRateAgainstBareLoop)->UseManualTime()->Iterations(12)->Unit(benchmark::kMillisecond);

/// Packets per second of so many streams at once, all to one device.
void fullRateInputs(benchmark::State& state) {
    const auto inputs = static_cast<std::size_t>(state.range());
    while (state.KeepRunning()) {
        std::vector<std::thread> players;
        for (std::size_t i = 0; i < inputs; ++i) {
            players.emplace_back([] { playStream(PID); });
        }
        for (std::thread& player : players) {
            player.join();
        }
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
        const double once = playStream(PID + 1);
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
