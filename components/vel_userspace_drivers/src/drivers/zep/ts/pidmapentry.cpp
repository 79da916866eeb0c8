#include "vel/userspace_drivers/drivers/zep/ts/pidmapentry.h"

#include <string>

#include "vel/userspace_drivers/drivers/driver_error.h"

namespace Vel::Drivers::Zep {

namespace {

/// Returns `value`; throws as requireInRange() does when it is out of `range` or names the other end of its
/// own link.
std::uint32_t requireLink(std::uint32_t value, const Range& range, std::uint32_t otherEnd,
                          const char* refusal) {
    if (value == otherEnd) {
        throw ZepDriverError(refusal + std::to_string(value) + ")");
    }
    return requireInRange(value, range, refusal);
}

}  // namespace

PidMapEntry::PidMapEntry() {
    clear();
}

PidMapEntry::PidMapEntry(std::uint32_t pidIdx) : PidMapEntry() {
    assign(m_PIDIDX, pidIdx, PIDIDX_RANGE, "Cannot create PidMapEntry - invalid PIDidx (");
}

PidMapEntry::PidMapEntry(std::uint32_t pidIdx, std::uint32_t tsoIdx) : PidMapEntry(pidIdx) {
    assign(m_TSOIDX, tsoIdx, TSOIDX_RANGE, "Cannot create PidMapEntry - invalid TSOidx (");
    m_RemapPID = 0;
    m_Enabled = true;
}

PidMapEntry::PidMapEntry(std::uint32_t pidIdx, std::uint32_t tsoIdx, std::uint32_t remapPid)
    : PidMapEntry(pidIdx, tsoIdx) {
    assignRemapPID(remapPid, "Cannot create PidMapEntry - invalid PID value (");
}

void PidMapEntry::setPIDIDX(std::uint32_t pidIdx) {
    m_PIDIDX = requireLink(pidIdx, PIDIDX_RANGE, m_NextPIDIDX, "Cannot set PIDix - invalid PIDidx (");
    setModified();
}

void PidMapEntry::setNextPIDIDX(std::uint32_t nextPidIdx) {
    m_NextPIDIDX = requireLink(nextPidIdx, NEXTPIDIDX_RANGE, m_PIDIDX,
                               "Cannot set NEXT PIDIX - invalid NEXT_PIDidx value (");
    setModified();
}

void PidMapEntry::setTSOIDX(std::uint32_t tsoIdx) {
    assign(m_TSOIDX, tsoIdx, TSOIDX_RANGE, "Cannot set TSOidx - invalid TSOidx (");
}

void PidMapEntry::setRemapPID(std::uint32_t remapPid) {
    assignRemapPID(remapPid, "Cannot set remap PID value - invalid PID value (");
}

void PidMapEntry::assignRemapPID(std::uint32_t remapPid, const char* refusal) {
    assign(m_RemapPID, remapPid, PID_RANGE, refusal);
    m_Remap = true;
}

bool PidMapEntry::fromWords() {
    m_PIDIDX = PIDIDX_RANGE.max;
    return TableRow::fromWords();
}

void PidMapEntry::clear() {
    m_PIDIDX = PIDIDX_RANGE.max;
    m_NextPIDIDX = 0;
    m_TSOIDX = TSOIDX_RANGE.max;
    m_Remap = false;
    m_RemapPID = PID_RANGE.max;
    m_Enabled = false;
    setModified();
}

}  // namespace Vel::Drivers::Zep
