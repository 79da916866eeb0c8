#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stop_token>
#include <vector>

#include "vel/userspace_drivers/drivers/zep/ts/diag/decode_rows.h"
#include "vel/userspace_drivers/interfaces/memif.h"

namespace Vel::Utils {

/// Reads one FPGA table while other programs write it, and returns a copy only when it is stable and its
/// words differ from the last accepted copy. Almost every poll finds nothing new, so words are compared
/// first, and rows are decoded only when words differ. Since decoded rows are compared, bits and rows that
/// the decoder ignores never count as a change. No allocation while nothing changes. Thread-bound to the
/// monitor thread.
///
/// `Table` describes one table: the type `Row`, the table's `LAYOUT`, the functions `GET_BASE` and
/// `GET_CONTROL_BIT` of its reader, and `IS_USED`, which says whether a row counts.
template <typename Table>
class LutSnapshotReader {
public:
    /// The used rows, in row order.
    using Rows = std::vector<typename Table::Row>;

    /// Reads until the table is stable, without pause or limit. Returns nothing if the words are those that
    /// were accepted last, or if a stop is requested. Errors of the memory pass through.
    ///
    /// The last read of the control bit also notices a mapping that was lost during the reads, since every
    /// access checks that first. So the words of a lost mapping are never returned.
    [[nodiscard]] std::optional<Rows> readChanged(Drivers::IMemIf& memory, const std::stop_token& stop) {
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
            Rows rows = decode(m_FirstRead);
            if (m_FirstRead == m_SecondRead || rows == decode(m_SecondRead)) {
                memory.verifyMemory();
                return rows;
            }
        }
        return std::nullopt;
    }

    /// Accepts the words of the last copy: reading the same words again is not a change.
    void accept() noexcept {
        m_Accepted.swap(m_FirstRead);
        m_HasAccepted = true;
    }

private:
    using Words = std::vector<std::uint32_t>;

    static Rows decode(const Words& words) {
        return Drivers::Zep::decodeRows<typename Table::Row>(words, Table::IS_USED);
    }

    static constexpr std::size_t WORDS = std::size_t{Table::LAYOUT.rows} * Table::LAYOUT.wordsPerRow;
    /// Limits the system calls; at one read per millisecond, a lost memory is still noticed within a second.
    static constexpr std::uint32_t READS_PER_CHECK = 256;
    std::uint32_t m_UnchangedReads = 0;
    Words m_FirstRead = Words(WORDS);
    Words m_SecondRead = Words(WORDS);
    Words m_Accepted = Words(WORDS);
    bool m_HasAccepted = false;
};

}  // namespace Vel::Utils
