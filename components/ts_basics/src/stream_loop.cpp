#include "vel/ts_basics/stream_loop.h"

#include <algorithm>
#include <utility>

#include "packet_layout.h"

namespace Vel::Ts {

namespace {

/// Times have 33 bits.
constexpr std::uint64_t TIME_MASK = (std::uint64_t{1} << 33) - 1;

constexpr std::size_t STAMP_SIZE = 5;  // of a PTS or DTS
constexpr std::size_t ESCR_SIZE = 6;
/// Of an ESCR, below the layout of a PTS: an extension of 9 bits and a marker bit.
constexpr unsigned ESCR_EXTENSION_BITS = 10;

template <std::size_t SIZE>
std::uint64_t load(const std::uint8_t* bytes) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < SIZE; ++i) {
        value = value << 8 | bytes[i];
    }
    return value;
}

template <std::size_t SIZE>
void store(std::uint8_t* bytes, std::uint64_t value) {
    for (std::size_t i = SIZE; i > 0; --i, value >>= 8) {
        bytes[i - 1] = static_cast<std::uint8_t>(value);
    }
}

/// The base of a PCR or OPCR is its first 33 bits. A whole number of 90 kHz ticks does not change the rest.
void advancePcr(std::uint8_t* field, std::uint64_t offset) {
    constexpr unsigned BITS_BELOW_BASE = 15;
    store<PCR_SIZE>(field, load<PCR_SIZE>(field) + (offset << BITS_BELOW_BASE));
}

