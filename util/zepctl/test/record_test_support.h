#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
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
    std::optional<std::uint64_t> pcr = std::nullopt;  // 27 MHz ticks, a multiple of 300
    char fill = '\xFF';
    std::uint8_t sync = Ts::SYNC_BYTE;

    std::string bytes() const {
        std::string record(Ts::RECORD_SIZE, fill);
        auto* b = reinterpret_cast<std::uint8_t*>(record.data());
        Ts::writeRecordHeader(b, tsiidx);
        b += Ts::RECORD_HEADER_SIZE;
        b[0] = sync;
        b[1] = static_cast<std::uint8_t>((transportError ? 0x80 : 0) | (pid >> 8));
        b[2] = static_cast<std::uint8_t>(pid);
        b[3] = static_cast<std::uint8_t>((scrambled ? 0x80 : 0) | (pcr || discontinuity ? 0x20 : 0) |
                                         (payload ? 0x10 : 0) | (counter & 0x0F));
        if (pcr || discontinuity) {
            b[4] = adaptationLength;
            b[5] = static_cast<std::uint8_t>((discontinuity ? 0x80 : 0) | (pcr ? 0x10 : 0));
            for (int i = 0; i < 6; ++i) {
                b[6 + i] =
                    static_cast<std::uint8_t>(pcr.value_or(0) / Ts::PCR_TICKS_PER_BASE << 15 >> (40 - 8 * i));
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

/// An empty current directory, as long as this exists.
class ScratchDirectory {
public:
    ScratchDirectory() { std::filesystem::current_path(::mkdtemp(m_Path.data())); }
    ~ScratchDirectory() { std::filesystem::remove_all(m_Path); }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

private:
    std::string m_Path = (std::filesystem::temp_directory_path() / "zepctl_XXXXXX").string();
};

inline void writeFile(const std::string& name, const std::string& bytes) {
    std::ofstream(name, std::ios::binary) << bytes;
}

inline std::string readFile(const std::string& name) {
    return (std::ostringstream() << std::ifstream(name, std::ios::binary).rdbuf()).str();
}

/// What a shell command prints, errors included, and its exit status, where zepctl is the built program.
inline std::string shell(const std::string& command) {
    const std::string line = "exec >output 2>&1; zepctl() { " ZEPCTL_PROGRAM " \"$@\"; }\n" + command;
    const int status = std::system(line.c_str());
    return readFile("output") + "status " + std::to_string(WEXITSTATUS(status)) + "\n";
}

}  // namespace Vel::Zepctl
