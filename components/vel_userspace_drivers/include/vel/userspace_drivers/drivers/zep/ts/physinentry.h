#pragma once

#include <cstdint>

#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"
#include "vel/userspace_drivers/drivers/zep/ts/table_row.h"

namespace Vel::Drivers::Zep {

/// Row of the PHYS IN MAP: the input transport stream that a physical input feeds. The row's index in the
/// table is its PHYIIDX, so its word does not hold it. A row read from the table may hold a TSIIDX that no
/// setter accepts.
class PhysInEntry final : public TableRow<PhysInEntry, PhysInMap::TABLE.wordsPerRow> {
public:
    /// A cleared row.
    PhysInEntry() { clear(); }
    /// A physical input that feeds no input stream.
    /// @param phyiIdx 0..63
    explicit PhysInEntry(std::uint32_t phyiIdx) : PhysInEntry(phyiIdx, NO_TSIIDX) {}
    /// @param tsiidx 0..255, 255 for none
    PhysInEntry(std::uint32_t phyiIdx, std::uint32_t tsiidx);

    void setPHYIIDX(std::uint32_t phyiIdx);
    void setTSIIDX(std::uint32_t tsiidx);

    std::uint32_t getPHYIIDX() const { return m_PHYIIDX; }
    std::uint32_t getTSIIDX() const { return m_TSIIDX; }

    /// TSIIDX 255, PHYIIDX 31.
    void clear() override;

private:
    friend TableRow;
    template <class Self, class Visit>
    static void visitFields(Self& row, Visit visit) {
        visit(PhysInMap::TSIIDX, row.m_TSIIDX);
    }

    std::uint32_t m_PHYIIDX = NO_PHYIIDX;
    std::uint32_t m_TSIIDX = NO_TSIIDX;
};

}  // namespace Vel::Drivers::Zep
