#include "stand_ins.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <utility>

namespace Vel::SystemTest {

namespace {

constexpr std::size_t PACKET = 188;
constexpr std::size_t RECORD = 192;

}  // namespace

bool eventually(const std::function<bool()>& condition, std::chrono::seconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

std::string readText(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

Bytes readBytes(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void writeBytes(const std::filesystem::path& file, const Bytes& bytes) {
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

TemporaryFolder::TemporaryFolder() {
    std::string name = std::filesystem::temp_directory_path() / "zeptfem-test-XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("mkdtemp " + name);
    }
    m_Path = name;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_Path, ignored);
}

Table::Table(std::filesystem::path path, std::size_t size) : m_Path(std::move(path)), m_Size(size) {
    const int fd = ::open(m_Path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    void* base = MAP_FAILED;
    if (fd != -1 && ::ftruncate(fd, static_cast<off_t>(size)) == 0) {
        base = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    }
    ::close(fd);
    if (base == MAP_FAILED) {
        throw std::runtime_error("cannot map " + m_Path.string());
    }
    m_Words = static_cast<volatile std::uint32_t*>(base);
}

Table::~Table() {
    ::munmap(const_cast<std::uint32_t*>(m_Words), m_Size);
}

Bytes makePacket(std::uint32_t pid, std::uint32_t number, std::uint32_t continuity) {
    Bytes packet(PACKET, 0xA5);
    packet[0] = 0x47;
    packet[1] = static_cast<std::uint8_t>(pid >> 8);
    packet[2] = static_cast<std::uint8_t>(pid);
    packet[3] = static_cast<std::uint8_t>(0x10 | (continuity & 0x0F));
    for (std::size_t i = 0; i < 4; ++i) {
        packet[4 + i] = static_cast<std::uint8_t>(number >> (8 * i));
    }
    return packet;
}

Bytes makePcrPacket(std::uint32_t pid, std::uint32_t number, std::uint64_t pcr, std::uint32_t continuity) {
    Bytes packet = makePacket(pid, number, continuity);
    const std::uint64_t base = pcr / 300;
    const std::uint64_t extension = pcr % 300;
    packet[3] |= 0x20;
    packet[4] = 7;
    packet[5] = 0x10;
    for (std::size_t i = 0; i < 4; ++i) {
        packet[6 + i] = static_cast<std::uint8_t>(base >> (25 - 8 * i));
    }
    packet[10] = static_cast<std::uint8_t>((base & 1) << 7 | 0x7E | extension >> 8);
    packet[11] = static_cast<std::uint8_t>(extension);
    return packet;
}

Bytes makeStream(const std::vector<std::uint32_t>& pids, std::uint32_t count, std::uint64_t ticksPerPacket) {
    constexpr std::uint32_t PCR_PERIOD = 20;
    Bytes stream;
    for (std::uint32_t i = 0; i < count; ++i) {
        const auto turn = static_cast<std::uint32_t>(i / pids.size());
        const std::uint32_t pid = pids[i % pids.size()];
        const bool withPcr = ticksPerPacket > 0 && pid == pids[0] && turn % PCR_PERIOD == 0;
        const Bytes packet =
            withPcr ? makePcrPacket(pid, i, i * ticksPerPacket, turn) : makePacket(pid, i, turn);
        stream.insert(stream.end(), packet.begin(), packet.end());
    }
    return stream;
}

Bytes recordsOf(const Bytes& stream, std::uint32_t tsiidx, const std::vector<std::uint32_t>& pids) {
    Bytes records;
    for (std::size_t at = 0; at + PACKET <= stream.size(); at += PACKET) {
        const std::uint32_t pid = (stream[at + 1] & 0x1FU) << 8 | stream[at + 2];
        if (std::find(pids.begin(), pids.end(), pid) != pids.end()) {
            records.insert(records.end(), {static_cast<std::uint8_t>(tsiidx), 0, 0, 0});
            records.insert(records.end(), stream.begin() + static_cast<std::ptrdiff_t>(at),
                           stream.begin() + static_cast<std::ptrdiff_t>(at + PACKET));
        }
    }
    return records;
}

Bytes recordsOfInput(const Bytes& records, std::uint32_t tsiidx) {
    Bytes selected;
    for (std::size_t at = 0; at + RECORD <= records.size(); at += RECORD) {
        if (records[at] == tsiidx) {
            selected.insert(selected.end(), records.begin() + static_cast<std::ptrdiff_t>(at),
                            records.begin() + static_cast<std::ptrdiff_t>(at + RECORD));
        }
    }
    return selected;
}

}  // namespace Vel::SystemTest
