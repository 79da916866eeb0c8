#include "records/record_fault.h"

#include <algorithm>

#include <fmt/format.h>

namespace Vel::Zepctl {

namespace {

/// One fault of each kind, in the order of FaultKind.
constexpr std::array<const char*, FAULT_KINDS> KIND_NAMES = {
    "continuity error", "transport error", "bad sync byte", "unknown TSIIDX value", "torn record"};

}  // namespace

std::string Fault::toString() const {
    std::string place = fmt::format("record {} (byte {}): ", record, getByteOffset());
    const std::string packet = fmt::format("TSIIDX {}, PID 0x{:04x}: ", tsiidx, pid);
    switch (kind) {
        case FaultKind::Continuity:
            return place + packet + fmt::format("continuity counter {}, expected {}", found, expected);
        case FaultKind::TransportError:
            return place + packet + "transport_error_indicator is set";
        case FaultKind::BadSync:
            return place +
                   fmt::format("TSIIDX {}: sync byte 0x{:02x}, expected 0x{:02x}", tsiidx, found, expected);
        case FaultKind::UnknownTsiidx:
            return place + fmt::format("TSIIDX {}, allowed 0..{}", found, expected);
        case FaultKind::TornRecord:
            return place + fmt::format("ends after {} of {} bytes", found, expected);
    }
    return place;
}

bool FaultLog::addRecord(const RecordView& record) {
    ++m_Records;
    const std::uint32_t tsiidx = record.getTsiidx();
    if (tsiidx > MAX_TSIIDX) {
        add(FaultKind::UnknownTsiidx, record, MAX_TSIIDX, tsiidx);
        return false;
    }
    if (!record.hasSyncByte()) {
        add(FaultKind::BadSync, record, Ts::SYNC_BYTE, *record.getDataPtr());
        return false;
    }
    return true;
}

void FaultLog::add(FaultKind kind, const RecordView& record, std::uint32_t expected, std::uint32_t found) {
    add({kind, m_Records - 1, record.getTsiidx(), record.getPid(), expected, found});
}

void FaultLog::addTornRecord(std::size_t bytes) {
    if (bytes != 0) {
        add({FaultKind::TornRecord, m_Records, 0, 0, Ts::RECORD_SIZE, static_cast<std::uint32_t>(bytes)});
    }
}

void FaultLog::add(const Fault& fault) {
    Entry& entry = m_Entries[static_cast<std::size_t>(fault.kind)];
    if (entry.count++ == 0) {
        entry.first = fault;
    }
}

bool FaultLog::isEmpty() const {
    return std::ranges::all_of(m_Entries, [](const Entry& entry) { return entry.count == 0; });
}

std::string FaultLog::toLines() const {
    std::string lines;
    for (const Entry& entry : m_Entries) {
        if (entry.count != 0) {
            const char* name = KIND_NAMES[static_cast<std::size_t>(entry.first.kind)];
            lines += formatCount(entry.count, name) + "; the first at " + entry.first.toString() + '\n';
        }
    }
    return lines;
}

std::string formatCount(std::uint64_t count, const std::string& noun) {
    return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

}  // namespace Vel::Zepctl
