#pragma once

#include <cstdint>

#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"
#include "vel/userspace_drivers/drivers/zep/ts/table_row.h"

namespace Vel::Drivers::Zep {

/// Row of the O-PID MAP: an output transport stream that a routed PID goes to, perhaps under another PID, and
/// the row that continues the chain. The row's index in the table is its PIDIDX, so its words do not hold it.
/// An index that would link the row to itself is refused like one that is out of range. No setter enables the
/// row.
class PidMapEntry final : public TableRow<PidMapEntry, OPidMap::TABLE.wordsPerRow> {
public:
    /// A cleared row.
    PidMapEntry() { clear(); }
    /// The same with another index.
    /// @param pidIdx 1..4095
    explicit PidMapEntry(std::uint32_t pidIdx);
    /// An enabled row that keeps the PID and ends its chain.
    /// @param tsoIdx 0..255
    PidMapEntry(std::uint32_t pidIdx, std::uint32_t tsoIdx);
    /// An enabled row that changes the PID and ends its chain.
    /// @param remapPid 0..8191
    PidMapEntry(std::uint32_t pidIdx, std::uint32_t tsoIdx, std::uint32_t remapPid);

    /// @param pidIdx 1..4095, not NEXTPIDIDX
    void setPIDIDX(std::uint32_t pidIdx);
    /// @param nextPidIdx 0..4095, not PIDIDX
    void setNextPIDIDX(std::uint32_t nextPidIdx);
    void setTSOIDX(std::uint32_t tsoIdx);
    /// Sets the remap flag as well.
    void setRemapPID(std::uint32_t remapPid);

    std::uint32_t getPIDIDX() const { return m_PIDIDX; }
    std::uint32_t getNextPIDIDX() const { return m_NextPIDIDX; }
    std::uint32_t getTSOIDX() const { return m_TSOIDX; }
    bool isRemap() const { return m_Remap; }
    std::uint32_t getRemapPID() const { return m_RemapPID; }
    bool isEnabled() const { return m_Enabled; }

    /// Sets PIDIDX 4095, since the words do not hold it.
    bool fromWords() override;
    /// PIDIDX 4095, NEXTPIDIDX 0, TSOIDX 255, no remap, remap PID 8191, not enabled.
    void clear() override;

private:
    friend TableRow;
    template <class Self, class Visit>
    static void visitFields(Self& row, Visit visit) {
        visit(OPidMap::TSOIDX, row.m_TSOIDX);
        visit(OPidMap::REMAP_PID, row.m_RemapPID);
        visit(OPidMap::REMAP, row.m_Remap);
        visit(OPidMap::ENABLED, row.m_Enabled);
        visit(OPidMap::NEXTPIDIDX, row.m_NextPIDIDX);
    }
    void assignRemapPID(std::uint32_t remapPid, const char* refusal);

    std::uint32_t m_PIDIDX = 0;
    std::uint32_t m_NextPIDIDX = 0;
    std::uint32_t m_TSOIDX = 0;
    bool m_Remap = false;
    std::uint32_t m_RemapPID = 0;
    bool m_Enabled = false;
};

}  // namespace Vel::Drivers::Zep
