#include "tables/route_table.h"

#include <algorithm>
#include <compare>

#include <fmt/format.h>

#include "command_result.h"
#include "vel/cpp_utils/assertion.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/pidlut_diag.h"

namespace Vel::Zepctl {

using Drivers::Zep::PidLutEntry;
namespace PidLut = Drivers::Zep::PidLut;

static_assert(PidLut::TABLE.rows < Drivers::Zep::PIDIDX_RANGE.max);

std::string formatRoute(const PidLutEntry& route) {
    // `add` refuses PIDIDX 0, which only other software writes.
    const std::string pididx = route.getPIDIDX() == 0 ? "" : fmt::format(" --pididx {}", route.getPIDIDX());
    return fmt::format("{} 0x{:04x}{}{}{} --filter {}", route.getTSIIDX(), route.getPID(),
                       route.isOutRoute() ? " --out" : "", route.isCpuRoute() ? "" : " --no-cpu", pididx,
                       route.getFiltTabIDX());
}

RouteTable::RouteTable(Drivers::IMemIf& memory)
    : m_Memory(memory), m_Routes(Drivers::Zep::readPidLut(memory, 0, Drivers::Zep::getPidLutSize(), false)) {
    m_Memory.verifyMemory();
}

std::uint32_t RouteTable::findFreePididx() const {
    std::uint32_t pididx = Drivers::Zep::PIDIDX_RANGE.min;
    while (std::ranges::find(m_Routes, pididx, &PidLutEntry::getPIDIDX) != m_Routes.end()) {
        ++pididx;
    }
    return pididx;
}

void RouteTable::add(const PidLutEntry& route) {
    VEL_ASSERT(route.isRouted());
    for (const PidLutEntry& other : m_Routes) {
        if (std::is_eq(other <=> route)) {
            throw CommandError(WrongUse, "The PID already has a route: " + formatRoute(other));
        }
    }
    if (m_Routes.size() >= PidLut::TABLE.rows) {
        throw CommandError(WrongUse,
                           fmt::format("The PID LUT is full: all {} rows are in use", m_Routes.size()));
    }
    m_Routes.push_back(route);
    write();
}

void RouteTable::remove(std::uint32_t tsiidx, std::uint32_t pid) {
    const auto removed = std::erase_if(m_Routes, [&](const PidLutEntry& route) {
        return route.getTSIIDX() == tsiidx && route.getPID() == pid;
    });
    if (removed == 0) {
        throw CommandError(WrongUse,
                           fmt::format("There is no route for TSIIDX {}, PID 0x{:04x}", tsiidx, pid));
    }
    write();
}

void RouteTable::clear() {
    m_Routes.clear();
    write();
}

void RouteTable::write() {
    std::stable_sort(m_Routes.begin(), m_Routes.end());
    std::vector<PidLutEntry> rows = m_Routes;
    rows.resize(PidLut::TABLE.rows);
    std::vector<std::uint32_t> words;
    for (PidLutEntry& row : rows) {
        row.toWords();
        words.insert(words.end(), row.getWords().begin(), row.getWords().end());
    }
    m_Memory.writeBlock32(Drivers::Zep::getPidLutBase(m_Memory, 1), words);

    const std::uint32_t select = PidLut::BANK_SELECT.place(1);
    m_Memory.write32(PidLut::BANK_SELECT.word, m_Memory.read32(PidLut::BANK_SELECT.word) ^ select);
    m_Memory.verifyMemory();
}

}  // namespace Vel::Zepctl
