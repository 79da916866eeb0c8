#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace Vel::SystemTest {

using Bytes = std::vector<std::uint8_t>;

/// Waits until `condition` holds; false after a time that only a broken program needs.
bool eventually(const std::function<bool()>& condition,
                std::chrono::seconds limit = std::chrono::seconds(30));

std::string readText(const std::filesystem::path& file);
Bytes readBytes(const std::filesystem::path& file);
void writeBytes(const std::filesystem::path& file, const Bytes& bytes);

/// A folder of its own for one test, removed at its end.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    std::filesystem::path operator/(const std::string& name) const { return m_Path / name; }

private:
    std::filesystem::path m_Path;
};

/// A zeroed stand-in for a control device, mapped as another program maps it: what is stored here is seen
/// there at once. The layout is written out in the tests on purpose, so that they do not share a mistake with
/// the programs.
class Table {
public:
    Table(std::filesystem::path path, std::size_t size);
    ~Table();
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;

    volatile std::uint32_t& operator[](std::size_t word) { return m_Words[word]; }
    const std::filesystem::path& path() const { return m_Path; }
    void clear() { std::fill_n(m_Words, m_Size / 4, 0); }

private:
    std::filesystem::path m_Path;
    std::size_t m_Size;
    volatile std::uint32_t* m_Words;
};

constexpr std::size_t TSIO_SIZE = 16384;
constexpr std::size_t ROUTER_SIZE = 131072;

/// One transport packet: sync byte, PID, continuity counter and a payload that numbers it.
Bytes makePacket(std::uint32_t pid, std::uint32_t number, std::uint32_t continuity = 0);
/// The same with a PCR, in 27 MHz ticks.
Bytes makePcrPacket(std::uint32_t pid, std::uint32_t number, std::uint64_t pcr, std::uint32_t continuity = 0);
/// `count` packets of the PIDs in turn, with steady continuity counters. With `ticksPerPacket` above 0, every
/// 20th packet of the first PID carries a PCR of that pace.
Bytes makeStream(const std::vector<std::uint32_t>& pids, std::uint32_t count,
                 std::uint64_t ticksPerPacket = 0);

/// What the data device must hold for one input: the packets of `stream` whose PID is in `pids`, behind their
/// header.
Bytes recordsOf(const Bytes& stream, std::uint32_t tsiidx, const std::vector<std::uint32_t>& pids);
/// The records of one input among those of all.
Bytes recordsOfInput(const Bytes& records, std::uint32_t tsiidx);

}  // namespace Vel::SystemTest
