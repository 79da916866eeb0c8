#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "records/record_check.h"
#include "records/record_terminal.h"

namespace Vel::Zepctl {

/// The result of a check for people: a table with a line for each input and PID, then a line for each kind of
/// fault, or one that says that there is none.
std::string formatReport(const std::string& name, const RecordCheck& check, const Colours& colours);

/// The same for machines. JSON_KEYS says what is in it.
nlohmann::ordered_json makeJsonReport(const std::string& name, const RecordCheck& check);

/// Describes the object that makeJsonReport() gives, for the help text.
inline constexpr const char* JSON_KEYS =
    R"(  file      name, or "standard input"
  records   whole records, faulty ones included
  ok        false if any of the faults below occurred
  faults    continuity_errors, transport_errors, bad_sync, unknown_tsiidx, torn_record,
            each with count and first: null, or record (the first one is 0), byte (of its
            first byte), tsiidx, pid, expected, found (tsiidx null in a torn record, pid
            null but for the first two)
  inputs    one each TSIIDX: tsiidx, packets, continuity_errors, pcr_pid (or null),
            bit_rate, and pids: one each PID: pid, packets, continuity_errors, scrambled,
            transport_errors, pcrs, bit_rate (in bit/s, or null))";

}  // namespace Vel::Zepctl
