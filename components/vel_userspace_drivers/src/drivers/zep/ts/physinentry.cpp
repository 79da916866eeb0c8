#include "vel/userspace_drivers/drivers/zep/ts/physinentry.h"

namespace Vel::Drivers::Zep {

PhysInEntry::PhysInEntry() {
    clear();
}

PhysInEntry::PhysInEntry(std::uint32_t phyiIdx) : PhysInEntry(phyiIdx, NO_TSIIDX) {}

PhysInEntry::PhysInEntry(std::uint32_t phyiIdx, std::uint32_t tsiidx) {
    assign(m_TSIIDX, tsiidx, TSIIDX_RANGE, "Cannot create PhysInEntry - invalid TSIidx (");
    assign(m_PHYIIDX, phyiIdx, PHYIIDX_RANGE, "Cannot create PhysInEntry - invalid PHYIidx (");
}

void PhysInEntry::setPHYIIDX(std::uint32_t phyiIdx) {
    assign(m_PHYIIDX, phyiIdx, PHYIIDX_RANGE, "Cannot set PHYIidx invalid PHYIidx (");
}

void PhysInEntry::setTSIIDX(std::uint32_t tsiidx) {
    assign(m_TSIIDX, tsiidx, TSIIDX_RANGE, "Cannot set TSIidx - invalid TSIidx (");
}

void PhysInEntry::clear() {
    setTSIIDX(NO_TSIIDX);
    setPHYIIDX(NO_PHYIIDX);
}

}  // namespace Vel::Drivers::Zep
