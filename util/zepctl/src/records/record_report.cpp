#include "records/record_report.h"

#include <fmt/format.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <optional>

#include "records/record_text.h"

namespace Vel::Zepctl {

namespace {

/// One line of the table: an input's total, or one of its PIDs.
struct Row {
    PidStatistics sum;
    std::optional<double> bitRate;
};

Row totalOf(const RecordInput& input, const std::vector<PidStatistics>& pids) {
    Row total;
    for (const PidStatistics& pid : pids) {
        total.sum.packets += pid.packets;
        total.sum.continuityErrors += pid.continuityErrors;
        total.sum.scrambled += pid.scrambled;
        total.sum.transportErrors += pid.transportErrors;
        total.sum.pcrs += pid.pcrs;
        total.sum.timedPackets += pid.timedPackets;
    }
    total.bitRate = input.getBitRate(total.sum.timedPackets);
    return total;
}

std::string faultCell(std::uint64_t count, int width, const Colours& colours) {
    const std::string cell = fmt::format("{:{}}", count, width);
    return count == 0 ? cell : colours.bad + cell + colours.off;
}

std::string formatRow(std::uint32_t tsiidx, const std::string& pid, const Row& row, const Colours& colours) {
    return fmt::format("{:6}  {:>6}  {:10}  {}  {:9}  {}  {:6}  {:>9}\n", tsiidx, pid, row.sum.packets,
                       faultCell(row.sum.continuityErrors, 10, colours), row.sum.scrambled,
                       faultCell(row.sum.transportErrors, 9, colours), row.sum.pcrs,
                       formatBitRate(row.bitRate));
}

nlohmann::ordered_json jsonOf(std::optional<double> bitRate) {
    return bitRate ? nlohmann::ordered_json(std::llround(*bitRate)) : nlohmann::ordered_json();
}

nlohmann::ordered_json jsonOf(const FaultLog::Entry& entry) {
    nlohmann::ordered_json result = {{"count", entry.count}, {"first", nullptr}};
    if (entry.count != 0) {
        const Fault& first = entry.first;
        nlohmann::ordered_json& place = result["first"];
        place = {{"record", first.record}, {"byte", first.getByteOffset()}, {"tsiidx", first.tsiidx},
                 {"pid", nullptr},         {"expected", first.expected},    {"found", first.found}};
        if (first.kind == FaultKind::Continuity || first.kind == FaultKind::TransportError) {
            place["pid"] = first.pid;
        }
        if (first.kind == FaultKind::TornRecord) {
            place["tsiidx"] = nullptr;
        }
    }
    return result;
}

nlohmann::ordered_json jsonOf(const RecordInput& input) {
    const std::vector<PidStatistics> pids = input.getPids();
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const PidStatistics& pid : pids) {
        list.push_back({{"pid", pid.pid},
                        {"packets", pid.packets},
                        {"continuity_errors", pid.continuityErrors},
                        {"scrambled", pid.scrambled},
                        {"transport_errors", pid.transportErrors},
                        {"pcrs", pid.pcrs},
                        {"bit_rate", jsonOf(input.getBitRate(pid.timedPackets))}});
    }
    const auto pcrPid = input.getPcrPid();
    return {{"tsiidx", input.getTsiidx()},
            {"packets", input.getPackets()},
            {"continuity_errors", input.getContinuityErrors()},
            {"pcr_pid", pcrPid ? nlohmann::ordered_json(*pcrPid) : nlohmann::ordered_json()},
            {"bit_rate", jsonOf(totalOf(input, pids).bitRate)},
            {"pids", std::move(list)}};
}

}  // namespace

std::string formatReport(const std::string& name, const RecordCheck& check, const Colours& colours) {
    const std::vector<const RecordInput*> inputs = check.getInputs();
    std::string text;
    if (!inputs.empty()) {
        text += "TSIIDX     PID     PACKETS  CONTINUITY  SCRAMBLED  TRANSPORT    PCRS     KBIT/S\n";
    }
    for (const RecordInput* input : inputs) {
        const std::vector<PidStatistics> pids = input->getPids();
        for (const PidStatistics& pid : pids) {
            text += formatRow(input->getTsiidx(), fmt::format("0x{:04x}", pid.pid),
                              {pid, input->getBitRate(pid.timedPackets)}, colours);
        }
        text += formatRow(input->getTsiidx(), "all", totalOf(*input, pids), colours);
    }
    if (!check.getFaults().isEmpty()) {
        return text + colours.bad + check.getFaults().toLines() + colours.off;
    }
    if (check.getRecords() == 0) {
        return text + fmt::format("{} is empty: no record, no fault\n", name);
    }
    return text + fmt::format("{}{} is right: {}, no fault{}\n", colours.good, name,
                              formatCount(check.getRecords(), "record"), colours.off);
}

nlohmann::ordered_json makeJsonReport(const std::string& name, const RecordCheck& check) {
    const FaultLog& faults = check.getFaults();
    nlohmann::ordered_json inputs = nlohmann::ordered_json::array();
    for (const RecordInput* input : check.getInputs()) {
        inputs.push_back(jsonOf(*input));
    }
    return {{"file", name},
            {"records", check.getRecords()},
            {"ok", faults.isEmpty()},
            {"faults",
             {{"continuity_errors", jsonOf(faults.get(FaultKind::Continuity))},
              {"transport_errors", jsonOf(faults.get(FaultKind::TransportError))},
              {"bad_sync", jsonOf(faults.get(FaultKind::BadSync))},
              {"unknown_tsiidx", jsonOf(faults.get(FaultKind::UnknownTsiidx))},
              {"torn_record", jsonOf(faults.get(FaultKind::TornRecord))}}},
            {"inputs", std::move(inputs)}};
}

}  // namespace Vel::Zepctl
