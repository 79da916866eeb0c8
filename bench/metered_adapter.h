#pragma once

#include <atomic>
#include <cstddef>
#include <latch>
#include <utility>

#include "cpu_time.h"
#include "tspacket_streaming/irate_adapter.h"

namespace Vel::Bench {

/// Waits for the end of several playing threads and adds up their processor time.
struct Meter {
    explicit Meter(std::size_t threads) : playing(static_cast<std::ptrdiff_t>(threads)) {}
    /// To be called by each of the threads, after its last packet.
    void finish() {
        cpuSeconds += secondsOf(CLOCK_THREAD_CPUTIME_ID);
        playing.count_down();
    }

    std::latch playing;
    std::atomic<double> cpuSeconds = 0;
};

/// Passes everything on to an adapter of the program. The streaming thread finishes with the last of
/// `packets`.
template <class Adapter>
class MeteredAdapter final : public Utils::IRateAdapter {
public:
    template <class... Args>
    MeteredAdapter(Meter& meter, std::size_t packets, Args&&... args)
        : m_Meter(meter), m_Left(packets), m_Adapter(std::forward<Args>(args)...) {}
    std::int32_t bufferPacket(const Ts::TSPacket& packet, bool last) override {
        return m_Adapter.bufferPacket(packet, last);
    }
    std::uint32_t getMaxBufferedPackets() const override { return m_Adapter.getMaxBufferedPackets(); }
    void delayPacket() override {
        m_Adapter.delayPacket();
        if (--m_Left == 0) {
            m_Meter.finish();
        }
    }
    std::int32_t waitUntilDue(const std::stop_token& stop) override { return m_Adapter.waitUntilDue(stop); }

private:
    Meter& m_Meter;
    std::size_t m_Left;
    Adapter m_Adapter;
};

}  // namespace Vel::Bench
