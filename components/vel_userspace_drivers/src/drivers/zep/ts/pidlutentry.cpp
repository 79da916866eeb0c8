#include "vel/userspace_drivers/drivers/zep/ts/pidlutentry.h"

namespace Vel::Drivers::Zep {

PidLutEntry::PidLutEntry(std::uint32_t tsiidx, std::uint32_t pid, std::uint32_t pidIdx, bool outRoute,
                         bool cpuRoute)
    : PidLutEntry(tsiidx, pid, pidIdx, FILTTABIDX_RANGE.max, outRoute, cpuRoute) {}

PidLutEntry::PidLutEntry(std::uint32_t tsiidx, std::uint32_t pid, std::uint32_t pidIdx,
                         std::uint32_t filtTabIdx, bool outRoute, bool cpuRoute)
    : m_CpuRoute(cpuRoute), m_OutRoute(outRoute) {
    setTSIIDX(tsiidx);
    setPID(pid);
    setPIDIDX(pidIdx);
    setFiltTabIDX(filtTabIdx);
}

void PidLutEntry::setTSIIDX(std::uint32_t tsiidx) {
    m_TSIIDX = requireInRange(tsiidx, TSIIDX_RANGE, "PidLutEntry created/modified with invalid TSIIDX (");
}

void PidLutEntry::setPID(std::uint32_t pid) {
    m_PID = requireInRange(pid, PID_RANGE, "PidLutEntry created/modified with invalid PID (");
}

void PidLutEntry::setPIDIDX(std::uint32_t pidIdx) {
    m_PIDIDX = requireInRange(pidIdx, PIDIDX_RANGE, "PidLutEntry created/modified with invalid PIDIDX (");
}

void PidLutEntry::setFiltTabIDX(std::uint32_t filtTabIdx) {
    m_FiltTabIDX = requireInRange(filtTabIdx, FILTTABIDX_RANGE,
                                  "PidLutEntry created/modified with invalid FiltTabIDX (");
}

void PidLutEntry::clear() {
    setTSIIDX(TSIIDX_RANGE.max);
    setPID(PID_RANGE.max);
    setPIDIDX(PIDIDX_RANGE.max);
    setFiltTabIDX(FILTTABIDX_RANGE.max);
    setCpuRoute(false);
    setOutRoute(false);
}

}  // namespace Vel::Drivers::Zep