/// A time in a PES header consists of 3, 15 and 15 bits with a marker bit after each (ISO/IEC 13818-1,
/// table 2-21). `below` is the number of bits after the last marker.
template <std::size_t SIZE>
std::uint64_t advanceStamp(std::uint8_t* field, std::uint64_t offset, unsigned below = 0) {
    const auto spread = [below](std::uint64_t time) {
        return ((time & 0x1'C000'0000) << 3 | (time & 0x3FFF'8000) << 2 | (time & 0x7FFF) << 1) << below;
    };
    const std::uint64_t bits = load<SIZE>(field);
    const std::uint64_t fields = bits >> below;
    const std::uint64_t time =
        (fields >> 3 & 0x1'C000'0000) | (fields >> 2 & 0x3FFF'8000) | (fields >> 1 & 0x7FFF);
    store<SIZE>(field, (bits & ~spread(TIME_MASK)) | spread(time + offset));
    return time;
}

/// Whether a PES packet of that stream_id has flags and times (ISO/IEC 13818-1, 2.4.3.7): all have, except
/// program_stream_map, padding_stream, private_stream_2, ECM, EMM, DSMCC_stream, H.222.1 type E, and
/// program_stream_directory.
bool hasPesFlags(std::uint8_t streamId) {
    constexpr std::array<std::uint8_t, 8> WITHOUT = {0xBC, 0xBE, 0xBF, 0xF0, 0xF1, 0xF2, 0xF8, 0xFF};
    return streamId >= WITHOUT.front() && std::ranges::find(WITHOUT, streamId) == WITHOUT.end();
}

}  // namespace

void StreamLoop::continuePacket(TSPacket& packet) {
    std::uint8_t* const b = packet.getDataPtr();
    if (!isIntact(b)) {
        m_Clock.pcrs.skip();
        return;
    }
    std::uint16_t& index = m_Index[pidOf(b)];
    if (index == 0) {
        index = static_cast<std::uint16_t>(m_Pids.size());
        m_Pids.emplace_back();
    }
    Pid& pid = m_Pids[index];
    continueCounter(pid, b[3]);
    const bool hasField = (b[3] & ADAPTATION_FIELD) != 0;
    const std::size_t payload = HEADER_SIZE + (hasField ? 1U + b[4] : 0);
    if (hasField && b[4] != 0 && (b[5] & (DISCONTINUITY_INDICATOR | PCR_FLAG | OPCR_FLAG)) != 0) {
        followClock(packet);
        continueField(b + HEADER_SIZE);
    } else {
        m_Clock.pcrs.skip();
    }
    if ((b[1] & PAYLOAD_UNIT_START) != 0 && (b[3] & (SCRAMBLING_CONTROL | PAYLOAD)) == PAYLOAD &&
        payload < TS_PACKET_SIZE) {
        continuePesHeader(pid, std::span(b + payload, TS_PACKET_SIZE - payload));
    }
}

/// @param field an adaptation field: its length, its flags, and then PCR and OPCR
void StreamLoop::continueField(std::uint8_t* field) const {
    std::size_t end = 1;  // of the flags, and of each that is there
    for (const std::uint8_t flag : {PCR_FLAG, OPCR_FLAG}) {
        if ((field[1] & flag) != 0 && end + PCR_SIZE <= field[0] && field[0] <= MAX_ADAPTATION_FIELD_LENGTH) {
            advancePcr(field + 1 + end, m_Offset);
            end += PCR_SIZE;
        }
    }
}

/// The counter of a packet without payload is that of the packet before it (ISO/IEC 13818-1, 2.4.3.3).
void StreamLoop::continueCounter(Pid& pid, std::uint8_t& byte) {
    const int counter = byte & CONTINUITY_COUNTER;
    if (pid.pass != m_Pass) {
        if (pid.pass != 0) {
            const int expected = pid.counter + ((byte & PAYLOAD) != 0 ? 1 : 0);
            pid.counterShift = static_cast<std::uint8_t>(expected - counter);
        }
        pid.pass = m_Pass;
        pid.hasTime = false;
    }
    pid.counter = static_cast<std::uint8_t>((counter + pid.counterShift) & CONTINUITY_COUNTER);
    byte = static_cast<std::uint8_t>((byte & ~CONTINUITY_COUNTER) | pid.counter);
}

/// ISO/IEC 13818-1, 2.4.3.6: 00 00 01, stream_id, length (2 bytes), two bytes of flags, and the length of the
/// fields that follow: PTS, DTS, ESCR and others.
void StreamLoop::continuePesHeader(Pid& pid, std::span<std::uint8_t> payload) {
    constexpr std::size_t FIELDS = 9;
    constexpr unsigned FLAGS_MARKER = 2;  // the first two bits of the flags
    constexpr unsigned DTS_ALONE = 1;     // forbidden
    constexpr std::uint8_t ESCR_FLAG = 0x20;
    if (payload.size() < FIELDS || load<3>(payload.data()) != 1 || !hasPesFlags(payload[3]) ||
        payload[6] >> 6 != FLAGS_MARKER) {
        return;
    }
    const unsigned ptsDtsFlags = payload[7] >> 6;
    const std::size_t stamps = ptsDtsFlags == 0 ? 0 : ptsDtsFlags - 1;
    const bool hasEscr = (payload[7] & ESCR_FLAG) != 0;
    const std::size_t length = payload[8];
    if (ptsDtsFlags == DTS_ALONE || length > payload.size() - FIELDS ||
        stamps * STAMP_SIZE + (hasEscr ? ESCR_SIZE : 0) > length) {
        return;
    }
    std::uint8_t* field = payload.data() + FIELDS;
    for (std::size_t i = 0; i < stamps; ++i, field += STAMP_SIZE) {
        const std::uint64_t time = advanceStamp<STAMP_SIZE>(field, m_Offset);
        if (i + 1 == stamps && (!pid.hasTime || time != pid.lastTime)) {  // the DTS, or a PTS that equals it
            pid.firstTime = pid.hasTime ? pid.firstTime : time;
            pid.lastButOne = std::exchange(pid.hasTime, true) ? pid.lastTime : time;
            pid.lastTime = time;
        }
    }
    if (hasEscr) {
        advanceStamp<ESCR_SIZE>(field, m_Offset, ESCR_EXTENSION_BITS);
    }
}

void StreamLoop::followClock(const TSPacket& packet) {
    using Kind = PcrClock::Reading::Kind;
    const auto [kind, packets, time] = m_Clock.pcrs.read(packet);
    if (kind == Kind::Nothing) {
        return;
    }
    m_Clock.hasPcr = true;
    if (kind == Kind::Candidate) {
        return;
    }
    const std::uint64_t index = m_Clock.pcrs.getPacketCount();
    const PcrTicks pcr = *readPcr(packet);
    if (kind == Kind::Step) {
        const PcrPace pace{time, static_cast<std::int64_t>(packets)};
        if (m_Clock.intervals.isEmpty()) {
            m_Clock.first = pcrDistance(time, pcr);
            // More packets would be sent unpaced.
            const auto lead = static_cast<std::size_t>(index - packets);
            m_Clock.lead = pace.of(index <= PcrClock::MAX_STEP_PACKETS ? lead : 0);
        }
        m_Clock.intervals.add(pace);
    }
    m_Clock.last = pcr;
    m_Clock.lastIndex = index;
}

bool StreamLoop::endPass() {
    const Clock clock = std::exchange(m_Clock, {});
    m_HasLength = !clock.intervals.isEmpty();
    if (!m_HasLength) {
        ++m_Pass;
        return !clock.hasPcr;
    }
    FineTime rest = clock.lead;
    for (std::uint64_t left = clock.pcrs.getPacketCount() - clock.lastIndex; left > 0;) {
        const auto count = static_cast<std::size_t>(std::min(left, PcrClock::MAX_STEP_PACKETS));
        rest += clock.intervals.paceOf(count).of(count);
        left -= count;
    }
    const auto ticks = std::chrono::ceil<std::chrono::duration<std::uint64_t, std::ratio<1, 90'000>>>(
        pcrDistance(clock.first, clock.last) + std::chrono::ceil<PcrTicks>(rest));
    m_Offset = (m_Offset + ticks.count() + findExtension(ticks.count())) & TIME_MASK;
    ++m_Pass;
    return true;
}

/// By how much the decoding times of a PID span more than `length`.
std::uint64_t StreamLoop::findExtension(std::uint64_t length) const {
    std::uint64_t extension = 0;
    for (const Pid& pid : m_Pids) {
        if (pid.pass == m_Pass && pid.hasTime && pid.lastTime != pid.lastButOne) {
            const std::uint64_t span = pid.lastTime - pid.firstTime + (pid.lastTime - pid.lastButOne);
            const std::uint64_t more = (span - length) & TIME_MASK;
            extension = std::max(extension, more <= MAX_EXTENSION ? more : 0);
        }
    }
    return extension;
}

}  // namespace Vel::Ts
