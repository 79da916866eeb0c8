#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "vel/ts_basics/tspacket.h"

namespace Vel::Ts::Misc {

/// Which of the 8192 PIDs pass. Larger numbers never pass, and calls that change the filter ignore them.
/// Reentrant; an object that threads share is guarded by its owner.
class PidFilter {
public:
    /// Everything passes.
    PidFilter() : PidFilter(false, false) {}
    /// Blocks everything, or only the null packets on request.
    PidFilter(bool blockEverything, bool blockNullPid) {
        if (blockEverything) {
            blockAll();
        } else {
            passAll(blockNullPid);
        }
    }
    /// Passes only the listed PIDs.
    explicit PidFilter(const std::vector<std::uint32_t>& pids) {
        blockAll();
        addPid(pids);
    }
    virtual ~PidFilter() = default;
    PidFilter(const PidFilter&) = default;
    PidFilter& operator=(const PidFilter&) = default;

    void addPid(std::uint32_t pid) { set(pid, PASS); }
    void removePid(std::uint32_t pid) { set(pid, BLOCK); }
    void addPid(const std::vector<std::uint32_t>& pids) {
        for (const std::uint32_t pid : pids) {
            addPid(pid);
        }
    }
    void removePid(const std::vector<std::uint32_t>& pids) {
        for (const std::uint32_t pid : pids) {
            removePid(pid);
        }
    }
    void passAll(bool blockNullPid) {
        m_Table.fill(PASS);
        if (blockNullPid) {
            removePid(NULL_PID);
        }
    }
    void blockAll() { m_Table.fill(BLOCK); }
    bool isPidPassed(std::uint32_t pid) const { return pid <= MAX_PID && m_Table[pid] == PASS; }

private:
    static constexpr std::uint32_t BLOCK = 0;
    static constexpr std::uint32_t PASS = 1;

    void set(std::uint32_t pid, std::uint32_t entry) {
        if (pid <= MAX_PID) {
            m_Table[pid] = entry;
        }
    }

    std::array<std::uint32_t, MAX_PID + 1> m_Table{};
};

}  // namespace Vel::Ts::Misc
