#include "vel/ts_basics/stream_loop.h"

#include <algorithm>
#include <cctype>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "test_packet.h"
#include "vel/ts_basics/ll_tspackets.h"

namespace Vel::Ts {
namespace {

using Bytes = std::vector<std::uint8_t>;
using TestSupport::TestPacket;

constexpr std::uint64_t WRAP = std::uint64_t{1} << 33;  // of times, in 90 kHz ticks
constexpr std::uint64_t UNITS_PER_MS = 90;
constexpr std::uint32_t EXTENSION = 299;  // of every PCR and ESCR

/// A number as bits, most significant first.
std::string bits(std::uint64_t value, int count) {
    std::string text;
    while (count > 0) {
        text += (value >> --count & 1) != 0 ? '1' : '0';
    }
    return text;
}

/// 33 bits with marker bits, as in a PES header.
std::string stamp(std::uint64_t time) {
    time %= WRAP;
    return bits(time >> 30, 3) + "1" + bits(time >> 15, 15) + "1" + bits(time, 15) + "1";
}

/// A packet with all times that the flags announce, each later than the one before by 1000 ticks, wherever
/// they have room. `pts` and `pcr` are those of the stream, or `advance` later.
struct TimedPacket {
    static constexpr std::uint64_t FIRST_TIME = WRAP - 2503;
    static constexpr std::uint64_t FIRST_STAMP = FIRST_TIME + 1000;  // without an adaptation field

    int fieldLength = -1;  // without an adaptation field
    bool pcr = false;
    bool opcr = false;
    int stampFlags = 2;
    bool escr = false;
    int moreHeader = 0;  // bytes after the times; negative: the header is too short for them
    std::uint8_t streamId = 0xE0;
    std::uint32_t startCode = 1;
    std::uint8_t marker = 0x8F;
    std::uint32_t pid = 0x200;
    bool scrambled = false;
    bool transportError = false;
    bool unitStart = true;
    std::uint8_t sync = SYNC_BYTE;
    bool pesAdvances = true;
    bool pcrAdvances = true;

    int headerLength() const {
        return (stampFlags >= 2 ? 5 * (stampFlags - 1) : 0) + (escr ? 6 : 0) + moreHeader;
    }
    int payloadStart() const { return fieldLength < 0 ? 4 : 5 + fieldLength; }
    bool fits() const { return payloadStart() + 9 + headerLength() <= 188; }

