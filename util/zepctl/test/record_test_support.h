#pragma once

#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "vel/ts_basics/zep_record.h"

namespace Vel::Zepctl {

using Bytes = std::vector<std::uint8_t>;

/// What a test wants of a record; the rest is a plain packet.
struct TestRecord {
    std::uint32_t tsiidx = 3;
    std::uint32_t pid = 0x100;
    std::uint32_t counter = 0;
    bool payload = true;
    bool discontinuity = false;
    std::uint8_t adaptationLength = 7;  // where there is an adaptation field
    bool transportError = false;
    bool scrambled = false;
    std::optional<std::uint64_t> pcr = std::nullopt;  // 27 MHz ticks
    std::uint8_t fill = 0xFF;
    std::uint8_t sync = Ts::SYNC_BYTE;

    Bytes bytes() const {
        Bytes record(Ts::RECORD_SIZE, fill);
        Ts::writeRecordHeader(record.data(), tsiidx);
        std::uint8_t* b = record.data() + Ts::RECORD_HEADER_SIZE;
        const bool adaptation = pcr || discontinuity;
        b[0] = sync;
        b[1] = static_cast<std::uint8_t>((transportError ? 0x80 : 0) | (pid >> 8));
        b[2] = static_cast<std::uint8_t>(pid);
        b[3] = static_cast<std::uint8_t>((scrambled ? 0x80 : 0) | (adaptation ? 0x20 : 0) |
                                         (payload ? 0x10 : 0) | counter);
        if (adaptation) {
            b[4] = adaptationLength;
            b[5] = static_cast<std::uint8_t>((discontinuity ? 0x80 : 0) | (pcr ? 0x10 : 0));
            const std::uint64_t base = pcr.value_or(0) / Ts::PCR_TICKS_PER_BASE;
            const std::uint64_t extension = pcr.value_or(0) % Ts::PCR_TICKS_PER_BASE;
            const std::uint64_t field = (base << 15) | 0x7E00 | extension;
            for (int i = 0; i < 6; ++i) {
                b[6 + i] = static_cast<std::uint8_t>(field >> (40 - 8 * i));
            }
        }
        return record;
    }
};

inline Bytes join(const std::vector<TestRecord>& records) {
    Bytes stream;
    for (const TestRecord& record : records) {
        const Bytes bytes = record.bytes();
        stream.insert(stream.end(), bytes.begin(), bytes.end());
    }
    return stream;
}

/// A directory of its own for a test, gone with it.
class ScratchDirectory {
public:
    ScratchDirectory() {
        std::string name = (std::filesystem::temp_directory_path() / "zepctl_XXXXXX").string();
        m_Path = ::mkdtemp(name.data());
    }
    ~ScratchDirectory() { std::filesystem::remove_all(m_Path); }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    std::string file(const std::string& name) const { return m_Path + "/" + name; }
    std::string write(const std::string& name, const Bytes& bytes) const {
        std::ofstream(file(name), std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        return file(name);
    }
    Bytes read(const std::string& name) const {
        std::ifstream stream(file(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    }

private:
    std::string m_Path;
};

/// The text of what a call throws as an E.
template <typename E, typename Call>
std::string textOf(Call&& call) {
    try {
        call();
    } catch (const E& error) {
        return error.what();
    }
    return "nothing thrown";
}

}  // namespace Vel::Zepctl
