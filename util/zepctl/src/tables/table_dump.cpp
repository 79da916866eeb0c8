#include "tables/table_dump.h"

#include <algorithm>
#include <array>
#include <ostream>
#include <sstream>
#include <variant>

#include "command_error.h"
#include "vel/cpp_utils/assertion.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/iplut_diag.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/pidlut_diag.h"
#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"

namespace Vel::Zepctl {

namespace {

namespace Zep = Drivers::Zep;

using PlainDump = void (*)(Drivers::IMemIf&, std::uint32_t first, std::uint32_t count, bool includeAll,
                           std::ostream&);
using BankedDump = void (*)(Drivers::IMemIf&, std::uint32_t first, std::uint32_t count, std::uint32_t bank,
                            bool includeAll, std::ostream&);

struct DumpSpec {
    const char* name;
    bool isTsio;
    std::uint32_t first;  ///< row
    std::uint32_t rows;
    std::variant<PlainDump, BankedDump> dump;
};

const std::array<DumpSpec, 7> DUMPS = {{
    {"iplut", true, 0, Zep::IpLut::TABLE.rows, Zep::dumpIpLut},
    {"physinmap", true, 0, Zep::PhysInMap::TABLE.rows, Zep::dumpPhysInMap},
    {"ipout", true, 0, Zep::IpOutTable::TABLE.rows, Zep::dumpIpOutTable},
    {"physoutmap", true, 0, Zep::PhysOutMap::TABLE.rows, Zep::dumpPhysOutMap},
    {"pidlut", false, 0, Zep::PidLut::TABLE.rows, Zep::dumpPidLut},
    {"tsimap", false, 0, Zep::TsiMap::TABLE.rows, Zep::dumpTsiMap},
    {"opidmap", false, 1, Zep::OPidMap::TABLE.rows, Zep::dumpOPidMap},
}};

}  // namespace

std::vector<std::string> dumpTableNames() {
    std::vector<std::string> names;
    std::ranges::transform(DUMPS, std::back_inserter(names), &DumpSpec::name);
    return names;
}

std::string dumpTable(const std::string& tableName, const DumpRange& range, const Device& tsio,
                      const Device& router) {
    const auto* spec = std::ranges::find(DUMPS, tableName, &DumpSpec::name);
    VEL_ASSERT(spec != DUMPS.end());
    const std::uint32_t first = range.first.value_or(spec->first);
    if (first >= spec->rows) {
        throw CommandError(WRONG_USE, "--first " + std::to_string(first) + " is not a row of the table " +
                                          tableName + ", whose last is " + std::to_string(spec->rows - 1));
    }
    const std::uint32_t count = range.count.value_or(spec->rows - first);
    LockedDevice device(spec->isTsio ? tsio : router);
    std::ostringstream lines;
    if (const auto* banked = std::get_if<BankedDump>(&spec->dump)) {
        (*banked)(device.memory(), first, count, range.bank.value_or(0), range.includeAll, lines);
    } else if (range.bank) {
        throw CommandError(WRONG_USE, "The table " + tableName + " has no banks, so --bank " +
                                          std::to_string(*range.bank) + " cannot be shown");
    } else {
        std::get<PlainDump>(spec->dump)(device.memory(), first, count, range.includeAll, lines);
    }
    return lines.str();
}

}  // namespace Vel::Zepctl
