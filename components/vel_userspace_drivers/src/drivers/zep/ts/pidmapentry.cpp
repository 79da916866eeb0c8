#include "vel/userspace_drivers/drivers/zep/ts/pidmapentry.h"

namespace Vel::Drivers::Zep {

/// Contains no value: the range for an index that would link a row to itself.
static constexpr Range NOTHING{1, 0};

PidMapEntry::PidMapEntry(std::uint32_t pidIdx) : PidMapEntry() {
    m_PIDIDX = requireInRange(pidIdx, PIDIDX_RANGE, "Cannot create PidMapEntry - invalid PIDidx (");
}

PidMapEntry::PidMapEntry(std::uint32_t pidIdx, std::uint32_t tsoIdx) : PidMapEntry(pidIdx) {
    m_TSOIDX = requireInRange(tsoIdx, TSOIDX_RANGE, "Cannot create PidMapEntry - invalid TSOidx (");
    m_RemapPID = 0;
    m_Enabled = true;
}

PidMapEntry::PidMapEntry(std::uint32_t pidIdx, std::uint32_t tsoIdx, std::uint32_t remapPid)
    : PidMapEntry(pidIdx, tsoIdx) {
    assignRemapPID(remapPid, "Cannot create PidMapEntry - invalid PID value (");
}

void PidMapEntry::setPIDIDX(std::uint32_t pidIdx) {
    m_PIDIDX = requireInRange(pidIdx, pidIdx == m_NextPIDIDX ? NOTHING : PIDIDX_RANGE,
                              "Cannot set PIDix - invalid PIDidx (");
}

void PidMapEntry::setNextPIDIDX(std::uint32_t nextPidIdx) {
    m_NextPIDIDX = requireInRange(nextPidIdx, nextPidIdx == m_PIDIDX ? NOTHING : NEXTPIDIDX_RANGE,
                                  "Cannot set NEXT PIDIX - invalid NEXT_PIDidx value (");
}

void PidMapEntry::setTSOIDX(std::uint32_t tsoIdx) {
    m_TSOIDX = requireInRange(tsoIdx, TSOIDX_RANGE, "Cannot set TSOidx - invalid TSOidx (");
}

void PidMapEntry::setRemapPID(std::uint32_t remapPid) {
    assignRemapPID(remapPid, "Cannot set remap PID value - invalid PID value (");
}

void PidMapEntry::assignRemapPID(std::uint32_t remapPid, const char* refusal) {
    m_RemapPID = requireInRange(remapPid, PID_RANGE, refusal);
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
}

}  // namespace Vel::Drivers::Zep
