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

    /// Reads the table and delivers what changed since the last poll, event by event, before it returns. An
    /// error of the memory passes through; no event has been delivered then, and the last copy is kept.
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

/// Whether `rows` contains `row`. The search is that of the hardware's ordered tables: the first row that is
/// not less decides. It may miss rows out of ascending order; they are then reported as removed and added.
template <typename Row>
bool containsEntry(const std::vector<Row>& rows, const Row& row) {
    const auto found =
        std::find_if(rows.begin(), rows.end(), [&](const Row& other) { return !(other < row); });
    return found != rows.end() && *found == row;
}

/// The monitor of one kind of table. Beyond what LutSnapshotReader needs, `Table` turns a row into events
/// with `makeRemoved(row)` and `makeAdded(row)`. Both return null for a row that does not concern the
/// consumer.
template <typename Table>
class TableLutMonitor final : public LutMonitor {
public:
    /// Reads the table once. Rows that it already holds are served like later ones: a warning gives their
    /// number, and the first poll reports them as added.
    /// @param stop ends the wait for a table that never becomes stable
    TableLutMonitor(std::shared_ptr<Drivers::IMemIf> devMem, IFPGAEventConsumer& consumer,
                    std::stop_token stop = {})
        : LutMonitor(std::move(devMem), consumer), m_Stop(std::move(stop)) {
        const auto initial = m_Reader.readChanged(*m_DevMem, m_Stop);
        if (initial && !initial->second.empty()) {
            const auto logger =
                Log::getLogsystem()->getLogger(Log::makeLoggerName(__FILE__, "Vel::Utils::LutMonitor"));
            Log::warning(*logger, "The {} already holds {} used rows at start. They are taken as added now.",
                         Table::LAYOUT.name, initial->second.size());
        }
    }

    void pollLut() override {
        m_DevMem->restoreMemory();
        auto current = m_Reader.readChanged(*m_DevMem, m_Stop);
        if (!current) {
            return;
        }
        if (current->second != m_CachedLut.second) {
            emitEvents(current->second);
            m_CachedLut = std::move(*current);
        }
        m_Reader.accept();
    }

    const char* getTableName() const override { return Table::LAYOUT.name; }

private:
    using Snapshot = typename LutSnapshotReader<Table>::Snapshot;

    void emitEvents(const std::vector<typename Table::Row>& current) {
        for (const auto& row : m_CachedLut.second) {
            if (!containsEntry(current, row)) {
                deliver(Table::makeRemoved(row));
            }
        }
        for (const auto& row : current) {
            if (!containsEntry(m_CachedLut.second, row)) {
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
    Snapshot m_CachedLut;  // the last copy whose rows differed from the one before
};

}  // namespace Vel::Utils
