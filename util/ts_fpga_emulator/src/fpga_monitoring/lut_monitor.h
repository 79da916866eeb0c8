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

/// Watches one FPGA table. Constructed on the main thread, polled on the monitor thread alone.
class LutMonitor {
public:
    virtual ~LutMonitor() = default;
    LutMonitor(const LutMonitor&) = delete;
    LutMonitor& operator=(const LutMonitor&) = delete;

    /// Reads the table and delivers what changed since the last poll, event by event, before it returns.
    /// Errors of the memory leave it with the last copy untouched; no event has been delivered then.
    virtual void pollLut() = 0;

protected:
    /// `consumer` must outlive the monitor.
    LutMonitor(std::shared_ptr<Drivers::IMemIf> devMem, IFPGAEventConsumer& consumer)
        : m_DevMem(std::move(devMem)), m_Consumer(consumer) {
        VEL_ASSERT(static_cast<bool>(m_DevMem));
    }

    std::shared_ptr<Drivers::IMemIf> m_DevMem;
    IFPGAEventConsumer& m_Consumer;
};

/// Whether `rows` contains `row`, as the hardware's ordered tables are searched: the first row that is not
/// less decides. Rows out of ascending order may thus be missed, and are then reported as removed and added
/// again.
template <typename Row>
bool containsEntry(const std::vector<Row>& rows, const Row& row) {
    const auto found =
        std::find_if(rows.begin(), rows.end(), [&](const Row& other) { return !(other < row); });
    return found != rows.end() && *found == row;
}

/// The monitor of one kind of table. Beyond what LutSnapshotReader needs, `Table` has a `NAME`, and turns a
/// row into events with `makeRemoved(row)` and `makeAdded(row)`, each null where the row is none of the
/// consumer's business.
template <typename Table>
class TableLutMonitor final : public LutMonitor {
public:
    /// Takes a first look at the table. Rows that it holds already are served like rows that come later: a
    /// warning tells their number, and the first poll reports them as added.
    /// @param stop ends the wait for a table that never holds still
    TableLutMonitor(std::shared_ptr<Drivers::IMemIf> devMem, IFPGAEventConsumer& consumer,
                    std::stop_token stop = {})
        : LutMonitor(std::move(devMem), consumer), m_Stop(std::move(stop)) {
        const auto initial = m_Reader.readChanged(*m_DevMem, m_Stop);
        if (initial && !initial->second.empty()) {
            const auto logger =
                Log::getLogsystem()->getLogger(Log::makeLoggerName(__FILE__, "Vel::Utils::LutMonitor"));
            Log::warning(*logger, "The {} already holds {} used rows at start. They are taken as added now.",
                         Table::NAME, initial->second.size());
        }
    }

    void pollLut() override {
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

private:
    using Rows = typename LutSnapshotReader<Table>::Rows;

    using Events = std::vector<std::unique_ptr<FPGAMonEvent>>;

    /// Makes all events before the first one is delivered: when memory is short, the change as a whole is
    /// left to the next poll.
    void emitEvents(const Rows& current) {
        Events events;
        for (const auto& row : m_CachedLut.second) {
            if (!containsEntry(current, row)) {
                events.push_back(Table::makeRemoved(row));
            }
        }
        for (const auto& row : current) {
            if (!containsEntry(m_CachedLut.second, row)) {
                events.push_back(Table::makeAdded(row));
            }
        }
        m_Consumer.handleChangeBegin();
        for (auto& event : events) {
            if (event) {
                m_Consumer.handleEvent(std::move(event));
            }
        }
        m_Consumer.handleChangeEnd();
    }

    std::stop_token m_Stop;
    LutSnapshotReader<Table> m_Reader;
    typename LutSnapshotReader<Table>::Snapshot
        m_CachedLut;  // the last copy whose rows differed from the one before
};

}  // namespace Vel::Utils
