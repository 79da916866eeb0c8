#include "records/record_report.h"

#include <cmath>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace Vel::Zepctl {

namespace {

using Json = nlohmann::ordered_json;

std::string formatRow(std::uint32_t tsiidx, const std::string& pid, const PacketCounts& counts,
                      const RecordInput& input) {
    return fmt::format("{:6}  {:>6}  {:10}  {:10}  {:9}  {:9}  {:6}  {:>9}\n", tsiidx, pid, counts.packets,
                       counts.continuityErrors, counts.scrambled, counts.transportErrors, counts.pcrs,
                       formatBitRate(input.getBitRate(counts.timedPackets)));
}

Json jsonOf(const FaultLog::Entry& entry) {
    const auto& [kind, record, tsiidx, pid, expected, found] = entry.first;
    if (entry.count == 0) {
        return {{"count", 0}, {"first", nullptr}};
    }
    const bool hasPid = kind < FaultKind::BadSync;
    return {{"count", entry.count},
            {"first",
             {{"record", record},
              {"byte", entry.first.getByteOffset()},
              {"tsiidx", kind == FaultKind::TornRecord ? Json() : Json(tsiidx)},
              {"pid", hasPid ? Json(pid) : Json()},
              {"expected", expected},
              {"found", found}}}};
}

}  // namespace

Json jsonOf(std::optional<double> bitRate) {
    return bitRate ? Json(std::llround(*bitRate)) : Json();
}

Json jsonOf(std::uint32_t tsiidx, const RecordInput& input) {
    Json pids = Json::array();
    for (const auto& [number, pid] : input.getPids()) {
        pids.push_back({{"pid", number},
                        {"packets", pid.counts.packets},
                        {"continuity_errors", pid.counts.continuityErrors},
                        {"scrambled", pid.counts.scrambled},
                        {"transport_errors", pid.counts.transportErrors},
                        {"pcrs", pid.counts.pcrs},
                        {"bit_rate", jsonOf(input.getBitRate(pid.counts.timedPackets))}});
    }
    const PacketCounts& total = input.getTotal();
    const auto pcrPid = input.getPcrPid();
    return {{"tsiidx", tsiidx},
            {"packets", total.packets},
            {"continuity_errors", total.continuityErrors},
            {"pcr_jumps", input.getTime().jumps},
            {"pcr_gaps", input.getTime().gaps},
            {"pcr_pid", pcrPid ? Json(*pcrPid) : Json()},
            {"bit_rate", jsonOf(input.getBitRate(total.timedPackets))},
            {"pids", std::move(pids)}};
}

std::string formatReport(const std::string& name, const RecordCheck& check) {
    const FaultLog& faults = check.getFaults();
    std::string text;
    if (!check.getInputs().empty()) {
        text += "TSIIDX     PID     PACKETS  CONTINUITY  SCRAMBLED  TRANSPORT    PCRS     KBIT/S\n";
    }
    std::string clocks;
    for (const auto& [tsiidx, input] : check.getInputs()) {
        if (const auto& time = input.getTime(); time.jumps + time.gaps != 0) {
            clocks +=
                fmt::format("TSIIDX {}: {}, {} above 100 ms\n", tsiidx, formatCount(time.jumps, "PCR jump"),
                            formatCount(time.gaps, "PCR distance"));
        }
        for (const auto& [number, pid] : input.getPids()) {
            text += formatRow(tsiidx, fmt::format("0x{:04x}", number), pid.counts, input);
        }
        text += formatRow(tsiidx, "all", input.getTotal(), input);
    }
    text += clocks;
    if (!faults.isEmpty()) {
        return text + faults.toLines();
    }
    if (faults.getRecords() == 0) {
        return name + " is empty: no records\n";
    }
    return text + fmt::format("{}: {}, no faults\n", name, formatCount(faults.getRecords(), "record"));
}

std::string formatJsonReport(const std::string& name, const RecordCheck& check,
                             std::optional<Seconds> watched) {
    const FaultLog& faults = check.getFaults();
    Json inputs = Json::array();
    for (const auto& [tsiidx, input] : check.getInputs()) {
        inputs.push_back(jsonOf(tsiidx, input));
    }
    Json kinds;
    for (std::size_t kind = 0; kind < FAULT_TEXTS.size(); ++kind) {
        kinds[FAULT_TEXTS[kind].key] = jsonOf(faults.get(static_cast<FaultKind>(kind)));
    }
    Json report = {{"file", name},
                   {"records", faults.getRecords()},
                   {"ok", faults.isEmpty()},
                   {"faults", std::move(kinds)},
                   {"inputs", std::move(inputs)}};
    if (watched) {
        report["seconds"] = watched->count();
    }
    // A file name may not be valid UTF-8.
    return report.dump(watched ? -1 : 2, ' ', false, Json::error_handler_t::replace) + '\n';
}

std::string formatBitRate(std::optional<double> bitRate) {
    constexpr double BITS_PER_KBIT = 1000;
    return bitRate ? fmt::format("{:.1f}", *bitRate / BITS_PER_KBIT) : "-";
}

}  // namespace Vel::Zepctl
