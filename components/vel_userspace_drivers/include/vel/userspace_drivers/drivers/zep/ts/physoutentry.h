#pragma once

#include <cstdint>

#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"
#include "vel/userspace_drivers/drivers/zep/ts/table_row.h"

namespace Vel::Drivers::Zep {

/// Row of the PHYS OUT MAP: the physical output of an output transport stream. The row's index in the table
/// is its TSOIDX, so its word does not hold it. No setter enables the row. A row that is cleared, or read
/// from the table, may hold a PHYOIDX that no setter accepts.
class PhysOutEntry final : public TableRow<PhysOutEntry, PhysOutMap::TABLE.wordsPerRow> {
public:
    /// A cleared row.
    PhysOutEntry() { clear(); }
    /// The same for an output stream.
    /// @param tsoIdx 0..255
    explicit PhysOutEntry(std::uint32_t tsoIdx) : PhysOutEntry() { setTSOIDX(tsoIdx); }
    /// An enabled row.
    /// @param phyoIdx 0..23
    PhysOutEntry(std::uint32_t tsoIdx, std::uint32_t phyoIdx);

    void setTSOIDX(std::uint32_t tsoIdx);
    void setPHYOIDX(std::uint32_t phyoIdx);

    std::uint32_t getTSOIDX() const { return m_TSOIDX; }
    std::uint32_t getPHYOIDX() const { return m_PHYOIDX; }
    bool isEnabled() const { return m_Enabled; }

    /// TSOIDX 255, PHYOIDX 31, not enabled.
    void clear() override;

private:
    friend TableRow;
    template <class Self, class Visit>
    static void visitFields(Self& row, Visit visit) {
        visit(PhysOutMap::PHYOIDX, row.m_PHYOIDX);
        visit(PhysOutMap::ENABLED, row.m_Enabled);
    }

    std::uint32_t m_TSOIDX = 0;
    std::uint32_t m_PHYOIDX = 0;
    bool m_Enabled = false;
};

}  // namespace Vel::Drivers::Zep
