#include "vel/userspace_drivers/drivers/zep/ts/physoutentry.h"

namespace Vel::Drivers::Zep {

PhysOutEntry::PhysOutEntry(std::uint32_t tsoIdx, std::uint32_t phyoIdx) : PhysOutEntry(tsoIdx) {
    setPHYOIDX(phyoIdx);
    m_Enabled = true;
}

void PhysOutEntry::setTSOIDX(std::uint32_t tsoIdx) {
    m_TSOIDX = requireInRange(tsoIdx, TSOIDX_RANGE, "Cannot create PhysOutEntry - invalid TSOidx (");
}

void PhysOutEntry::setPHYOIDX(std::uint32_t phyoIdx) {
    m_PHYOIDX = requireInRange(phyoIdx, PHYOIDX_RANGE, "Cannot create PhysOutEntry - invalid PHYOidx (");
}

void PhysOutEntry::clear() {
    setTSOIDX(TSOIDX_RANGE.max);
    m_Enabled = false;
    m_PHYOIDX = NO_PHYOIDX;
}

}  // namespace Vel::Drivers::Zep
