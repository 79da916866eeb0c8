#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stop_token>
#include <utility>
#include <vector>

#include "vel/userspace_drivers/drivers/zep/ts/diag/decode_rows.h"
#include "vel/userspace_drivers/interfaces/memif.h"

namespace Vel::Utils {

/// Reads one FPGA table while other programs write it, and yields a copy only when it is stable and its words
/// are not those of the last accepted copy. Almost every poll finds nothing new, so words are compared with
/// words, and rows are decoded only where words differ. Bits and rows that the decoder leaves out then decide
/// nothing, since the decoded rows are compared. No allocation while nothing changes. Thread-bound to the
/// monitor thread.
///
/// `Table` says what differs between the tables: the type `Row`, the table's `LAYOUT`, the functions
/// `GET_BASE` and `GET_CONTROL_BIT` of its reader, and `IS_USED`, which says whether a row counts.
template <typename Table>
class LutSnapshotReader {
public:
    /// Control bit of the snapshot, and the used rows in ascending row order.
    using Snapshot = std::pair<std::uint32_t, std::vector<typename Table::Row>>;

    /// Reads until the table is stable, without pause and without limit. Nothing when the words are those
    /// that were accepted last, or when a stop is requested meanwhile. Errors of the memory pass through.
    ///
    /// The last sample of the control bit also notices a mapping that was lost during the reads: every access
    /// checks that first, so words of a lost mapping never get out of here.
    std::optional<Snapshot> readChanged(Drivers::IMemIf& memory, const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            const std::uint32_t before = Table::GET_CONTROL_BIT(memory);
            memory.readBlock32Into(Table::GET_BASE(memory, 0), m_FirstRead);
            const std::uint32_t between = Table::GET_CONTROL_BIT(memory);
            memory.readBlock32Into(Table::GET_BASE(memory, 0), m_SecondRead);
            const std::uint32_t after = Table::GET_CONTROL_BIT(memory);
            if (before != between || between != after) {
                continue;
            }
            if (m_HasAccepted && m_FirstRead == m_SecondRead && m_FirstRead == m_Accepted) {
                if (++m_UnchangedReads % READS_PER_CHECK == 0) {
                    memory.verifyMemory();  // a file truncated after its last used row reads the same
                }
                return std::nullopt;
            }
            auto rows = decode(m_FirstRead);
            if (m_FirstRead == m_SecondRead || rows == decode(m_SecondRead)) {
                memory.verifyMemory();
                return Snapshot(before, std::move(rows));
            }
        }
        return std::nullopt;
    }

    /// The words of the last snapshot have been dealt with: reading the same ones again is no change.
    void accept() noexcept {
        m_Accepted.swap(m_FirstRead);
        m_HasAccepted = true;
    }

private:
    using Words = std::vector<std::uint32_t>;

    static auto decode(const Words& words) {
        return Drivers::Zep::decodeRows<typename Table::Row>(words, Table::IS_USED);
    }

    static constexpr std::size_t WORDS = std::size_t{Table::LAYOUT.rows} * Table::LAYOUT.wordsPerRow;
    /// At one read per millisecond, a lost memory is noticed within a second even if nothing seems to change.
    static constexpr std::uint32_t READS_PER_CHECK = 256;
    std::uint32_t m_UnchangedReads = 0;
    Words m_FirstRead = Words(WORDS);
    Words m_SecondRead = Words(WORDS);
    Words m_Accepted = Words(WORDS);
    bool m_HasAccepted = false;
};

}  // namespace Vel::Utils
