#include "vel/userspace_drivers/drivers/zep/ts/tsimapentry.h"

namespace Vel::Drivers::Zep {

TsiMapEntry::TsiMapEntry(std::uint32_t tsiidx) : TsiMapEntry() {
    m_TSIIDX = requireInRange(tsiidx, TSIIDX_RANGE, "Cannot create TsiMapEntry - invalid TSIidx (");
}

TsiMapEntry::TsiMapEntry(std::uint32_t tsiidx, std::uint32_t pidIdx) : TsiMapEntry(tsiidx) {
    m_PIDIDX = requireInRange(pidIdx, PIDIDX_RANGE, "Cannot create TsiMapEntry - invalid PIDidx (");
    m_Enabled = true;
}

void TsiMapEntry::setTSIIDX(std::uint32_t tsiidx) {
    m_TSIIDX = requireInRange(tsiidx, TSIIDX_RANGE, "Cannot set TSIidx - invalid TSIidx given (");
}

void TsiMapEntry::setPIDIDX(std::uint32_t pidIdx) {
    m_PIDIDX = requireInRange(pidIdx, PIDIDX_RANGE, "Cannot set PIDidx - invalid PIDidx given (");
}

void TsiMapEntry::clear() {
    setTSIIDX(TSIIDX_RANGE.max);
    setPIDIDX(PIDIDX_RANGE.max);
    m_Enabled = false;
}

}  // namespace Vel::Drivers::Zep
