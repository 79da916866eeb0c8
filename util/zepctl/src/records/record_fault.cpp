#include "records/record_fault.h"

#include <algorithm>

#include <fmt/format.h>

#include "command_result.h"

namespace Vel::Zepctl {

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
    if (!m_IsStrict && (fault.kind == FaultKind::PcrJump || fault.kind == FaultKind::PcrGap)) {
        return;
    }
    if (entry.count++ == 0) {
        entry.first = fault;
    }
}

bool FaultLog::isEmpty() const {
    return std::ranges::all_of(m_Entries, [](const Entry& entry) { return entry.count == 0; });
}

void FaultLog::requireNone(const std::string& name) const {
    if (!isEmpty()) {
        throw CommandError(StreamFaulty, name + " is faulty");
    }
}

std::string FaultLog::toLines() const {
    std::string lines;
    for (const Entry& entry : m_Entries) {
        if (entry.count != 0) {
            const auto& [kind, record, tsiidx, pid, expected, found] = entry.first;
            const FaultText& text = FAULT_TEXTS[static_cast<std::size_t>(kind)];
            lines +=
                fmt::format("{}; the first at record {} (byte {}): ", formatCount(entry.count, text.name),
                            record, entry.first.getByteOffset());
            lines += fmt::format(fmt::runtime(text.found), tsiidx, pid, expected, found) + '\n';
        }
    }
    return lines;
}

std::string formatCount(std::uint64_t count, const std::string& noun) {
    return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

}  // namespace Vel::Zepctl
