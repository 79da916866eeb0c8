#include "vel/userspace_drivers/interfaces/pci/pciif.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "mapping_guard.h"
#include "vel/cpp_utils/text.h"

namespace Vel::Pci {

PciIf::PciIf(const std::string& path, std::uint32_t size, std::uint32_t offset)
    : m_Path(path), m_MapSize(static_cast<std::int32_t>(size)), m_MapOffset(offset) {
    openDevice();
    if (size == 0) {
        return;
    }
    try {
        mapMemory();
    } catch (...) {
        closeDevice();
        throw;
    }
}

PciIf::~PciIf() {
    closeDevice();
}

std::string PciIf::displayName() const {
    return CppUtil::escapeControls(m_Path);
}

void PciIf::openDevice() {
    m_File = CppUtil::FileDescriptor(::open(m_Path.c_str(), O_RDWR | O_CLOEXEC | O_NOCTTY));
    if (!m_File.isOpen()) {
        const std::string reason = CppUtil::errnoText(errno);
        throw PciError("Could not open device at path: " + displayName() + ". Error: \"" + reason + "\"");
    }
}

void PciIf::mapMemory() {
    if (const std::int64_t missing = getMissingBytes(); missing > 0) {
        const std::int64_t needed = std::int64_t{m_MapOffset} + m_MapSize;
        throw PciError("File " + displayName() + " is too short: it has " + std::to_string(needed - missing) +
                       " bytes, but " + std::to_string(needed) + " are needed.");
    }
    // A size of 2 GiB and more is stored as a negative number. With 32-bit addresses it could be mapped by
    // chance.
    const auto length = static_cast<std::size_t>(m_MapSize);
    void* base = m_MapSize < 0 ? MAP_FAILED
                               : ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, m_File.get(),
                                        static_cast<off_t>(m_MapOffset));
    if (base == MAP_FAILED || base == nullptr) {
        throw PciError("Failed mmap of " + std::to_string(m_MapSize) + " bytes (offset: " +
                       std::to_string(m_MapOffset) + ") from device: " + displayName() + ". ");
    }
    m_MapBase = base;
    m_Guard = std::make_unique<MappingGuard>(base, length);
}

std::int64_t PciIf::getMissingBytes() const {
    struct stat status {};
    if (::fstat(m_File.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return 0;
    }
    return std::max<std::int64_t>(std::int64_t{m_MapOffset} + m_MapSize - status.st_size, 0);
}

void PciIf::restoreMemory() {
    if (!isMapped() || !m_Guard->isLost() || getMissingBytes() > 0) {
        return;
    }
    // If this fails, the range may be unmapped; the region stays marked as lost, so nothing accesses it.
    if (::mmap(m_MapBase, static_cast<std::size_t>(m_MapSize), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED,
               m_File.get(), static_cast<off_t>(m_MapOffset)) != MAP_FAILED) {
        m_Guard->setLost(false);
    }
}

void PciIf::closeDevice() {
    m_Guard.reset();
    if (isMapped()) {
        ::munmap(m_MapBase, static_cast<std::size_t>(m_MapSize));
        m_MapBase = nullptr;
    }
    m_File = CppUtil::FileDescriptor();
}

Drivers::MemSegment PciIf::getMemSegment() const {
    return {.size = m_MapSize < 0 ? 0 : static_cast<std::uint32_t>(m_MapSize),
            .base = static_cast<std::uint8_t*>(m_MapBase)};
}

void PciIf::checkAccessible() const {
    const char* reason = nullptr;
    if (!isOpen()) {
        reason = " is not open.";
    } else if (!isMapped()) {
        reason = " has no memory mapped into user space.";
    } else if (m_Guard->isLost()) {
        // A file that still has its size loses a page when a hole in it cannot be filled or a read fails.
        reason = getMissingBytes() > 0
                     ? " has lost its mapped memory (the file was truncated)."
                     : " has lost its mapped memory (its file system is full or had an I/O error).";
    } else {
        return;
    }
    throw PciError("Cannot access device memory. Device " + displayName() + reason);
}

void PciIf::verifyMemory() const {
    if (isMapped() && getMissingBytes() > 0) {
        m_Guard->setLost(true);
    }
    checkAccessible();
}

}  // namespace Vel::Pci
