#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include "vel/cpp_utils/assertion.h"
#include "vel/ts_basics/ts_error.h"
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
    LowlevInTSPacket(LowlevInTSPacket&& moveSrc) noexcept : m_TotalSize(moveSrc.m_TotalSize) {
        VEL_ASSERT(!moveSrc.isDead());
        m_Buffer = std::move(moveSrc.m_Buffer);
        m_Offset = std::exchange(moveSrc.m_Offset, 0);
    }

    /// Gives the packet a new, uninitialised buffer of its total size.
    /// @throws TsPacketError for a packet that never had a buffer
    void reset();
    bool isDead() const { return m_Buffer == nullptr; }

    /// @throws TsPacketError for a dead packet, like the next two
    const std::uint8_t* getDataPtr() const override {
        requireBuffer("Cannot get const data pointer. Object is dead.");
        return m_Buffer.get() + m_Offset;
    }
    std::uint8_t* getDataPtr() override {
        requireBuffer("Cannot get data pointer. Object is dead.");
        return m_Buffer.get() + m_Offset;
    }
    /// First byte of the buffer, which starts with the header and has getTotalSize() bytes.
    std::uint8_t* getWriteDataPtr() {
        requireBuffer("Cannot get write data pointer. Object is dead.");
        return m_Buffer.get();
    }
    std::uint32_t getTotalSize() const { return m_TotalSize; }

private:
    explicit LowlevInTSPacket(std::uint32_t totalSize);
    void allocate();
    void requireBuffer(const char* message) const {
        if (isDead()) {
            throw TsPacketError(message);
        }
    }

    std::unique_ptr<std::uint8_t[]> m_Buffer;
    std::uint32_t m_Offset = 0;     // of the 188 bytes in the buffer
    std::uint32_t m_TotalSize = 0;  // of the buffer, in bytes
};

}  // namespace Vel::Ts
