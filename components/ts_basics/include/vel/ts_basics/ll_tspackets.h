#pragma once

#include <cstdint>
#include <memory>

#include "vel/ts_basics/tspacket.h"

namespace Vel::Ts {

/// A transport packet that owns one heap buffer: room for a header, then the 188 bytes of the packet. It is
/// moved from the reader through the queue to the writer and never copied. A packet without a buffer is dead.
/// Thread-bound to its owner.
class LowlevInTSPacket final : public IO_TSPacket {
public:
    /// A packet with a new, uninitialised buffer of TOTAL_PACKET_SIZE bytes.
    /// @throws TsPacketError for fewer than 188 bytes
    template <std::uint32_t TOTAL_PACKET_SIZE>
    static LowlevInTSPacket create() {
        return LowlevInTSPacket(TOTAL_PACKET_SIZE);
    }

    /// A dead packet of total size 0.
    LowlevInTSPacket() = default;
    /// Takes over the buffer. The source is then dead but keeps its total size, so that reset() can revive
    /// it.
    LowlevInTSPacket(LowlevInTSPacket&& moveSrc) noexcept;

    /// Gives the packet a new, uninitialised buffer of its total size.
    /// @throws TsPacketError for a packet that never had a buffer
    void reset();
    bool isDead() const { return m_Buffer == nullptr; }

    /// @throws TsPacketError for a dead packet, like the next two
    const std::uint8_t* getDataPtr() const override;
    std::uint8_t* getDataPtr() override;
    /// First byte of the buffer, which starts with the header and has getTotalSize() bytes.
    std::uint8_t* getWriteDataPtr();
    std::uint32_t getTotalSize() const { return m_TotalSize; }

private:
    explicit LowlevInTSPacket(std::uint32_t totalSize);
    void allocate();

    std::unique_ptr<std::uint8_t[]> m_Buffer;
    std::uint32_t m_Offset = 0;     // of the 188 bytes in the buffer
    std::uint32_t m_TotalSize = 0;  // of the buffer, in bytes
};

}  // namespace Vel::Ts
