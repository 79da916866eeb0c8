#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "cpu_time.h"
#include "fpga_monitoring/iplut_monitor.h"
#include "fpga_monitoring/pidlut_monitor.h"
#include "test_files.h"
#include "vel/userspace_drivers/drivers/zep/ts/ipinentry.h"
#include "vel/userspace_drivers/drivers/zep/ts/pidlutentry.h"
#include "vel/userspace_drivers/interfaces/pci/pciif.h"

namespace {

using namespace Vel;
namespace Zep = Drivers::Zep;

constexpr int CYCLES = 500;

std::shared_ptr<Pci::PciIf> createDevice(const std::string& path, std::uint32_t size) {
    TestSupport::writeFile(path, TestSupport::Bytes(size));
    return std::make_shared<Pci::PciIf>(path, size, 0);
}

class NoConsumer final : public Utils::IFPGAEventConsumer {
public:
    void handleEvent(std::unique_ptr<Utils::FPGAMonEvent>) override {}
};

void readTwice(const Pci::PciIf& device, const Zep::Table& table, std::vector<std::uint32_t>& into) {
    const auto* words =
        reinterpret_cast<const volatile std::uint32_t*>(device.getMemSegment().base) + table.base;
    for (int pass = 0; pass < 2; ++pass) {
        for (std::uint32_t i = 0; i < table.rows * table.wordsPerRow; ++i) {
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

template <class Row>
void writeRow(Drivers::IMemIf& device, const Zep::Table& table, std::uint32_t index, Row row) {
    row.toWords();
    device.writeBlock32(table.base + index * table.wordsPerRow, row.getWords());
}

/// Enables `rows` rows, first in the IP LUT, then in the PID LUT.
void fill(Drivers::IMemIf& tsio, Drivers::IMemIf& router, std::uint32_t rows) {
    const std::uint32_t inputs = std::min(rows, Zep::IpLut::TABLE.rows);
    for (std::uint32_t i = 0; i < inputs; ++i) {
        const CppUtil::IpAdrContainer address(0xEF000000 + i);  // 239.0.0.0
        writeRow(tsio, Zep::IpLut::TABLE, i, Zep::IpInEntry(i, address, 5000));
    }
    for (std::uint32_t i = 0; i < rows - inputs; ++i) {
        writeRow(router, Zep::PidLut::TABLE, i, Zep::PidLutEntry(i / 8, i % 8, i + 1, false, true));
    }
}

/// Processor time of the idle monitors with a given number of rows in use, as a multiple of that of a loop
/// that reads the words of both tables twice and sleeps.
void idleMonitorsAgainstBareLoop(benchmark::State& state) {
    const TestSupport::TemporaryFolder folder;
    const auto tsio = createDevice(folder / "tsio", Zep::TSIO_DEVICE.size);
    const auto router = createDevice(folder / "router", Zep::ROUTER_DEVICE.size);
    fill(*tsio, *router, static_cast<std::uint32_t>(state.range()));
    NoConsumer consumer;
    Utils::IpLutMonitor ipLut(tsio, consumer);
    Utils::PidLutMonitor pidLut(router, consumer);
    std::vector<std::uint32_t> copy(std::size_t{Zep::PidLut::TABLE.rows} * Zep::PidLut::TABLE.wordsPerRow);
    double bare = 0;
    double monitors = 0;
    while (state.KeepRunning()) {
        bare += idle([&] {
            readTwice(*tsio, Zep::IpLut::TABLE, copy);
            readTwice(*router, Zep::PidLut::TABLE, copy);
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
