#pragma once

#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "vel/ts_basics/zep_record.h"

namespace Vel::Zepctl {

constexpr std::uint64_t MS = 27'000;  // PCR ticks

/// The fields of a record that a test chooses; the rest is a plain packet.
struct TestRecord {
    std::uint32_t tsiidx = 3;
    std::uint32_t pid = 0x100;
    std::uint32_t counter = 0;
    bool payload = true;
    bool discontinuity = false;
    std::uint8_t adaptationLength = 7;  // if there is an adaptation field
    bool transportError = false;
    bool scrambled = false;
    std::optional<std::uint64_t> pcr = std::nullopt;  // 27 MHz ticks
    char fill = '\xFF';
    std::uint8_t sync = Ts::SYNC_BYTE;

    std::string bytes() const {
        std::string record(Ts::RECORD_SIZE, fill);
        auto* b = reinterpret_cast<std::uint8_t*>(record.data());
        Ts::writeRecordHeader(b, tsiidx);
        b += Ts::RECORD_HEADER_SIZE;
        const bool adaptation = pcr || discontinuity;
        b[0] = sync;
        b[1] = static_cast<std::uint8_t>((transportError ? 0x80 : 0) | (pid >> 8));
        b[2] = static_cast<std::uint8_t>(pid);
        b[3] = static_cast<std::uint8_t>((scrambled ? 0x80 : 0) | (adaptation ? 0x20 : 0) |
                                         (payload ? 0x10 : 0) | (counter & 0x0F));
        if (adaptation) {
            b[4] = adaptationLength;
            b[5] = static_cast<std::uint8_t>((discontinuity ? 0x80 : 0) | (pcr ? 0x10 : 0));
            const std::uint64_t base = pcr.value_or(0) / Ts::PCR_TICKS_PER_BASE;
            const std::uint64_t field = (base << 15) | 0x7E00 | (pcr.value_or(0) % Ts::PCR_TICKS_PER_BASE);
            for (int i = 0; i < 6; ++i) {
                b[6 + i] = static_cast<std::uint8_t>(field >> (40 - 8 * i));
            }
        }
        return record;
    }
};

inline std::string join(const std::vector<TestRecord>& records) {
    std::string stream;
    for (const TestRecord& record : records) {
        stream += record.bytes();
    }
    return stream;
}

/// Gives records to a check or a watch.
template <typename Consumer, typename... Arrival>
void give(Consumer& consumer, const std::vector<TestRecord>& records, Arrival... arrival) {
    const std::string stream = join(records);
    consumer.add({reinterpret_cast<const std::uint8_t*>(stream.data()), stream.size()}, arrival...);
}

/// A directory of its own for a test, removed with it.
class ScratchDirectory {
public:
    ScratchDirectory() { m_Path = ::mkdtemp(m_Path.data()); }
    ~ScratchDirectory() { std::filesystem::remove_all(m_Path); }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    std::string file(const std::string& name) const { return m_Path + "/" + name; }
    std::string write(const std::string& name, std::string_view bytes) const {
        std::ofstream(file(name), std::ios::binary) << bytes;
        return file(name);
    }
    std::string read(const std::string& name) const {
        std::ostringstream bytes;
        bytes << std::ifstream(file(name), std::ios::binary).rdbuf();
        return bytes.str();
    }

private:
    std::string m_Path = (std::filesystem::temp_directory_path() / "zepctl_XXXXXX").string();
};

}  // namespace Vel::Zepctl
