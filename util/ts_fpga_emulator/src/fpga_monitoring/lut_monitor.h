#pragma once

#include <algorithm>
#include <memory>
#include <stop_token>
#include <utility>
#include <vector>

#include "fpga_monitoring/ifpga_event_consumer.h"
#include "fpga_monitoring/lut_snapshot.h"
#include "vel/cpp_utils/assertion.h"
#include "vel/cpp_utils/log.h"
#include "vel/userspace_drivers/interfaces/memif.h"

namespace Vel::Utils {

/// Watches one FPGA table. Constructed on the main thread, then polled on the monitor thread only.
class LutMonitor {
public:
    virtual ~LutMonitor() = default;
    LutMonitor(const LutMonitor&) = delete;
    LutMonitor& operator=(const LutMonitor&) = delete;

    /// Reads the table and delivers an event for each change since the last poll before it returns. If the
    /// memory fails, its error passes through, no event is delivered, and the last copy is kept.
    virtual void pollLut() = 0;
    /// For messages, for example "IP LUT".
    virtual const char* getTableName() const = 0;

protected:
    /// `consumer` must outlive the monitor.
    LutMonitor(std::shared_ptr<Drivers::IMemIf> devMem, IFPGAEventConsumer& consumer)
        : m_DevMem(std::move(devMem)), m_Consumer(consumer) {
        VEL_ASSERT(static_cast<bool>(m_DevMem));
    }

    std::shared_ptr<Drivers::IMemIf> m_DevMem;
    IFPGAEventConsumer& m_Consumer;
};

/// Whether `rows` contains `row`. Linear lower bound, as in the hardware: stops at the first row that is not
/// less. It may miss rows that are not sorted; they are then reported as removed and added.
template <typename Row>
[[nodiscard]] bool containsEntry(const std::vector<Row>& rows, const Row& row) {
    const auto found =
        std::find_if(rows.begin(), rows.end(), [&](const Row& other) { return !(other < row); });
    return found != rows.end() && *found == row;
}

/// The monitor of one kind of table. In addition to what LutSnapshotReader needs, `Table` has
/// `makeRemoved(row)` and `makeAdded(row)`, which return the event for a row, or null for a row that does not
/// concern the consumer.
template <typename Table>
class TableLutMonitor final : public LutMonitor {
public:
    /// Reads the table once. If it already holds rows, a log line gives their number, and the first
    /// poll reports them as added.
    /// @param stop interrupts the wait for a table that never becomes stable
    TableLutMonitor(std::shared_ptr<Drivers::IMemIf> devMem, IFPGAEventConsumer& consumer,
                    std::stop_token stop = {})
        : LutMonitor(std::move(devMem), consumer), m_Stop(std::move(stop)) {
        const auto initial = m_Reader.readChanged(*m_DevMem, m_Stop);
        if (initial && !initial->empty()) {
            const auto logger =
                Log::getLogsystem()->getLogger(Log::makeLoggerName(__FILE__, "Vel::Utils::LutMonitor"));
            Log::info(*logger, "The {} already holds {} used row(s) at start-up; they are served.",
                      Table::LAYOUT.name, initial->size());
        }
    }

    void pollLut() override {
        m_DevMem->restoreMemory();
        auto current = m_Reader.readChanged(*m_DevMem, m_Stop);
        if (!current) {
            return;
        }
        if (*current != m_CachedLut) {
            emitEvents(*current);
            m_CachedLut = std::move(*current);
        }
        m_Reader.accept();
    }

    const char* getTableName() const override { return Table::LAYOUT.name; }

private:
    using Rows = typename LutSnapshotReader<Table>::Rows;

    void emitEvents(const Rows& current) {
        for (const auto& row : m_CachedLut) {
            if (!containsEntry(current, row)) {
                deliver(Table::makeRemoved(row));
            }
        }
        for (const auto& row : current) {
            if (!containsEntry(m_CachedLut, row)) {
                deliver(Table::makeAdded(row));
            }
        }
        m_Consumer.handleChangeEnd();
    }

    void deliver(std::unique_ptr<FPGAMonEvent> event) {
        if (event) {
            m_Consumer.handleEvent(std::move(event));
        }
    }

    std::stop_token m_Stop;
    LutSnapshotReader<Table> m_Reader;
    Rows m_CachedLut;  // the last copy whose rows differed from the one before
};

}  // namespace Vel::Utils
