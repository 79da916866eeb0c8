#include <algorithm>
#include <array>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "command_line.h"
#include "command_result.h"
#include "commands.h"
#include "tables/device.h"
#include "vel/cpp_utils/assertion.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/iplut_diag.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/pidlut_diag.h"
#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"

namespace Vel::Zepctl {

namespace {

namespace Zep = Drivers::Zep;

using Dump = void (*)(Drivers::IMemIf&, std::uint32_t first, std::uint32_t count, std::uint32_t bank,
                      bool includeAll, std::ostream&);

template <auto DUMP>
void withoutBank(Drivers::IMemIf& memory, std::uint32_t first, std::uint32_t count, std::uint32_t /*bank*/,
                 bool includeAll, std::ostream& output) {
    DUMP(memory, first, count, includeAll, output);
}

struct DumpSpec {
    const char* name;
    bool isTsio;
    std::uint32_t first;  ///< row
    std::uint32_t rows;
    Dump dump;
};

const std::array<DumpSpec, 7> DUMPS = {{
    {"iplut", true, 0, Zep::IpLut::TABLE.rows, Zep::dumpIpLut},
    {"physinmap", true, 0, Zep::PhysInMap::TABLE.rows, withoutBank<Zep::dumpPhysInMap>},
    {"ipout", true, 0, Zep::IpOutTable::TABLE.rows, withoutBank<Zep::dumpIpOutTable>},
    {"physoutmap", true, 0, Zep::PhysOutMap::TABLE.rows, withoutBank<Zep::dumpPhysOutMap>},
    {"pidlut", false, 0, Zep::PidLut::TABLE.rows, Zep::dumpPidLut},
    {"tsimap", false, 0, Zep::TsiMap::TABLE.rows, withoutBank<Zep::dumpTsiMap>},
    {"opidmap", false, 1, Zep::OPidMap::TABLE.rows, withoutBank<Zep::dumpOPidMap>},
}};

/// The lines of the requested rows of a table, read from the device that holds it.
std::string dumpTable(const Arguments& args) {
    const auto* spec = std::ranges::find(DUMPS, args.table, &DumpSpec::name);
    VEL_ASSERT(spec != DUMPS.end());
    const std::uint32_t first = args.firstRow.value_or(spec->first);
    if (first >= spec->rows) {
        throw CommandError(WrongUse, fmt::format("--first {} is beyond the last row ({}) of {}", first,
                                                 spec->rows - 1, spec->name));
    }
    if (args.bank && spec->dump != Zep::dumpPidLut) {
        throw CommandError(WrongUse, fmt::format("--bank {}: {} has no banks", *args.bank, spec->name));
    }
    const std::uint32_t count = args.rowCount.value_or(spec->rows - first);
    LockedDevice device(spec->isTsio ? args.tsio : args.router,
                        spec->isTsio ? Zep::TSIO_DEVICE : Zep::ROUTER_DEVICE, Access::Read);
    std::ostringstream lines;
    spec->dump(device.memory(), first, count, args.bank.value_or(0), args.allRows, lines);
    device.memory().verifyMemory();
    return lines.str();
}

/// An array with an object for each line "ROW (0xWORD): KEY:VALUE, KEY:VALUE".
std::string toJson(const std::string& dumped) {
    auto rows = nlohmann::ordered_json::array();
    std::istringstream lines(dumped);
    for (std::string line; std::getline(lines, line);) {
        const auto numberOf = [](const std::string& text) {
            return std::stoul(text, nullptr, text.starts_with("0x") ? 16 : 10);
        };
        nlohmann::ordered_json row = {{"row", numberOf(line)},
                                      {"word", numberOf(line.substr(line.find('(') + 1))}};
        std::istringstream fields(line.substr(line.find(": ") + 1));
        for (std::string field; std::getline(fields >> std::ws, field, ',');) {
            const std::string value = field.substr(field.find(':') + 1);
            auto& item = row[CLI::detail::to_lower(field.substr(0, field.find(':')))];
            if (value == "YES" || value == "NO") {
                item = value == "YES";
            } else if (value.find_first_of(".:") == std::string::npos) {
                item = numberOf(value);
            } else {  // an address
                item = value;
            }
        }
        rows.push_back(std::move(row));
    }
    return rows.dump(2) + '\n';
}

}  // namespace

void declareDump(CLI::App& app, Arguments& args) {
    std::vector<std::string> names;
    std::ranges::transform(DUMPS, std::back_inserter(names), &DumpSpec::name);
    constexpr std::uint32_t ROWS = Zep::OPidMap::TABLE.rows;  // of the longest table
    CLI::App& dump = declareCommand(
        app, "dump", "Print the rows of a table that are not empty",
        "An empty row of pidlut or physinmap holds a fill value, not zeros. An all-zero row is therefore\n"
        "printed. In pidlut it routes nothing; in physinmap it is in use and feeds input 0.\n\n"
        "Example: zepctl dump iplut\n         zepctl dump pidlut --first 0 --count 16 --all --bank 1",
        [&] { printOutput(args.json ? toJson(dumpTable(args)) : dumpTable(args)); });
    dump.add_option("TABLE", args.table, "the table")->required()->check(CLI::IsMember(names));
    addNumber(dump, "--first", args.firstRow, {0, ROWS - 1}, "first row (default: first row of the table)");
    addNumber(dump, "--count", args.rowCount, {0, ROWS}, "number of rows to read (default: all that follow)");
    addNumber(dump, "--bank", args.bank, {0, 1},
              "bank of pidlut; 0: in use (default), 1: the other, whatever the value of the bank select bit");
    dump.add_flag("--all", args.allRows, "also print empty rows");
    dump.add_flag("--json", args.json, "print a JSON array with an object for each row");
}

}  // namespace Vel::Zepctl
