#pragma once

#include <cstdint>

#include "vel/cpp_utils/stream_limits.h"

namespace Vel::Ts {

/// Length of a transport packet in bytes and its first byte (ISO/IEC 13818-1, 2.4.3.2).
inline constexpr std::uint32_t TS_PACKET_SIZE = 188;
inline constexpr std::uint8_t SYNC_BYTE = 0x47;
/// The highest PID is that of null packets.
inline constexpr std::uint32_t NULL_PID = MAX_PID;
/// Length of the largest adaptation field that fits, without its length byte (ISO/IEC 13818-1, 2.4.3.4).
inline constexpr std::uint8_t MAX_ADAPTATION_FIELD_LENGTH = 183;

/// transport_scrambling_control (ISO/IEC 13818-1, table 2-4).
enum class ScramblingControl : std::uint8_t {
    NotScrambled = 0,
    UserDefined1 = 1,
    UserDefined2 = 2,
    UserDefined3 = 3,
};

/// View of the 188 bytes of one transport packet: the fields of its 4-byte header and its PCR. No other
/// accessor checks the sync byte. All use getDataPtr() and fail as it does. Reentrant.
class TSPacket {
public:
    /// First of the 188 bytes.
    virtual const std::uint8_t* getDataPtr() const = 0;
    virtual std::uint8_t* getDataPtr() = 0;

    virtual bool hasSyncByte() const;
    /// 0..8191
    virtual std::uint32_t getPid() const;
    /// Stores the low 13 bits.
    virtual void setPid(std::uint32_t pid);
    /// 0..15
    virtual std::uint32_t getContinuityCounter() const;
    /// Stores the low 4 bits.
    virtual void setContinuityCounter(std::uint32_t counter);
    virtual bool hasPayload() const;
    virtual ScramblingControl getScramblingControl() const;
    virtual bool isScrambled() const;
    virtual bool hasPcr() const;
    /// discontinuity_indicator (ISO/IEC 13818-1, 2.4.3.5): the counter or the time base restarts here on
    /// purpose. False if the adaptation field does not fit into the packet.
    bool hasDiscontinuityIndicator() const;
    virtual bool isPayloadUnitStart() const;
    /// The PCR in 27 MHz ticks: base * 300 + extension, both as in the packet.
    /// @throws TsPacketError where hasPcr() is false
    virtual std::uint64_t getPcr() const;
    /// First byte of the payload, or the end of the packet if it has no payload; never beyond that.
    virtual const std::uint8_t* getPayloadPtr() const;
    virtual std::uint8_t* getPayloadPtr();
    virtual bool hasTransportError() const;

    virtual ~TSPacket() = default;

protected:
    TSPacket() = default;
    TSPacket(const TSPacket&) = default;
    TSPacket& operator=(const TSPacket&) = default;
};

/// A packet that travels between an input or output and the program.
class IO_TSPacket : public TSPacket {};

}  // namespace Vel::Ts
