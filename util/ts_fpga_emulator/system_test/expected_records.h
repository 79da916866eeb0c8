#pragma once

#include <algorithm>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "harness.h"

namespace Vel::SystemTest {

constexpr std::size_t NEVER = std::numeric_limits<std::size_t>::max();

/// Something that was switched on and off while records went out. Bounds are numbers of records written: it
/// may have an effect from the number before the change until the number after the change back. It must have
/// it after a record that was written when the change had taken effect; 0 is the start of the file.
struct Span {
    std::size_t mayFrom = 0;
    std::size_t mustFrom = NEVER;
    std::size_t mustTo = NEVER;
    std::size_t mayTo = NEVER;
};

/// An input from its addition to its removal.
struct Life {
    std::uint32_t n;  // of its file
    Span span;
    bool isStarted = false;                                  // by its first route
    std::map<std::uint32_t, std::vector<Span>> routes = {};  // by PID
};

/// Every record is a later packet of its file, from a PID that may be routed, and no packet between it and
/// the record before it was of a PID that must have been.
/// @param files by their number
/// @param lives by TSIIDX
/// @param clockPackets from a jump of the clock to the next one
/// @param jumps is increased by the jumps between two records of an input
inline void judgeRecords(const Bytes& arrived, const std::map<std::uint32_t, Bytes>& files,
                         std::map<std::uint32_t, std::vector<Life>>& lives, std::uint32_t clockPackets,
                         std::size_t& jumps) {
    struct Position {
        const Life* life = nullptr;
        std::size_t records = 0;  // up to its last one
        std::size_t packet = 0;   // the next one of its file
        std::size_t lastPacket = 0;
    };
    std::map<std::uint32_t, Position> positions;
    for (std::size_t i = 0; i < arrived.size() / RECORD; ++i) {
        const auto record = arrived.begin() + static_cast<std::ptrdiff_t>(i * RECORD);
        const std::uint32_t tsiidx = record[0];
        SCOPED_TRACE("record " + std::to_string(i) + " of TSIIDX " + std::to_string(tsiidx));
        const auto isAlive = [&](const Life& life) { return life.span.mayFrom <= i && i < life.span.mayTo; };
        const auto life = std::ranges::find_if(lives[tsiidx], isAlive);
        ASSERT_TRUE(life != lives[tsiidx].end()) << "no such input";
        Position& at = positions[tsiidx];
        if (at.life != &*life) {
            at = {&*life};
        }
        const auto file = files.at(life->n).begin();
        for (;; ++at.packet) {
            ASSERT_LT(at.packet, files.at(life->n).size() / 188) << "not one of the file's next packets";
            const auto packet = file + static_cast<std::ptrdiff_t>(at.packet * 188);
            const auto& spans = life->routes[(packet[1] & 0x1FU) << 8 | packet[2]];
            if (std::equal(packet, packet + 188, record + 4)) {
                ASSERT_TRUE(std::ranges::any_of(spans, [&](const Span& span) {
                    return span.mayFrom <= i && i < span.mayTo;
                })) << "not routed";
                break;
            }
            ASSERT_TRUE(std::ranges::none_of(
                spans, [&](const Span& span) { return span.mustFrom <= at.records && i < span.mustTo; }))
                << "packet " << at.packet << " is missing before it";
        }
        const bool isJump = at.records > 0 && at.packet / clockPackets != at.lastPacket / clockPackets;
        jumps += isJump ? 1 : 0;
        at.records = i + 1;
        at.lastPacket = at.packet++;
    }
}

}  // namespace Vel::SystemTest
