#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "cpu_time.h"
#include "fpga_monitoring/iplut_monitor.h"
#include "fpga_monitoring/pidlut_monitor.h"
#include "vel/userspace_drivers/interfaces/pci/pciif.h"

namespace {

using namespace Vel;

constexpr int CYCLES = 500;

class StandIn {
public:
    explicit StandIn(std::uint32_t size) {
        const int fd = ::mkstemp(m_Path.data());
        if (fd == -1 || ::ftruncate(fd, size) != 0) {
            std::abort();
        }
        ::close(fd);
    }
    ~StandIn() { ::unlink(m_Path.c_str()); }
    StandIn(const StandIn&) = delete;
    StandIn& operator=(const StandIn&) = delete;
    const std::string& path() const { return m_Path; }

private:
    std::string m_Path = "/tmp/zeptfem-bench-XXXXXX";
};

class NoConsumer final : public Utils::IFPGAEventConsumer {
public:
    void handleEvent(std::unique_ptr<Utils::FPGAMonEvent>) override {}
};

void readTwice(const volatile std::uint32_t* words, std::uint32_t count, std::vector<std::uint32_t>& into) {
    for (int pass = 0; pass < 2; ++pass) {
        for (std::uint32_t i = 0; i < count; ++i) {
            into[i] = words[i];
        }
        benchmark::ClobberMemory();
    }
}

template <typename Cycle>
double idle(Cycle cycle) {
    const double begin = Bench::secondsOf(CLOCK_THREAD_CPUTIME_ID);
    for (int i = 0; i < CYCLES; ++i) {
        cycle();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return Bench::secondsOf(CLOCK_THREAD_CPUTIME_ID) - begin;
}

/// Puts so many rows in use, of the IP LUT first and then of the PID LUT.
void fill(Drivers::IMemIf& tsio, Drivers::IMemIf& router, std::uint32_t rows) {
    for (std::uint32_t row = 0; row < rows; ++row) {
        if (row < 256) {
            tsio.writeBlock32(2048 + 2 * row, {0xEF000000 + row, 1U << 24 | row << 16 | 5000});
        } else {
            const std::uint32_t route = row - 256;
            router.writeBlock32(8192 + 2 * route, {route / 8 << 13 | route % 8, 0xFF002000 | (route + 1)});
        }
    }
}

/// Processor time of the idle monitors with so many rows in use, as a multiple of that of a loop that reads
/// the words of both tables twice and sleeps.
void idleMonitorsAgainstBareLoop(benchmark::State& state) {
    const StandIn tsioFile(Drivers::Zep::TSIO_DEVICE.size);
    const StandIn routerFile(Drivers::Zep::ROUTER_DEVICE.size);
    auto tsio = std::make_shared<Pci::PciIf>(tsioFile.path(), Drivers::Zep::TSIO_DEVICE.size, 0);
    auto router = std::make_shared<Pci::PciIf>(routerFile.path(), Drivers::Zep::ROUTER_DEVICE.size, 0);
    fill(*tsio, *router, static_cast<std::uint32_t>(state.range()));
    NoConsumer consumer;
    Utils::IpLutMonitor ipLut(tsio, consumer);
    Utils::PidLutMonitor pidLut(router, consumer);
    const auto* tsioWords = reinterpret_cast<const volatile std::uint32_t*>(tsio->getMemSegment().base);
    const auto* routerWords = reinterpret_cast<const volatile std::uint32_t*>(router->getMemSegment().base);
    std::vector<std::uint32_t> copy(std::size_t{2} * 2048);
    double bare = 0;
    double monitors = 0;
    while (state.KeepRunning()) {
        bare += idle([&] {
            readTwice(tsioWords + 2048, 2 * 256, copy);
            readTwice(routerWords + 8192, 2 * 2048, copy);
        });
        const double once = idle([&] {
            ipLut.pollLut();
            pidLut.pollLut();
        });
        monitors += once;
        state.SetIterationTime(once);
    }
    state.counters["cpu_ratio"] = monitors / bare;
    state.counters["bare_us"] = bare / (static_cast<double>(state.iterations()) * CYCLES) * 1e6;
    state.counters["poll_us"] = monitors / (static_cast<double>(state.iterations()) * CYCLES) * 1e6;
}
BENCHMARK(idleMonitorsAgainstBareLoop)
    ->ArgName("rows")
    ->Arg(0)
    ->Arg(256)
    ->Arg(1280)
    ->Arg(2304)
    ->UseManualTime()
    ->Iterations(6)
    ->Unit(benchmark::kMillisecond);

}  // namespace
