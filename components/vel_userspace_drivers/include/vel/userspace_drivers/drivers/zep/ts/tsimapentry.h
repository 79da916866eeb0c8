#pragma once

#include <cstdint>

#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"
#include "vel/userspace_drivers/drivers/zep/ts/table_row.h"

namespace Vel::Drivers::Zep {

/// Row of the TSI MAP: the O-PID MAP row at which an input transport stream starts. The row's index in the
/// table is its TSIIDX, so its word does not hold it. No setter enables the row. A row read from the table
/// may hold PIDIDX 0, which no setter accepts.
class TsiMapEntry final : public TableRow<TsiMapEntry, TsiMap::TABLE.wordsPerRow> {
public:
    /// A cleared row.
    TsiMapEntry() { clear(); }
    /// The same for an input stream.
    /// @param tsiidx 0..255
    explicit TsiMapEntry(std::uint32_t tsiidx);
    /// An enabled row.
    /// @param pidIdx 1..4095
    TsiMapEntry(std::uint32_t tsiidx, std::uint32_t pidIdx);

    void setTSIIDX(std::uint32_t tsiidx);
    void setPIDIDX(std::uint32_t pidIdx);

    std::uint32_t getTSIIDX() const { return m_TSIIDX; }
    std::uint32_t getPIDIDX() const { return m_PIDIDX; }
    bool isEnabled() const { return m_Enabled; }

    /// TSIIDX 255, PIDIDX 4095, not enabled.
    void clear() override;

private:
    friend TableRow;
    template <class Self, class Visit>
    static void visitFields(Self& row, Visit visit) {
        visit(TsiMap::PIDIDX, row.m_PIDIDX);
        visit(TsiMap::ENABLED, row.m_Enabled);
    }

    std::uint32_t m_TSIIDX = 0;
    std::uint32_t m_PIDIDX = 0;
    bool m_Enabled = false;
};

}  // namespace Vel::Drivers::Zep
