#include "vel/userspace_drivers/drivers/zep/ts/physoutentry.h"

namespace Vel::Drivers::Zep {

PhysOutEntry::PhysOutEntry() {
    clear();
}

PhysOutEntry::PhysOutEntry(std::uint32_t tsoIdx) : PhysOutEntry() {
    setTSOIDX(tsoIdx);
}

PhysOutEntry::PhysOutEntry(std::uint32_t tsoIdx, std::uint32_t phyoIdx) : PhysOutEntry(tsoIdx) {
    setPHYOIDX(phyoIdx);
    m_Enabled = true;
}

void PhysOutEntry::setTSOIDX(std::uint32_t tsoIdx) {
    assign(m_TSOIDX, tsoIdx, TSOIDX_RANGE, "Cannot create PhysOutEntry - invalid TSOidx (");
}

void PhysOutEntry::setPHYOIDX(std::uint32_t phyoIdx) {
    assign(m_PHYOIDX, phyoIdx, PHYOIDX_RANGE, "Cannot create PhysOutEntry - invalid PHYOidx (");
}

void PhysOutEntry::clear() {
    setTSOIDX(TSOIDX_RANGE.max);
    assign(m_Enabled, false);
    m_PHYOIDX = NO_PHYOIDX;
}

}  // namespace Vel::Drivers::Zep
