#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "vel/ts_basics/tspacket.h"
#include "vel/ts_basics/zep_record.h"

namespace Vel::TestSupport {

/// The fields of a transport packet for a test. The last four bytes of the packet hold its number. The
/// rest would be an adaptation field with all flags, if the packet had one.
struct TestPacket {
    std::uint32_t pid = 0x100;
    std::uint32_t number = 0;
    std::uint32_t counter = 0;
    std::optional<std::uint64_t> pcr = std::nullopt;  // 27 MHz ticks
    bool payload = true;
    bool discontinuity = false;
    bool transportError = false;
    bool scrambled = false;
    std::uint8_t adaptationLength = 7;  // where there is an adaptation field
    std::uint8_t sync = Ts::SYNC_BYTE;

    /// The packet as the record of an input.
    std::vector<std::uint8_t> record(std::uint32_t tsiidx) const {
        std::vector<std::uint8_t> record(Ts::RECORD_SIZE, 0x9F);
        Ts::writeRecordHeader(record.data(), tsiidx);
        Ts::writeRecordHeader(record.data() + Ts::RECORD_SIZE - Ts::RECORD_HEADER_SIZE, number);
        const bool adaptation = pcr || discontinuity;
        std::uint8_t* b = record.data() + Ts::RECORD_HEADER_SIZE;
        b[0] = sync;
        b[1] = static_cast<std::uint8_t>((transportError ? 0x80 : 0) | pid >> 8);
        b[2] = static_cast<std::uint8_t>(pid);
        b[3] = static_cast<std::uint8_t>((scrambled ? 0x80 : 0) | (adaptation ? 0x20 : 0) |
                                         (payload ? 0x10 : 0) | (counter & 0x0F));
        if (adaptation) {
            b[4] = adaptationLength;
            b[5] = static_cast<std::uint8_t>((discontinuity ? 0x80 : 0) | (pcr ? 0x10 : 0));
            const std::uint64_t base = pcr.value_or(0) / 300;
            const std::uint64_t field = base << 15 | 0x7E00 | pcr.value_or(0) % 300;  // 33, 6 and 9 bits
            for (int i = 0; i < 6; ++i) {
                b[6 + i] = static_cast<std::uint8_t>(field >> (40 - 8 * i));
            }
        }
        return record;
    }

    std::vector<std::uint8_t> bytes() const {
        const auto whole = record(0);
        return {whole.begin() + Ts::RECORD_HEADER_SIZE, whole.end()};
    }
};

}  // namespace Vel::TestSupport
