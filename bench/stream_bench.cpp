#include <fcntl.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "cpu_time.h"
#include "player.h"
#include "test_files.h"
#include "test_packet.h"
#include "vel/cpp_utils/posix/file_descriptor.h"
#include "vel/ts_basics/ll_tspackets.h"
#include "vel/ts_basics/zep_record.h"

// Full rate. Each repetition runs the program and what it is compared with one after the other; the medians
// of the repetitions count.

namespace {

using namespace Vel;
using Bench::PID;
using Bench::Player;
using Utils::FPGAMonEvent_CPUPIDAdded;
using Utils::FPGAMonEvent_CPUPIDRemoved;
using Utils::FPGAMonEvent_InputTSRemoved;

constexpr std::uint32_t PACKETS = 1'000'000;      // of one input
constexpr std::uint32_t ALL_PACKETS = 6'400'000;  // of many inputs together
constexpr std::size_t BLOCK_PACKETS = 348;        // 64 KiB
constexpr const char* NOWHERE = "/dev/null";
constexpr const char* MEMORY = "/dev/shm/zeptfem-bench-records";
constexpr std::chrono::seconds LIMIT(600);

double now() {
    return Bench::secondsOf(CLOCK_MONOTONIC);
}

/// A file of packets of one PID.
struct SampleFile {
    explicit SampleFile(std::uint32_t count) : packets(count) {
        const TestSupport::Bytes packet = TestSupport::TestPacket{.pid = PID}.bytes();
        std::ofstream out(path, std::ios::binary);
        for (std::uint32_t i = 0; i < packets; ++i) {
            out.write(reinterpret_cast<const char*>(packet.data()), Ts::TS_PACKET_SIZE);
        }
    }

