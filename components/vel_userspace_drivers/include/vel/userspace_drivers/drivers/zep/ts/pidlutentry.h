#pragma once

#include <compare>
#include <cstdint>
#include <tuple>

#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"
#include "vel/userspace_drivers/drivers/zep/ts/table_row.h"

namespace Vel::Drivers::Zep {

/// Row of the PID LUT: where the packets of one PID of one input transport stream go. A row read from the
/// table may hold PIDIDX 0, which no setter accepts.
class PidLutEntry final : public TableRow<PidLutEntry, PidLut::TABLE.wordsPerRow> {
public:
    /// A cleared row.
    PidLutEntry() { clear(); }
    /// A row of FiltTabIDX 255.
    /// @param tsiidx 0..255
    /// @param pid 0..8191
    /// @param pidIdx 1..4095
    PidLutEntry(std::uint32_t tsiidx, std::uint32_t pid, std::uint32_t pidIdx, bool outRoute, bool cpuRoute);
    /// @param filtTabIdx 0..255
    PidLutEntry(std::uint32_t tsiidx, std::uint32_t pid, std::uint32_t pidIdx, std::uint32_t filtTabIdx,
                bool outRoute, bool cpuRoute);

    void setTSIIDX(std::uint32_t tsiidx);
    void setPID(std::uint32_t pid);
    void setPIDIDX(std::uint32_t pidIdx);
    void setFiltTabIDX(std::uint32_t filtTabIdx);
    void setCpuRoute(bool cpuRoute) { m_CpuRoute = cpuRoute; }
    void setOutRoute(bool outRoute) { m_OutRoute = outRoute; }

    std::uint32_t getTSIIDX() const { return m_TSIIDX; }
    std::uint32_t getPID() const { return m_PID; }
    std::uint32_t getPIDIDX() const { return m_PIDIDX; }
    std::uint32_t getFiltTabIDX() const { return m_FiltTabIDX; }
    bool isCpuRoute() const { return m_CpuRoute; }
    bool isOutRoute() const { return m_OutRoute; }
    bool isRouted() const { return m_CpuRoute || m_OutRoute; }

    /// TSIIDX 255, PID 8191, PIDIDX 4095, FiltTabIDX 255, no route.
    void clear() override;

    /// By TSIIDX, then by PID.
    friend std::weak_ordering operator<=>(const PidLutEntry& left, const PidLutEntry& right) {
        return std::tie(left.m_TSIIDX, left.m_PID) <=> std::tie(right.m_TSIIDX, right.m_PID);
    }
    /// All fields.
    friend bool operator==(const PidLutEntry& left, const PidLutEntry& right) {
        const auto all = [](const PidLutEntry& row) {
            return std::tie(row.m_TSIIDX, row.m_PID, row.m_PIDIDX, row.m_FiltTabIDX, row.m_CpuRoute,
                            row.m_OutRoute);
        };
        return all(left) == all(right);
    }

private:
    friend TableRow;
    template <class Self, class Visit>
    static void visitFields(Self& row, Visit visit) {
        visit(PidLut::PID, row.m_PID);
        visit(PidLut::TSIIDX, row.m_TSIIDX);
        visit(PidLut::PIDIDX, row.m_PIDIDX);
        visit(PidLut::OUT_ROUTE, row.m_OutRoute);
        visit(PidLut::CPU_ROUTE, row.m_CpuRoute);
        visit(PidLut::FILTTABIDX, row.m_FiltTabIDX);
    }

    std::uint32_t m_TSIIDX = 0;
    std::uint32_t m_PID = 0;
    std::uint32_t m_PIDIDX = 0;
    std::uint32_t m_FiltTabIDX = FILTTABIDX_RANGE.max;
    bool m_CpuRoute = false;
    bool m_OutRoute = false;
};

}  // namespace Vel::Drivers::Zep
