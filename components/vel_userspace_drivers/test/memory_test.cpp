#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <list>
#include <thread>

#include <gmock/gmock.h>

#include "fake_memory.h"
#include "thrown_text.h"
#include "vel/userspace_drivers/interfaces/lindevmemaccessor.h"
#include "vel/userspace_drivers/interfaces/pci/pciif.h"

namespace Vel::Drivers {
namespace {

using Pci::PciError;
using Pci::PciIf;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::uint32_t SIZE = 16384;  // bytes

TEST(LinDevMemAccessor, EveryWidthAddressesTheSameBytes) {
    FakeMemory memory(SIZE / 4);
    memory.write32(1, 0x44332211);
    EXPECT_EQ(memory.read16(2), 0x2211);
    EXPECT_EQ(memory.read16(3), 0x4433);
    EXPECT_EQ(memory.read8(7), 0x44);
    memory.write16(3, 0xBEEF);
    memory.write8(5, 0xAA);
    EXPECT_EQ(memory.read32(1), 0xBEEFAA11U);

    memory.writeBlock32(8, {1, 2});
    memory.writeBlock16(20, {3, 4});
    memory.writeBlock8(42, {5, 6});
    EXPECT_THAT(memory.readBlock32(8, 2), ElementsAre(1, 2));
    EXPECT_THAT(memory.readBlock16(19, 3), ElementsAre(0, 3, 0x0605));
    EXPECT_THAT(memory.readBlock8(40, 4), ElementsAre(3, 0, 5, 6));
    std::array<std::uint32_t, 3> buffer{};
    memory.readBlock32Into(8, buffer);
    EXPECT_THAT(buffer, ElementsAre(1, 2, 0x06050003));
}

TEST(LinDevMemAccessor, AccessLiesWithinTheSegmentAndSuitsItsWidth) {
    FakeMemory memory(SIZE / 4);
    EXPECT_THAT(memory.readBlock32(4094, 2), testing::SizeIs(2));
    EXPECT_THAT(memory.readBlock32(4096, 0), testing::IsEmpty());
    constexpr std::uint32_t LARGEST = 0xFFFFFFFF;
    const auto check = [&](std::uint64_t offset, MemAccessType type) {
        return [&memory, offset, type] { memory.checkAccess(SIZE, offset, 4, type); };
    };
    const std::string boundary = " crosses memory segment boundary";
    const std::string alignment = "\" causes invalid allignment.";
    const std::vector<std::pair<std::function<void()>, std::string>> cases = {
        {[&] { memory.read32(4096); }, "16384 and byte size 4" + boundary},
        {[&] { memory.readBlock32(4095, 2); }, "16380 and byte size 8" + boundary},
        {[&] { memory.readBlock32(4097, 0); }, "16388 and byte size 0" + boundary},
        {[&] { memory.write16(8192, 1); }, "16384 and byte size 2" + boundary},
        {[&] { memory.write8(16384, 1); }, "16384 and byte size 1" + boundary},
        {[&] { memory.write32(0x40000000, 1); }, "4294967296 and byte size 4" + boundary},
        {[&] { memory.readBlock32(1, LARGEST); }, "4 and byte size 17179869180" + boundary},
        {[&] { memory.readBlock16(LARGEST, LARGEST); }, "8589934590 and byte size 8589934590" + boundary},
        {[&] { memory.writeBlock32(4095, std::vector(2, 7U)); }, "16380 and byte size 8" + boundary},
        {check(6, MemAccessType::R32), "6, byte size 4 and memory access type \"R32" + alignment},
        {check(5, MemAccessType::W16), "5, byte size 4 and memory access type \"W16" + alignment},
        {check(0, static_cast<MemAccessType>(6)),
         "0, byte size 4 and memory access type \"undefined" + alignment},
        {check(16382, MemAccessType::R32), "16382 and byte size 4" + boundary},  // the bounds come first
    };
    for (const auto& [call, text] : cases) {
        EXPECT_EQ(thrownText<DevMemError>(call),
                  "Device memory Error: Cannot access device memory. Byte offset " + text);
    }
    EXPECT_NO_THROW(
        (check(6, MemAccessType::R16)(), check(8, MemAccessType::W32)(), check(5, MemAccessType::R8)()));
    EXPECT_EQ(std::ranges::count(memory.words, 0U), SIZE / 4) << "a failed write changes nothing";
}

std::size_t countDescriptors() {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

/// A plain file in memory, reachable by a path while this object lives.
class MemoryFile {
public:
    explicit MemoryFile(off_t size) : descriptor(::memfd_create("device", MFD_CLOEXEC)) { resize(size); }
    ~MemoryFile() { ::close(descriptor); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    void resize(off_t size) const { ASSERT_EQ(::ftruncate(descriptor, size), 0); }

    const int descriptor;
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
};

TEST(PciIf, FailedConstructionNamesTheReasonAndReleasesWhatItHad) {
    const MemoryFile file(SIZE - 1);
    const MemoryFile good(2 * SIZE);
    std::list<PciIf> all;
    const std::size_t before = countDescriptors();
    const auto open = [](const std::string& path, std::uint32_t size, std::uint32_t offset) {
        return thrownText<PciError>([&] { PciIf(path, size, offset).read32(0); });
    };
    EXPECT_EQ(open(file.path, SIZE, 0),
              "PCI Error: File " + file.path + " is too short: it has 16383 bytes, but 16384 are needed.");
    EXPECT_THAT(open("no\x1b\nfile", SIZE, 0), HasSubstr("at path: no\\x1b\\x0afile. Error: \"No such"));
    EXPECT_THAT(open(file.path, 4096, 0xFFFFF000), HasSubstr("but 4294967296 are needed."));
    EXPECT_EQ(open(file.path, 4096, 1),
              "PCI Error: Failed mmap of 4096 bytes (offset: 1) from device: " + file.path + ". ");
    EXPECT_THAT(open(file.path, 0x80000000, 0), HasSubstr("Failed mmap"));
    EXPECT_THAT(open(file.path, 0, 0), HasSubstr(" has no memory mapped into user space."));
    EXPECT_EQ(countDescriptors(), before);
    // A closed device makes room for another.
    for (int i = 0; i < 8; ++i) {
        all.emplace_back(good.path, SIZE, SIZE);
    }
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(open(good.path, SIZE, 0),
                  "PCI Error: Cannot map another device: the limit of 8 mappings is reached.");
    }
    std::size_t mappings = 0;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        mappings += line.find("memfd:device") != std::string::npos ? 1 : 0;
    }
    EXPECT_LE(mappings, 9U) << "neighbours can become one";
    all.front().write32(0, 7);
    EXPECT_EQ(all.back().read32(0), 7U) << "they share the file, from the offset on";
    all.back().closeDevice();
    EXPECT_THAT(thrownText<PciError>([&] { all.back().read32(0); }), testing::HasSubstr(" is not open."));
    PciIf first(good.path, SIZE, 0);
    EXPECT_EQ(first.read32(0), 0U);
    EXPECT_EQ(first.getMemSegment().size, SIZE);
}

TEST(PciIf, TruncatedFileReadsAsZeroThenFailsUntilItIsRestored) {
    const MemoryFile file(SIZE);
    const MemoryFile other(SIZE);
    PciIf device(file.path, SIZE, 0);
    PciIf otherDevice(other.path, SIZE, 0);
    otherDevice.write32(0, 3);
    const auto expectLost = [&](auto call, const std::string& reason) {
        EXPECT_EQ(thrownText<PciError>(call), "PCI Error: Cannot access device memory. Device " + file.path +
                                                  " has lost its mapped memory (" + reason + ").");
    };
    for (int round = 0; round < 2; ++round) {
        device.writeBlock32(0, {1, 2});
        file.resize(0);
        EXPECT_EQ(device.read32(0), 0U) << "the access that meets the loss";
        device.restoreMemory();  // the file is still too short
        expectLost([&] { device.write8(0, 1); }, "the file was truncated");
        EXPECT_EQ(otherDevice.read32(0), 3U);
        file.resize(SIZE);  // the zero page is still there, as after a failure of the file system
        expectLost([&] { device.read32(0); }, "its file system is full or had an I/O error");
        device.restoreMemory();
    }
    device.write32(0, 7);
    EXPECT_EQ(PciIf(file.path, SIZE, 0).read32(0), 7U) << "it is the file again, not the zero page";
    file.resize(SIZE - 1);  // within a page: no access meets it
    EXPECT_EQ(device.read32(0), 7U);
    expectLost([&] { device.verifyMemory(); }, "the file was truncated");
    expectLost([&] { device.restoreMemory(), device.read32(0); }, "the file was truncated");
    file.resize(SIZE);
    device.restoreMemory();
    EXPECT_EQ(device.read32(0), 7U);
}

TEST(PciIf, LossIsThatOfItsOwnDeviceWhileOthersComeAndGo) {
    std::atomic<bool> done{false};
    std::thread comesAndGoes([&] {
        const MemoryFile file(SIZE);
        while (!done) {
            EXPECT_EQ(PciIf(file.path, SIZE, 0).read32(0), 0U);
        }
    });
    for (int round = 0; round < 100; ++round) {
        const MemoryFile file(SIZE);
        PciIf device(file.path, SIZE, 0);
        file.resize(SIZE / 2);
        EXPECT_EQ(device.readBlock32(0, SIZE / 4).size(), SIZE / 4) << "several pages are lost in one access";
        EXPECT_THROW(device.read32(0), PciError);
    }
    done = true;
    comesAndGoes.join();
}

/// An exit status that nothing else uses.
constexpr int FORMER_ACTION = 42;

TEST(ForeignBusErrorDeathTest, MeetsTheFormerAction) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    for (const bool isSent : {false, true}) {
        EXPECT_EXIT(
            {
                std::signal(SIGBUS, [](int) { ::_exit(FORMER_ACTION); });
                const MemoryFile file(SIZE);
                const PciIf device(file.path, SIZE, 0);
                const MemoryFile foreign(SIZE);
                auto* memory = static_cast<volatile char*>(
                    ::mmap(nullptr, SIZE, PROT_READ, MAP_SHARED, foreign.descriptor, 0));
                foreign.resize(0);
                isSent ? ::kill(::getpid(), SIGBUS) : memory[0];
            },
            testing::ExitedWithCode(FORMER_ACTION), "");
    }
}

}  // namespace
}  // namespace Vel::Drivers