    const std::uint32_t packets;
    const TestSupport::TemporaryFolder folder;
    const std::string path = folder / "sample.ts";
};

struct Run {
    double cpu;    // seconds of the process
    double first;  // seconds until the first thread has ended
    double last;   // seconds until all threads have ended
};

/// Measures `start`, which starts `threads` threads, until they have ended by themselves. A look at their
/// number per millisecond costs both sides of a comparison the same.
template <class Start>
Run measure(std::size_t threads, Start start) {
    // A thread that has been joined may be counted for a moment.
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const auto count = [] {
        return std::filesystem::hard_link_count("/proc/self/task");
    };  // 2 more than threads
    const std::uintmax_t before = count();
    Run run{Bench::secondsOf(CLOCK_PROCESS_CPUTIME_ID), 0, now()};
    const double begin = run.last;
    start();
    TestSupport::eventually(
        [&] {
            const std::uintmax_t left = count();
            run.first = run.first == 0 && left < before + threads ? now() - begin : run.first;
            return left <= before;
        },
        LIMIT);
    return {Bench::secondsOf(CLOCK_PROCESS_CPUTIME_ID) - run.cpu, run.first, now() - begin};
}

Run playStreams(const SampleFile& file, std::uint32_t inputs, const char* device, std::uint32_t routedPid) {
    Player player(file.path, inputs, device);
    const Run run = measure(inputs, [&] {
        for (std::uint32_t i = 0; i < inputs; ++i) {
            player.send<FPGAMonEvent_CPUPIDAdded>(i, routedPid);
        }
        player.endChange();
    });
    if (player.getRecordCount() != (routedPid == PID ? std::uint64_t{inputs} * file.packets : 0)) {
        throw std::runtime_error("the streams did not write each routed packet once");
    }
    return run;
}

/// The work that no stream can avoid: reads in blocks, and does something with each packet.
template <class Use>
Run bareLoop(const SampleFile& file, Use use) {
    std::jthread loop;
    return measure(1, [&] {
        loop = std::jthread([&] {
            std::vector<std::uint8_t> block(BLOCK_PACKETS * Ts::TS_PACKET_SIZE);
            const CppUtil::FileDescriptor in(::open(file.path.c_str(), O_RDONLY));
            for (ssize_t got = 0; (got = ::read(in.get(), block.data(), block.size())) > 0;) {
                for (ssize_t at = 0; at < got; at += Ts::TS_PACKET_SIZE) {
                    use(block.data() + at);
                }
            }
        });
    });
}

/// Locks one mutex and writes one record for each packet.
Run bareWrites(const SampleFile& file, const char* device) {
    const CppUtil::FileDescriptor out(::open(device, O_WRONLY | O_CREAT | O_TRUNC, 0600));
    std::mutex mutex;
    std::uint8_t record[Ts::RECORD_SIZE] = {};
    return bareLoop(file, [&](const std::uint8_t* packet) {
        std::copy_n(packet, Ts::TS_PACKET_SIZE, record + Ts::RECORD_HEADER_SIZE);
        const std::lock_guard lock(mutex);
        benchmark::DoNotOptimize(::write(out.get(), record, sizeof record));
    });
}

/// Compares the PID of each packet with one value.
Run bareFilter(const SampleFile& file) {
    std::size_t passed = 0;
    return bareLoop(file, [&](const std::uint8_t* packet) {
        passed += ((packet[1] & 0x1FU) << 8 | packet[2]) == PID + 1 ? 1 : 0;
        benchmark::DoNotOptimize(passed);
    });
}

void compare(benchmark::State& state, const Run& bare, const Run& stream) {
    state.counters["speed_ratio"] = bare.cpu / stream.cpu;
    state.counters["wall_speed_ratio"] = bare.last / stream.last;
    state.counters["bare_ns"] = bare.cpu / PACKETS * 1e9;
    state.counters["stream_ns"] = stream.cpu / PACKETS * 1e9;
}

/// Speed of one stream at full rate, as a fraction of the bare loop's.
void fullRateAgainstBareLoop(benchmark::State& state, const char* device) {
    const SampleFile file(PACKETS);
    while (state.KeepRunning()) {
        const Run bare = bareWrites(file, device);
        compare(state, bare, playStreams(file, 1, device, PID));
    }
    if (device == MEMORY) {
        ::unlink(device);
    }
}

/// Packets that are read and looked at, but not routed.
void notRoutedAgainstBareFilter(benchmark::State& state) {
    const SampleFile file(PACKETS);
    while (state.KeepRunning()) {
        const Run bare = bareFilter(file);
        compare(state, bare, playStreams(file, 1, NOWHERE, PID + 1));
    }
}

/// Packets per second of all inputs together, against one input, and how evenly the inputs take turns.
void fullRateInputs(benchmark::State& state) {
    const auto inputs = static_cast<std::uint32_t>(state.range());
    const SampleFile longFile(PACKETS);
    const SampleFile file(std::min(PACKETS, ALL_PACKETS / inputs));
    while (state.KeepRunning()) {
        const Run one = playStreams(longFile, 1, NOWHERE, PID);
        const Run all = playStreams(file, inputs, NOWHERE, PID);
        const double speed = static_cast<double>(inputs) * file.packets / all.last;
        state.counters["packets_per_second"] = speed;
        state.counters["ratio_to_one"] = speed / (PACKETS / one.last);
        state.counters["shortest_to_longest"] = all.first / all.last;
    }
}

/// Changes while all inputs play at full rate: one that rewrites the whole PID LUT, and one that removes all
/// inputs.
void changesAtFullRate(benchmark::State& state) {
    constexpr std::uint32_t ROUTES = 2048;
    const auto inputs = static_cast<std::uint32_t>(state.range());
    // Zeros are packets of PID 0. The file has no end within this run and uses no memory.
    const CppUtil::FileDescriptor zeros(::memfd_create("zeros", MFD_CLOEXEC));
    if (::ftruncate(zeros.get(), off_t{1} << 40) != 0) {
        state.SkipWithError("no file of 1 TiB");
    }
    while (state.KeepRunning()) {
        Player player("/proc/self/fd/" + std::to_string(zeros.get()), inputs, NOWHERE);
        const auto add = [&] {
            for (std::uint32_t i = 0; i < ROUTES; ++i) {
                player.send<FPGAMonEvent_CPUPIDAdded>(i * inputs / ROUTES, i % (ROUTES / inputs));
            }
            player.endChange();
        };
        add();
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        const double begin = now();
        for (std::uint32_t i = 0; i < ROUTES; ++i) {
            player.send<FPGAMonEvent_CPUPIDRemoved>(i * inputs / ROUTES, i % (ROUTES / inputs));
        }
        add();
        const double rewritten = now();
        for (std::uint32_t i = 0; i < inputs; ++i) {
            player.send<FPGAMonEvent_InputTSRemoved>(Player::URI, i);
        }
        player.endChange();
        state.counters["rewrite_ms"] = (rewritten - begin) * 1e3;
        state.counters["remove_ms"] = (now() - rewritten) * 1e3;
    }
}

/// Memory used by the packets that a paced stream holds, as a multiple of the size of their records.
void heldPackets(benchmark::State& state) {
    constexpr std::size_t HELD = 10'000;
    while (state.KeepRunning()) {
        const std::size_t before = ::mallinfo2().uordblks;
        std::deque<Ts::LowlevInTSPacket> queue;
        for (std::size_t i = 0; i < HELD; ++i) {
            queue.push_back(Ts::LowlevInTSPacket::create<Ts::RECORD_SIZE>());
        }
        const auto bytes = static_cast<double>(::mallinfo2().uordblks - before);
        state.counters["memory_ratio"] = bytes / (HELD * Ts::RECORD_SIZE);
    }
}

void inPairs(benchmark::internal::Benchmark* each) {
    each->Iterations(1)->Repetitions(5)->ReportAggregatesOnly()->UseRealTime()->Unit(benchmark::kMillisecond);
}
BENCHMARK_CAPTURE(fullRateAgainstBareLoop, null, NOWHERE)->Apply(inPairs);
BENCHMARK_CAPTURE(fullRateAgainstBareLoop, memory, MEMORY)->Apply(inPairs);
BENCHMARK(notRoutedAgainstBareFilter)->Apply(inPairs);
BENCHMARK(fullRateInputs)->ArgName("inputs")->RangeMultiplier(4)->Range(1, 256)->Apply(inPairs);
BENCHMARK(changesAtFullRate)->ArgName("inputs")->Arg(16)->Arg(64)->Arg(256)->Apply(inPairs);
BENCHMARK(heldPackets)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
