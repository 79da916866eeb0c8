#include "vel/userspace_drivers/drivers/zep/ts/physinentry.h"

namespace Vel::Drivers::Zep {

PhysInEntry::PhysInEntry(std::uint32_t phyiIdx, std::uint32_t tsiidx) {
    m_TSIIDX = requireInRange(tsiidx, TSIIDX_RANGE, "Cannot create PhysInEntry - invalid TSIidx (");
    m_PHYIIDX = requireInRange(phyiIdx, PHYIIDX_RANGE, "Cannot create PhysInEntry - invalid PHYIidx (");
}

void PhysInEntry::setPHYIIDX(std::uint32_t phyiIdx) {
    m_PHYIIDX = requireInRange(phyiIdx, PHYIIDX_RANGE, "Cannot set PHYIidx invalid PHYIidx (");
}

void PhysInEntry::setTSIIDX(std::uint32_t tsiidx) {
    m_TSIIDX = requireInRange(tsiidx, TSIIDX_RANGE, "Cannot set TSIidx - invalid TSIidx (");
}

void PhysInEntry::clear() {
    setTSIIDX(NO_TSIIDX);
    setPHYIIDX(NO_PHYIIDX);
}

}  // namespace Vel::Drivers::Zep
