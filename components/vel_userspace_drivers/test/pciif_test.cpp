#include "vel/userspace_drivers/interfaces/pci/pciif.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <thread>

#include "error_text.h"

namespace Vel::Pci {
namespace {

using testing::HasSubstr;

constexpr std::uint32_t SIZE = 16384;
const std::string CANNOT = "PCI Error: Cannot access device memory. Device ";

std::string pciError(auto call) {
    return errorText<PciError>(call);
}

std::size_t openDescriptors() {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

/// A plain file in memory, reachable by a path while this object lives.
class MemoryFile {
public:
    explicit MemoryFile(off_t size) : m_Descriptor(::memfd_create("device", MFD_CLOEXEC)) { resize(size); }
    ~MemoryFile() { ::close(m_Descriptor); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(m_Descriptor); }
    int descriptor() const { return m_Descriptor; }
    void resize(off_t size) const { ASSERT_EQ(::ftruncate(m_Descriptor, size), 0); }

private:
    int m_Descriptor;
};

TEST(PciIf, SharesTheFileWithOtherProcesses) {
    const MemoryFile file(off_t{2} * SIZE);
    PciIf device(file.path(), SIZE, SIZE);
    EXPECT_TRUE(device.isOpen());
    EXPECT_TRUE(device.isMapped());
    EXPECT_EQ(device.getMemSegment().size, SIZE);

    std::uint32_t word = 0xCAFE0001;
    ASSERT_EQ(::pwrite(file.descriptor(), &word, sizeof word, SIZE + 8), 4);
    EXPECT_EQ(device.read32(2), 0xCAFE0001U);
    device.write32(3, 0xCAFE0002);
    ASSERT_EQ(::pread(file.descriptor(), &word, sizeof word, SIZE + 12), 4);
    EXPECT_EQ(word, 0xCAFE0002U);
}

TEST(PciIf, AccessNeedsAnOpenDeviceThenAMapping) {
    const MemoryFile file(SIZE);
    PciIf device(file.path(), 0, 0);
    EXPECT_TRUE(device.isOpen());
    EXPECT_FALSE(device.isMapped());
    EXPECT_EQ(pciError([&] { device.read32(0); }),
              CANNOT + file.path() + " has no memory mapped into user space.");
    device.closeDevice();
    EXPECT_EQ(pciError([&] { device.readBlock8(0, 0); }), CANNOT + file.path() + " is not open.");
}

TEST(PciIf, FailedConstructionNamesTheReasonAndReleasesTheDescriptor) {
    const MemoryFile file(SIZE - 1);
    const std::size_t before = openDescriptors();

    EXPECT_EQ(pciError([] { PciIf("/nonexistent/device", SIZE, 0); }),
              "PCI Error: Could not open device at path: /nonexistent/device. "
              "Error: \"No such file or directory\"");
    EXPECT_EQ(pciError([&] { PciIf(file.path(), SIZE, 0); }),
              "PCI Error: File " + file.path() + " is too short: it has 16383 bytes, but 16384 are needed.");
    EXPECT_THAT(pciError([&] { PciIf(file.path(), 4096, 0xFFFFF000); }),
                HasSubstr("but 4294967296 are needed."));
    EXPECT_EQ(pciError([&] { PciIf(file.path(), 4096, 1); }),
              "PCI Error: Failed mmap of 4096 bytes (offset: 1) from device: " + file.path() + ". ");
    EXPECT_THAT(pciError([&] { PciIf(file.path(), 0x80000000, 0); }), HasSubstr("Failed mmap"));

    EXPECT_EQ(openDescriptors(), before);
}

TEST(PciIf, TruncatedFileReadsAsZeroThenFails) {
    const MemoryFile file(SIZE);
    const MemoryFile other(SIZE);
    PciIf device(file.path(), SIZE, 0);
    PciIf otherDevice(other.path(), SIZE, 0);
    device.writeBlock32(0, {1, 2});
    otherDevice.write32(0, 3);

    file.resize(0);
    EXPECT_EQ(device.read32(1), 0U);
    const std::string lost = CANNOT + file.path() + " has lost its mapped memory (the file was truncated).";
    EXPECT_EQ(pciError([&] { device.read32(0); }), lost);
    EXPECT_EQ(pciError([&] { device.write8(0, 1); }), lost);
    EXPECT_EQ(otherDevice.read32(0), 3U);

    file.resize(SIZE);
    EXPECT_EQ(pciError([&] { device.read32(0); }), lost)
        << "the zero page stays until the mapping is restored";
    EXPECT_TRUE(device.restoreMemory());
    EXPECT_EQ(device.read32(0), 0U);
    EXPECT_FALSE(device.restoreMemory()) << "nothing is lost";
    file.resize(0);
    EXPECT_EQ(device.read32(0), 0U) << "the access that meets the loss reads zeros";
    EXPECT_FALSE(device.restoreMemory()) << "the file does not have its size yet";
    EXPECT_EQ(pciError([&] { device.read32(0); }), lost);
    file.resize(SIZE);
    EXPECT_TRUE(device.restoreMemory());
    device.write32(0, 7);
    EXPECT_EQ(PciIf(file.path(), SIZE, 0).read32(0), 7U) << "it is the file again, not the zero page";
}

TEST(PciIf, LossIsToldToItsOwnDeviceWhileOthersComeAndGo) {
    std::atomic<bool> done{false};
    std::thread comesAndGoes([&] {
        const MemoryFile file(SIZE);
        while (!done) {
            PciIf device(file.path(), SIZE, 0);
            EXPECT_EQ(device.read32(0), 0U);
        }
    });
    for (int round = 0; round < 100; ++round) {
        const MemoryFile file(SIZE);
        PciIf device(file.path(), SIZE, 0);
        file.resize(SIZE / 2);
        EXPECT_EQ(device.readBlock32(0, SIZE / 4).size(), SIZE / 4) << "several pages are lost in one access";
        EXPECT_THROW(device.read32(0), PciError);
    }
    done = true;
    comesAndGoes.join();
}

/// Ends the process with a status of its own, which no other end has.
constexpr int FORMER_ACTION = 42;
void installFormerAction() {
    std::signal(SIGBUS, [](int) { ::_exit(FORMER_ACTION); });
}

class ForeignBusErrorDeathTest : public testing::Test {
protected:
    // Runs each statement in a process of its own that no other test has changed.
    ForeignBusErrorDeathTest() { testing::FLAGS_gtest_death_test_style = "threadsafe"; }

    const MemoryFile m_File{SIZE};
};

TEST_F(ForeignBusErrorDeathTest, FaultOutsideOfAllMappingsMeetsTheFormerAction) {
    EXPECT_EXIT(
        {
            installFormerAction();
            const PciIf device(m_File.path(), SIZE, 0);
            const MemoryFile foreign(SIZE);
            auto* memory = static_cast<volatile char*>(
                ::mmap(nullptr, SIZE, PROT_READ, MAP_SHARED, foreign.descriptor(), 0));
            foreign.resize(0);
            static_cast<void>(memory[0]);
        },
        testing::ExitedWithCode(FORMER_ACTION), "");
}

TEST_F(ForeignBusErrorDeathTest, SentSignalMeetsTheFormerAction) {
    EXPECT_EXIT(
        {
            installFormerAction();
            const PciIf device(m_File.path(), SIZE, 0);
            ::raise(SIGBUS);
        },
        testing::ExitedWithCode(FORMER_ACTION), "");
}

}  // namespace
}  // namespace Vel::Pci
