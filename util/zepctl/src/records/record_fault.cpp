#include "records/record_fault.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "records/record_text.h"

namespace Vel::Zepctl {

namespace {

/// One of a kind; more are told with an "s".
std::string_view nameOf(FaultKind kind) {
    switch (kind) {
        case FaultKind::Continuity:
            return "continuity error";
        case FaultKind::TransportError:
            return "transport error";
        case FaultKind::BadSync:
            return "bad sync byte";
        case FaultKind::UnknownTsiidx:
            return "unknown TSIIDX value";
        case FaultKind::TornRecord:
            return "torn record";
    }
    return "";
}

}  // namespace

std::string Fault::toString() const {
    std::string place = fmt::format("record {} (byte {}): ", record, getByteOffset());
    switch (kind) {
        case FaultKind::Continuity:
            return place + fmt::format("TSIIDX {}, PID 0x{:04x}: continuity counter {}, expected {}", tsiidx,
                                       pid, found, expected);
        case FaultKind::TransportError:
            return place +
                   fmt::format("TSIIDX {}, PID 0x{:04x}: transport_error_indicator is set", tsiidx, pid);
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

std::optional<Fault> findRecordFault(const RecordView& record, std::uint64_t index) {
    const std::uint32_t tsiidx = record.getTsiidx();
    if (tsiidx >= Ts::TSIIDX_COUNT) {
        return Fault{FaultKind::UnknownTsiidx, index, tsiidx, 0, Ts::TSIIDX_COUNT - 1, tsiidx};
    }
    if (!record.hasSyncByte()) {
        return Fault{FaultKind::BadSync, index, tsiidx, 0, Ts::SYNC_BYTE, *record.getDataPtr()};
    }
    return std::nullopt;
}

void FaultLog::add(const Fault& fault) {
    Entry& entry = m_Entries[static_cast<std::size_t>(fault.kind)];
    if (entry.count++ == 0) {
        entry.first = fault;
    }
}

void FaultLog::addTornRecord(std::uint64_t index, std::size_t bytes) {
    if (bytes != 0) {
        add({FaultKind::TornRecord, index, 0, 0, Ts::RECORD_SIZE, static_cast<std::uint32_t>(bytes)});
    }
}

bool FaultLog::isEmpty() const {
    return std::all_of(m_Entries.begin(), m_Entries.end(),
                       [](const Entry& entry) { return entry.count == 0; });
}

std::string FaultLog::toString() const {
    std::string counts;
    const Fault* first = nullptr;
    for (const FaultKind kind : FAULT_KINDS) {
        const Entry& entry = get(kind);
        if (entry.count == 0) {
            continue;
        }
        counts += (counts.empty() ? "" : ", ") + formatCount(entry.count, nameOf(kind));
        if (first == nullptr || entry.first.record < first->record) {
            first = &entry.first;
        }
    }
    return first == nullptr ? "" : counts + "; the first at " + first->toString();
}

std::string FaultLog::toLines() const {
    std::string lines;
    for (const FaultKind kind : FAULT_KINDS) {
        if (const Entry& entry = get(kind); entry.count != 0) {
            lines += fmt::format("{}; the first at {}\n", formatCount(entry.count, nameOf(kind)),
                                 entry.first.toString());
        }
    }
    return lines;
}

}  // namespace Vel::Zepctl