    Bytes bytes(std::uint64_t advance) const {
        Bytes packet =
            TestPacket{.pid = pid, .transportError = transportError, .scrambled = scrambled, .sync = sync}
                .bytes();
        packet[1] |= unitStart ? 0x40 : 0;
        const auto put = [&packet](std::size_t at, const std::string& text) {
            for (std::size_t i = 0; i + 8 <= text.size() && at < packet.size(); i += 8, ++at) {
                packet[at] = static_cast<std::uint8_t>(std::stoul(text.substr(i, 8), nullptr, 2));
            }
        };
        std::uint64_t time = FIRST_TIME;
        if (fieldLength >= 0) {
            packet[3] |= 0x20;
            packet[4] = static_cast<std::uint8_t>(fieldLength);
            packet[5] = static_cast<std::uint8_t>(0x67 | (pcr ? 0x10 : 0) | (opcr ? 0x08 : 0));
            int at = 6;
            for (const bool isThere : {pcr, opcr}) {
                const bool hasRoom = pcrAdvances && at + 6 <= 5 + fieldLength && fieldLength <= 183;
                if (isThere) {
                    put(static_cast<std::size_t>(at),
                        bits((time + (hasRoom ? advance : 0)) % WRAP, 33) + "101010" + bits(EXTENSION, 9));
                    at += 6;
                }
                time += 1000;
            }
        }
        if (!pesAdvances || !fits()) {
            advance = 0;
        }
        std::string header = bits(startCode, 24) + bits(streamId, 8) + bits(0, 16) + bits(marker, 8) +
                             bits(static_cast<unsigned>(stampFlags) << 6 | (escr ? 0x3F : 0x1F), 8) +
                             bits(static_cast<unsigned>(headerLength()), 8);
        for (int i = 1; i < stampFlags; ++i) {
            header += "0011" + stamp(time += 1000 + advance);
            time -= advance;
        }
        if (escr) {
            header += "10" + stamp(time + 1000 + advance) + bits(EXTENSION, 9) + "1";
        }
        put(static_cast<std::size_t>(payloadStart()), header);
        return packet;
    }
};

LowlevInTSPacket packetOf(const Bytes& bytes) {
    auto packet = LowlevInTSPacket::create<TS_PACKET_SIZE>();
    std::ranges::copy(bytes, packet.getDataPtr());
    return packet;
}

/// A pass of 30 ms: PCRs of another PID around the packet.
void expectContinued(const TimedPacket& content) {
    constexpr std::uint64_t FIRST_PCR = 0x1'FFFF'FF00;
    StreamLoop loop;
    for (std::uint64_t pass = 0; pass < 3; ++pass) {
        const auto next = [&](const Bytes& bytes) {
            auto packet = packetOf(bytes);
            loop.continuePacket(packet);
            return Bytes(packet.getDataPtr(), packet.getDataPtr() + TS_PACKET_SIZE);
        };
        next(TestPacket{.pcr = FIRST_PCR * 300}.bytes());
        Bytes expected = content.bytes(pass * 30 * UNITS_PER_MS);
        const bool isIntact = content.sync == SYNC_BYTE && !content.transportError && content.pid != NULL_PID;
        expected[3] = static_cast<std::uint8_t>(expected[3] | (isIntact ? pass : 0));
        ASSERT_EQ(next(content.bytes(0)), expected) << "pass " << pass;
        next(TestPacket{.pcr = (FIRST_PCR + 20 * UNITS_PER_MS) % WRAP * 300}.bytes());
        ASSERT_TRUE(loop.endPass());
    }
}

TEST(StreamLoop, AdvancesEveryTimeThatHasRoom) {
    for (int length = -1; length <= 255; ++length) {
        for (int flags = 0; flags < 32; ++flags) {
            SCOPED_TRACE(testing::Message() << "field of " << length << " bytes, flags " << flags);
            TimedPacket packet{.fieldLength = length,
                               .pcr = (flags & 16) != 0,
                               .opcr = (flags & 8) != 0,
                               .stampFlags = flags & 3,
                               .escr = (flags & 4) != 0,
                               .pesAdvances = (flags & 3) != 1};
            expectContinued(packet);
            packet.moreHeader = 188 - packet.payloadStart() - 9 - packet.headerLength();
            if (packet.moreHeader >= 0) {
                expectContinued(packet);  // up to the end of the packet
                ++packet.moreHeader;
                expectContinued(packet);
            }
            if (HasFatalFailure()) {
                return;
            }
        }
    }
}

TEST(StreamLoop, LeavesOtherPacketsAsTheyAre) {
    const TimedPacket all{.fieldLength = 13, .pcr = true, .opcr = true, .stampFlags = 3, .escr = true};
    for (const int streamId : {0xBC, 0xBE, 0xBF, 0xF0, 0xF1, 0xF2, 0xF8, 0xFF, 0xBD, 0xC0, 0xFD}) {
        SCOPED_TRACE(streamId);
        TimedPacket packet = all;
        packet.streamId = static_cast<std::uint8_t>(streamId);
        packet.pesAdvances = streamId == 0xBD || streamId == 0xC0 || streamId == 0xFD;
        expectContinued(packet);
    }
    for (const auto change : std::initializer_list<void (*)(TimedPacket&)>{
             [](TimedPacket& p) { p.scrambled = true; }, [](TimedPacket& p) { p.unitStart = false; },
             [](TimedPacket& p) { p.marker = 0x4F; },
             [](TimedPacket& p) { p.fieldLength = -1, p.startCode = 0x9F9F01; },
             [](TimedPacket& p) { p.moreHeader = -1; }}) {
        TimedPacket packet = all;
        packet.pesAdvances = false;
        change(packet);
        expectContinued(packet);
    }
    for (const auto change : std::initializer_list<void (*)(TimedPacket&)>{
             [](TimedPacket& p) { p.transportError = true; }, [](TimedPacket& p) { p.sync = 0x46; },
             [](TimedPacket& p) { p.pid = NULL_PID; }}) {
        TimedPacket packet = all;
        packet.pesAdvances = packet.pcrAdvances = false;
        change(packet);
        expectContinued(packet);
    }
}

/// A stream in words: a PID, then
///   a number: a PCR, or with "t" before it a decoding time (both in milliseconds, negative before the wrap),
///   or "." for neither;
/// and *N for N such packets.
std::vector<Bytes> streamOf(const std::string& words) {
    std::vector<Bytes> stream;
    std::istringstream text(words);
    for (std::string word; text >> word;) {
        const std::uint32_t pid = 0x100U + static_cast<unsigned char>(word[0]);
        const auto at = word.find_first_of("-0123456789");
        const std::int64_t ms = word[1] == '.' ? 0 : std::stoll(word.substr(at));
        const std::uint64_t time = static_cast<std::uint64_t>(ms) * UNITS_PER_MS % WRAP;
        TestPacket plain{.pid = pid};
        if (word[1] != '.') {
            plain.pcr = time * 300;
        }
        const Bytes packet =
            word[1] == 't' ? TimedPacket{.pid = pid}.bytes(time - TimedPacket::FIRST_STAMP) : plain.bytes();
        const auto times = word.find('*');
        const std::size_t count = times == std::string::npos ? 1 : std::stoul(word.substr(times + 1));
        stream.insert(stream.end(), count, packet);
    }
    return stream;
}

/// Plays a pass, after one without PCRs, and finds its length from the PCR of a packet that starts the next.
std::optional<std::int64_t> lengthOf(const std::string& words) {
    StreamLoop loop;
    for (const std::string& pass : {std::string("ct-100 ct-50"), words}) {
        for (const Bytes& bytes : streamOf(pass)) {
            auto packet = packetOf(bytes);
            loop.continuePacket(packet);
        }
        if (!loop.endPass()) {
            return std::nullopt;
        }
    }
    auto packet = packetOf(TestPacket{.pid = 1, .pcr = 0}.bytes());
    loop.continuePacket(packet);
    const auto base = static_cast<std::int64_t>(packet.getPcr() / 300);
    const std::int64_t ticks = base > std::int64_t{WRAP / 2} ? base - std::int64_t{WRAP} : base;
    EXPECT_EQ(ticks % std::int64_t{UNITS_PER_MS}, 0);
    return ticks / std::int64_t{UNITS_PER_MS};
}

TEST(StreamLoop, APassIsAsLongAsItsPacketsTake) {
    const struct {
        const char* rule;
        const char* stream;
        std::optional<std::int64_t> ms;
    } cases[] = {
        {"packets before and after", "b.*3 a0 b. a10 b. b.", 10 + 4 * 5 + 2 * 5},
        {"a jump ahead is part of it", "a0 a10 a5000 a5010", 5020},
        {"a jump back as well", "a5000 a5010 a0 a10", -4980},
        {"ten thousand packets at a time", "a0 a10 b.*10001", 10 + 10 + 10 + 10},
        {"too many packets before", "b.*9997 a0 b. a10", 10 + 9998 * 5},
        {"more are unpaced", "b.*9998 a0 b. a10", 10},
        {"PCRs of another program", "a0 b5000 a10 b5010 a20 b5020", 20 + 5 + 5},
        {"no PCR", "at0 at40 b.", 0},
        {"one PCR", "a0 b. b.", std::nullopt},
        {"PCRs too far apart", "a0 a1500 a3000", std::nullopt},
        {"decoding times span more", "a0 a10 ct0 ct20 ct40", 60},
        {"the longest of them", "a0 a10 ct0 ct40 dt-40 dt30 b.", 140},
        {"across the wrap", "a0 a10 ct-20 ct0 ct20", 60},
        {"they span less", "a0 a10 b. b. ct0 ct5 ct10", 30},
        {"half a second more", "a0 a10 ct0 ct265", 530},
        {"beyond half a second", "a0 a10 ct0 ct266", 30},
        {"a repeated packet has no step", "a0 a10 ct0 ct20 ct40 ct40", 60},
        {"a step back", "a0 a10 ct0 ct80 ct60", 40},
        {"one time has no step", "a300 a310 a0 ct0", -280},
    };
    for (const auto& [rule, stream, ms] : cases) {
        EXPECT_EQ(lengthOf(stream), ms) << rule;
    }
}

TEST(StreamLoop, LengthsAreWholeTicksAndAddUp) {
    StreamLoop loop;
    std::uint64_t expected = 0;
    // The pass grows, loses its PCRs, and has them again; 1 + 1 and 301 + 301 ticks of 27 MHz are rounded up.
    const std::vector<std::vector<std::uint64_t>> passes = {{0, 1}, {0, 1, 302}, {}, {0}, {0, 300}, {5}};
    const std::uint64_t lengths[] = {1, 2, 0, 0, 2, 0};
    for (std::size_t pass = 0; pass < passes.size(); ++pass) {
        for (const std::uint64_t ticks : passes[pass]) {
            auto packet = packetOf(TestPacket{.pcr = ticks}.bytes());
            loop.continuePacket(packet);
            EXPECT_EQ(packet.getPcr(), ticks + expected * 300) << "pass " << pass;
        }
        EXPECT_EQ(loop.endPass(), passes[pass].size() != 1);
        expected += lengths[pass];
    }
}

/// Counters of passes of packets of PID a, b or c: a capital letter for a packet without payload, "e" in
/// front of a counter for a transport error and "s" for a scrambled packet.
TEST(StreamLoop, CountersContinueAcrossTheSeam) {
    const struct {
        const char* rule;
        std::vector<std::string> passes;
        std::vector<std::string> expected;
    } cases[] = {
        {"each PID by itself",
         {"a3 b14 a4 b15", "a3 b14 a4 b15", "a3 b14 a4 b15"},
         {"a3 b14 a4 b15", "a5 b0 a6 b1", "a7 b2 a8 b3"}},
        {"no payload at the end", {"a3 A3", "a3 A3"}, {"a3 A3", "a4 A4"}},
        {"no payload at the start", {"A2 a3", "A2 a3"}, {"A2 a3", "A3 a4"}},
        {"no payload at all", {"A7 A7", "A7 A7"}, {"A7 A7", "A7 A7"}},
        {"errors and duplicates", {"a3 a3 a9 a8", "a3 a3 a9 a8"}, {"a3 a3 a9 a8", "a9 a9 a15 a14"}},
        {"damaged packets", {"ae9 a3 ae9", "ae9 a3 ae9"}, {"ae9 a3 ae9", "ae9 a4 ae9"}},
        {"scrambled packets", {"as3 as4", "as3 as4"}, {"as3 as4", "as5 as6"}},
        {"the passes differ", {"a3", "a7 a8 b5", "b5", "a3 b5 a4"}, {"a3", "a4 a5 b5", "b6", "a6 b7 a7"}},
    };
    for (const auto& [rule, passes, expected] : cases) {
        StreamLoop loop;
        for (std::size_t pass = 0; pass < passes.size(); ++pass) {
            std::string result;
            std::istringstream words(passes[pass]);
            for (std::string word; words >> word;) {
                const std::string name = word.substr(0, word.find_first_of("0123456789"));
                auto packet = packetOf(
                    TestPacket{.pid = static_cast<std::uint32_t>(std::tolower(word[0])),
                               .counter = static_cast<std::uint32_t>(std::stoul(word.substr(name.size()))),
                               .payload = std::islower(word[0]) != 0,
                               .transportError = name.ends_with('e'),
                               .scrambled = name.ends_with('s')}
                        .bytes());
                loop.continuePacket(packet);
                result += (result.empty() ? "" : " ") + name + std::to_string(packet.getContinuityCounter());
            }
            EXPECT_EQ(result, expected[pass]) << rule << ", pass " << pass;
            EXPECT_TRUE(loop.endPass());
        }
    }
}

}  // namespace
}  // namespace Vel::Ts
