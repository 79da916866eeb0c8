#include <array>
#include <set>
#include <span>

#include "fake_memory.h"
#include "fpga_monitoring/iplut_monitor.h"
#include "fpga_monitoring/pidlut_monitor.h"
#include "recording_consumer.h"
#include "support.h"
#include "thrown_text.h"
#include "vel/userspace_drivers/interfaces/pci/pciif.h"

// Random tables, read while another program writes them, against the plain rule of what a monitor reads and
// reports.

namespace Vel::Utils {
namespace {

using Words = std::vector<std::uint32_t>;
using Events = std::vector<std::string>;
using Rows = std::vector<std::uint64_t>;  // both words of each, the first one in the upper half

/// A table as docs/registers.md describes it, and the meaning of the bits of its rows.
struct TableRule {
    std::uint32_t rows, controlWord, bankWord, lowerBase, upperBase;
    std::uint64_t order;     // rows are less by these bits,
    std::uint64_t equality;  // are equal by these,
    std::uint64_t used;      // count with any of these
    std::uint64_t reported;  // and yield events with all of these
    std::uint64_t drawn;     // of random rows: the ends of each field, and the bits that no field has
};
const TableRule IP_LUT = {
    256, 0, 0, 2048, 2048, 0xFFFFFFFF'0000FFFF, 0xFFFFFFFF'00FFFFFF, 0x01000000, 0, 0x80000001'FF818001};
const TableRule PID_LUT = {
    2048, 1, 129, 8192, 12288, 0x001FFFFF'00000000, 0x001FFFFF'FF003FFF, 0x3000, 0x2000, 0xFFF03001'81FFF801};

/// An event's text without its sign.
std::string describe(const TableRule& table, std::uint64_t row) {
    if (&table == &PID_LUT) {
        return fmt::format("{} {}", row >> 32 & 0x1FFF, row >> 45 & 0xFF);
    }
    const std::uint64_t port = row & 0xFFFF;
    return fmt::format("udp://{}.{}.{}.{}{} {}", row >> 56, row >> 48 & 0xFF, row >> 40 & 0xFF,
                       row >> 32 & 0xFF, port == 0 ? "" : ":" + std::to_string(port), row >> 16 & 0xFF);
}

Rows usedRows(const TableRule& table, const Words& words) {
    Rows rows;
    for (std::size_t i = 0; i < words.size(); i += 2) {
        const std::uint64_t row = std::uint64_t{words[i]} << 32 | words[i + 1];
        if ((row & table.used) != 0) {
            rows.push_back(row & table.equality);
        }
    }
    return rows;
}

using Reads = decltype(Drivers::WatchedMemory::reads);

/// The used rows that a poll with these reads must accept; nothing if the reads break the rule.
std::optional<Rows> stableRows(const TableRule& table, std::span<const Reads::value_type> reads) {
    const auto words = [&](std::size_t read) -> const Words& { return reads[read].second; };
    const auto bit = [&](std::size_t read) { return words(read).front() & 1; };
    const auto base = [&](std::size_t read) { return bit(read) == 0 ? table.lowerBase : table.upperBase; };
    for (; reads.size() >= 7; reads = reads.subspan(7)) {
        const std::array<std::uint32_t, 7> expected = {table.controlWord, table.bankWord, base(1),
                                                       table.controlWord, table.bankWord, base(4),
                                                       table.controlWord};
        for (std::size_t read = 0; read < expected.size(); ++read) {
            const std::size_t size = read == 2 || read == 5 ? std::size_t{table.rows} * 2 : 1;
            if (reads[read].first != expected[read] || words(read).size() != size) {
                return std::nullopt;
            }
        }
        Rows rows = usedRows(table, words(2));
        if (bit(0) == bit(3) && bit(3) == bit(6) && rows == usedRows(table, words(5))) {
            return reads.size() == expected.size() ? std::optional(rows) : std::nullopt;
        }
    }
    return std::nullopt;
}

/// The first row that is not less decides.
bool contains(const TableRule& table, const Rows& rows, std::uint64_t wanted) {
    const auto found = std::ranges::find_if(
        rows, [&](std::uint64_t row) { return (row & table.order) >= (wanted & table.order); });
    return found != rows.end() && *found == wanted;
}

Events changes(const TableRule& table, const Rows& before, const Rows& after) {
    Events events;
    const auto pass = [&](char sign, const Rows& rows, const Rows& others) {
        for (const std::uint64_t row : rows) {
            if (!contains(table, others, row) && (row & table.reported) == table.reported) {
                events.push_back(sign + describe(table, row));
            }
        }
    };
    pass('-', before, after);
    pass('+', after, before);
    events.emplace_back(RecordingConsumer::CHANGE_END);
    return events;
}

class LutModelTest : public testing::TestWithParam<const TableRule*> {
protected:
    std::unique_ptr<LutMonitor> createMonitor() {
        if (&m_Table == &IP_LUT) {
            return std::make_unique<IpLutMonitor>(m_Memory, m_Consumer);
        }
        return std::make_unique<PidLutMonitor>(m_Memory, m_Consumer);
    }
    /// One word, as another program may write it at any moment.
    void writeWord() {
        const auto bits = static_cast<std::uint32_t>(m_Random.bits());
        const std::uint32_t base = m_Random.oneIn(2) ? m_Table.lowerBase : m_Table.upperBase;
        const std::uint32_t row = m_Random.oneIn(8) ? m_Table.rows - 1 : m_Random.below(6);
        if (m_Random.oneIn(8)) {
            m_Memory->words[m_Random.oneIn(2) ? m_Table.controlWord : m_Table.bankWord] = bits;
        } else if (m_Random.oneIn(2)) {
            m_Memory->words[base + row * 2] = bits & static_cast<std::uint32_t>(m_Table.drawn >> 32);
        } else {
            m_Memory->words[base + row * 2 + 1] = bits & static_cast<std::uint32_t>(m_Table.drawn);
        }
    }

    const TableRule& m_Table = *GetParam();
    Random m_Random;
    std::shared_ptr<Drivers::WatchedMemory> m_Memory = std::make_shared<Drivers::WatchedMemory>();
    RecordingConsumer m_Consumer;
};
INSTANTIATE_TEST_SUITE_P(Tables, LutModelTest, testing::Values(&IP_LUT, &PID_LUT));

TEST_P(LutModelTest, EveryPollReadsAndReportsByTheRule) {
    const auto monitor = createMonitor();
    Rows known;
    int changesWhileWritten = 0;
    int failures = 0;
    const std::uint32_t states = testNumber("ZEPTFEM_TEST_STATES", 2000) * 256 / m_Table.rows;
    for (std::uint32_t state = 0; state < states; ++state) {
        SCOPED_TRACE(m_Random.origin() + ", state " + std::to_string(state));
        for (std::uint32_t writes = m_Random.below(6); writes > 0; --writes) {
            writeWord();
        }
        std::set<std::uint32_t> writesBefore;  // numbers of loads
        for (std::uint32_t writes = m_Random.oneIn(2) ? m_Random.below(10) : 0; writes > 0; --writes) {
            writesBefore.insert(m_Random.below(10 * m_Table.rows));
        }
        m_Memory->beforeLoad = [&, load = 0U]() mutable {
            if (writesBefore.contains(load++)) {
                writeWord();
            }
        };
        m_Memory->isLost = m_Random.oneIn(20);
        m_Memory->reads.clear();
        const bool hasFailed =
            thrownText<Drivers::DevMemError>([&] { monitor->pollLut(); }) != "nothing thrown";
        const auto rows = stableRows(m_Table, m_Memory->reads);
        ASSERT_TRUE(rows) << "reads too little, too much, or something else";
        ASSERT_TRUE(m_Memory->isLost ? hasFailed || *rows == known : !hasFailed);
        const bool isChange = !hasFailed && *rows != known;
        ASSERT_EQ(std::exchange(m_Consumer.events, {}), isChange ? changes(m_Table, known, *rows) : Events{});
        known = isChange ? *rows : known;
        changesWhileWritten += isChange && !writesBefore.empty() ? 1 : 0;
        failures += hasFailed ? 1 : 0;
    }
    EXPECT_GT(changesWhileWritten, 0);
    EXPECT_GT(failures, 0);
}

/// The rows in use read the same before and after, so only the file's size shows the loss.
TEST(LutMonitor, FileTruncatedAfterItsUsedRowsIsNoticedAndPickedUpAgain) {
    constexpr std::uint32_t SIZE = Drivers::Zep::TSIO_DEVICE.size;
    const TemporaryFolder folder;
    writeFile(folder / "tsio", std::string(SIZE, '\0'));
    const auto device = std::make_shared<Pci::PciIf>(folder / "tsio", SIZE, 0);
    RecordingConsumer consumer;
    IpLutMonitor monitor(device, consumer);
    device->writeBlock32(IP_LUT.lowerBase, {0xEF010203, 0x01051388});
    monitor.pollLut();
    std::filesystem::resize_file(folder / "tsio", 0x2800);
    const auto poll = [&] { return thrownText<Pci::PciError>([&] { monitor.pollLut(); }); };
    unsigned polls = 0;
    while (poll() == "nothing thrown") {
        ASSERT_LT(++polls, 500U) << "at one poll per millisecond, this takes half a second";
    }
    EXPECT_GT(polls, 200U) << "each look at the file is a system call";
    EXPECT_THAT(poll(), testing::EndsWith(" has lost its mapped memory (the file was truncated)."));
    std::filesystem::resize_file(folder / "tsio", SIZE);
    EXPECT_EQ(poll(), "nothing thrown");
    device->write32(IP_LUT.lowerBase + 1, 0);
    monitor.pollLut();
    EXPECT_THAT(consumer.events,
                testing::ElementsAre("+udp://239.1.2.3:5000 5", "end", "-udp://239.1.2.3:5000 5", "end"));
}

}  // namespace
}  // namespace Vel::Utils
