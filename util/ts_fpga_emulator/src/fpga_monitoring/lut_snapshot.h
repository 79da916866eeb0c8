#pragma once

#include <cstdint>
#include <optional>
#include <stop_token>
#include <utility>
#include <vector>

#include "vel/userspace_drivers/interfaces/memif.h"

namespace Vel::Utils {

/// Reads one FPGA table while other programs write it, and yields a copy only when it holds still and its
/// words are not those of the last accepted copy. Almost every poll finds nothing new, so words are compared
/// with words and rows are decoded only where words differ; bits and rows that the decoder leaves out then
/// decide nothing, since the caller compares the decoded rows. No allocation while nothing changes.
/// Thread-bound to the monitor thread.
///
/// `Table` names what differs between the tables: the type `Row`, `WORDS`, `readWords(memory, words)`,
/// `getControlBit(memory)` and `decode(words)`, which yields the used rows in ascending row order.
template <typename Table>
class LutSnapshotReader {
public:
    using Rows = std::vector<typename Table::Row>;
    /// Control bit of the snapshot, and its rows.
    using Snapshot = std::pair<std::uint32_t, Rows>;

    /// Reads until the table holds still, without pause and without limit. Nothing when the words are those
    /// that were accepted last, or when a stop is requested meanwhile. Errors of the memory leave unchanged.
    ///
    /// The last sample of the control bit is also what notices a mapping that was lost during the reads:
    /// every access tests that first, so words of a lost mapping never get out of here.
    std::optional<Snapshot> readChanged(Drivers::IMemIf& memory, const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            const std::uint32_t before = Table::getControlBit(memory);
            Table::readWords(memory, m_Words);
            const std::uint32_t between = Table::getControlBit(memory);
            Table::readWords(memory, m_Again);
            const std::uint32_t after = Table::getControlBit(memory);
            if (before != between || between != after) {
                continue;
            }
            if (m_HasAccepted && m_Words == m_Again && m_Words == m_Accepted) {
                return std::nullopt;
            }
            Rows rows = Table::decode(m_Words);
            if (m_Words == m_Again || rows == Table::decode(m_Again)) {
                memory.verifyMemory();
                return Snapshot(before, std::move(rows));
            }
        }
        return std::nullopt;
    }

    /// The words of the last snapshot are dealt with: a later read of the same ones is no change.
    void accept() noexcept {
        m_Accepted.swap(m_Words);
        m_HasAccepted = true;
    }

private:
    std::vector<std::uint32_t> m_Words = std::vector<std::uint32_t>(Table::WORDS);
    std::vector<std::uint32_t> m_Again = std::vector<std::uint32_t>(Table::WORDS);
    std::vector<std::uint32_t> m_Accepted = std::vector<std::uint32_t>(Table::WORDS);
    bool m_HasAccepted = false;
};

}  // namespace Vel::Utils
