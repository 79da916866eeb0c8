#include "records/record_watch_model.h"

#include <algorithm>

namespace Vel::Zepctl {

namespace {

using Seconds = std::chrono::duration<double>;
using std::chrono::milliseconds;

/// What arrives within this time is one burst: longer than a paced stream takes for one, and for streams that
/// never pause the step in which they are measured.
constexpr milliseconds BURST_LENGTH(20);
/// Holds a good many bursts of any stream above 0.5 Mbit/s.
constexpr milliseconds WINDOW(2000);
/// A stream that pauses for twice as long as between its latest bursts has stopped, within these limits.
constexpr milliseconds MIN_STOP = WINDOW;
constexpr milliseconds MAX_STOP(10'000);

std::optional<double> toBitRate(std::optional<double> packetRate) {
    return packetRate ? std::optional(*packetRate * BITS_PER_PACKET) : std::nullopt;
}

}  // namespace

void ArrivalRate::add(ArrivalTime at, std::uint64_t packets) {
    if (m_Latest.empty() || at - m_Latest.back().start >= BURST_LENGTH) {
        m_Latest.push_back({at, m_Packets});
        while (m_Latest.size() > 2 && m_Latest[1].start <= at - WINDOW) {
            m_Latest.pop_front();
        }
    }
    if (!m_First) {
        m_First = m_Latest.back();
    }
    m_Packets += packets;
}

std::optional<double> ArrivalRate::getLatest(ArrivalTime now) const {
    if (m_Latest.size() < 2) {
        return std::nullopt;
    }
    const Burst& latest = m_Latest.back();
    const auto spacing = latest.start - m_Latest[m_Latest.size() - 2].start;
    if (now - latest.start > std::clamp<ArrivalTime::duration>(2 * spacing, MIN_STOP, MAX_STOP)) {
        return 0;
    }
    return rateBetween(m_Latest.front(), latest);
}

std::optional<double> ArrivalRate::getOverall() const {
    if (m_Latest.size() < 2) {
        return std::nullopt;
    }
    return rateBetween(*m_First, m_Latest.back());
}

double ArrivalRate::rateBetween(const Burst& from, const Burst& to) {
    return static_cast<double>(to.packetsBefore - from.packetsBefore) /
           Seconds(to.start - from.start).count();
}

void ArrivalDrift::add(ArrivalTime at, const PcrClock& clock) {
    if (clock.getTimeBases() != m_TimeBase) {
        *this = {};
        m_TimeBase = clock.getTimeBases();
    }
    const double pcr = clock.getElapsed();
    if (m_TimeBase == 0 || pcr == m_LastPcr) {
        return;
    }
    m_LastPcr = pcr;
    const Sample sample{pcr, Seconds(at.time_since_epoch()).count() - pcr};
    if (m_WindowStart && at - *m_WindowStart < WINDOW) {
        if (sample.lateness < m_Earliest.lateness) {
            m_Earliest = sample;
        }
        return;
    }
    if (m_WindowStart) {
        m_Latest = m_Earliest;
        m_First = m_First.value_or(m_Earliest);
    }
    m_WindowStart = at;
    m_Earliest = sample;
}

std::optional<Drift> ArrivalDrift::get() const {
    if (!m_First || m_Latest->pcr <= m_First->pcr) {
        return std::nullopt;
    }
    const double drift = m_Latest->lateness - m_First->lateness;
    return Drift{drift * 1e3, drift / (m_Latest->pcr - m_First->pcr) * 1e6};
}

void RecordWatchModel::add(std::span<const std::uint8_t> records, std::optional<ArrivalTime> arrival) {
    m_Check.add(records);
    for (const RecordInput* input : m_Check.getInputs()) {
        Arrival& known = m_Arrivals[input->getTsiidx()];
        const std::uint64_t packets = input->getPackets() - known.packets;
        known.packets = input->getPackets();
        if (packets != 0 && arrival) {
            known.rate.add(*arrival, packets);
            known.drift.add(*arrival, input->getClock());
        }
    }
}

std::vector<WatchedInput> RecordWatchModel::getInputs(ArrivalTime now) const {
    std::vector<WatchedInput> inputs;
    for (const RecordInput* input : m_Check.getInputs()) {
        const Arrival& arrival = m_Arrivals[input->getTsiidx()];
        inputs.push_back({input->getTsiidx(), input->getPackets(), input->getContinuityErrors(),
                          toBitRate(arrival.rate.getLatest(now)), toBitRate(arrival.rate.getOverall()),
                          arrival.drift.get()});
    }
    return inputs;
}

}  // namespace Vel::Zepctl
