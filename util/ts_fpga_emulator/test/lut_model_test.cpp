#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <map>
#include <set>
#include <span>

#include "fpga_monitoring/iplut_monitor.h"
#include "fpga_monitoring/pidlut_monitor.h"
#include "support.h"
#include "vel/userspace_drivers/interfaces/pci/pciif.h"

// Random tables, read while another program writes them, against the plain rule of what a monitor reads and
// reports.

namespace Vel::Utils {
namespace {

namespace IpLut = Drivers::Zep::IpLut;
namespace PidLut = Drivers::Zep::PidLut;
using Drivers::Zep::BitField;
using Events = std::vector<std::string>;

/// Both words of a table row, the first one in the upper half.
using Row = std::uint64_t;
using Rows = std::vector<Row>;

Row place(const BitField& field, std::uint32_t value) {
    return Row{field.place(value)} << (field.word == 0 ? 32 : 0);
}

std::uint32_t extract(const BitField& field, Row row) {
    return field.extract(static_cast<std::uint32_t>(field.word == 0 ? row >> 32 : row));
}

Row bitsOf(std::initializer_list<BitField> fields) {
    Row bits = 0;
    for (const BitField& field : fields) {
        bits |= place(field, field.mask());
    }
    return bits;
}

struct TableRule {
    const Drivers::Zep::Table& layout;
    std::uint32_t controlWord;  // sampled before, between and after the two reads of the table
    std::uint32_t bankWord;     // read before each of them
    std::array<std::uint32_t, 2> bases;
    Row order;     // bits by which rows are less
    Row equality;  // bits by which rows are equal
    Row used;      // a row counts with any of these bits
    Row reported;  // and yields events with all of these
    Row ends;      // lowest and highest bit of each field, of which random rows consist
    std::string (*describe)(Row);
    std::unique_ptr<LutMonitor> (*create)(std::shared_ptr<Drivers::IMemIf>, IFPGAEventConsumer&,
                                          std::stop_token);
};

template <typename Monitor>
std::unique_ptr<LutMonitor> createMonitor(std::shared_ptr<Drivers::IMemIf> memory,
                                          IFPGAEventConsumer& consumer, std::stop_token stop) {
    return std::make_unique<Monitor>(std::move(memory), consumer, std::move(stop));
}

const TableRule IP_RULE{
    .layout = IpLut::TABLE,
    .controlWord = IpLut::CONTROL.word,
    .bankWord = 0,
    .bases = {IpLut::TABLE.base, IpLut::TABLE.base},
    .order = bitsOf({IpLut::ADDRESS, IpLut::UDP_PORT}),
    .equality = bitsOf({IpLut::ADDRESS, IpLut::UDP_PORT, IpLut::TSIIDX}),
    .used = bitsOf({IpLut::ENABLED}),
    .reported = 0,
    .ends = 0x80000001'01818001,
    .describe =
        [](Row row) {
            const std::uint32_t ip = extract(IpLut::ADDRESS, row);
            const std::uint32_t port = extract(IpLut::UDP_PORT, row);
            return fmt::format("udp://{}.{}.{}.{}{}@{}", ip >> 24, ip >> 16 & 0xFF, ip >> 8 & 0xFF, ip & 0xFF,
                               port == 0 ? "" : ":" + std::to_string(port), extract(IpLut::TSIIDX, row));
        },
    .create = createMonitor<IpLutMonitor>};

const TableRule PID_RULE{
    .layout = PidLut::TABLE,
    .controlWord = PidLut::CONTROL.word,
    .bankWord = PidLut::BANK_SELECT.word,
    .bases = {PidLut::TABLE.base, PidLut::UPPER_BASE},
    .order = bitsOf({PidLut::TSIIDX, PidLut::PID}),
    .equality = bitsOf({PidLut::TSIIDX, PidLut::PID, PidLut::PIDIDX, PidLut::FILTTABIDX, PidLut::OUT_ROUTE,
                        PidLut::CPU_ROUTE}),
    .used = bitsOf({PidLut::OUT_ROUTE, PidLut::CPU_ROUTE}),
    .reported = bitsOf({PidLut::CPU_ROUTE}),
    .ends = 0x00103001'81003801,
    .describe =
        [](Row row) { return fmt::format("{}@{}", extract(PidLut::PID, row), extract(PidLut::TSIIDX, row)); },
    .create = createMonitor<PidLutMonitor>};

/// Either device. Calls back before every word that is read, and keeps what each read returned.
class ScriptedMemory : public Drivers::LinDevMemAccessor {
public:
    struct Read {
        std::uint32_t index;
        std::vector<std::uint32_t> words;
    };

    Drivers::MemSegment getMemSegment() const override { return {}; }
    std::uint32_t read32(std::uint32_t index) override { return readBlock32(index, 1).front(); }
    std::vector<std::uint32_t> readBlock32(std::uint32_t index, std::uint32_t count) override {
        std::vector<std::uint32_t> read(count);
        readBlock32Into(index, read);
        return read;
    }
    void readBlock32Into(std::uint32_t index, std::span<std::uint32_t> read) override {
        for (std::size_t i = 0; i < read.size(); ++i) {
            beforeLoad();
            read[i] = words.at(index + i);
        }
        reads.push_back({index, {read.begin(), read.end()}});
    }
    void verifyMemory() const override {
        if (isLost) {
            throw Drivers::DevMemError("lost", "memory", 1);
        }
    }

    std::vector<std::uint32_t> words = std::vector<std::uint32_t>(Drivers::Zep::ROUTER_DEVICE.size / 4);
    std::function<void()> beforeLoad = [] {};
    bool isLost = false;
    std::vector<Read> reads;
};

constexpr const char* CHANGE_END = "end";

/// Keeps each event as "+" or "-", the URI or the PID, "@" and the TSIIDX.
class RecordingConsumer : public IFPGAEventConsumer {
public:
    void handleEvent(std::unique_ptr<FPGAMonEvent> event) override {
        const auto input = [](char sign, const auto& of) {
            return fmt::format("{}{}@{}", sign, of.getUri(), of.getTSIIDX());
        };
        const auto route = [](char sign, const auto& of) {
            return fmt::format("{}{}@{}", sign, of.getPID(), of.getTSIIDX());
        };
        switch (event->getType()) {
            case FPGAMonEventType::InputTSAdded:
                return m_Events.push_back(input('+', dynamic_cast<FPGAMonEvent_InputTSAdded&>(*event)));
            case FPGAMonEventType::InputTSRemoved:
                return m_Events.push_back(input('-', dynamic_cast<FPGAMonEvent_InputTSRemoved&>(*event)));
            case FPGAMonEventType::CPUPIDAdded:
                return m_Events.push_back(route('+', dynamic_cast<FPGAMonEvent_CPUPIDAdded&>(*event)));
            case FPGAMonEventType::CPUPIDRemoved:
                return m_Events.push_back(route('-', dynamic_cast<FPGAMonEvent_CPUPIDRemoved&>(*event)));
        }
    }
    void handleChangeEnd() override { m_Events.emplace_back(CHANGE_END); }
    Events takeEvents() { return std::exchange(m_Events, {}); }

private:
    Events m_Events;
};

Rows usedRows(const TableRule& table, const std::vector<std::uint32_t>& words) {
    Rows rows;
    for (std::size_t i = 0; i < words.size(); i += 2) {
        const Row row = Row{words[i]} << 32 | words[i + 1];
        if ((row & table.used) != 0) {
            rows.push_back(row & table.equality);
        }
    }
    return rows;
}

/// The used rows that a poll with these reads has to take; nothing if they are not the reads of the rule.
std::optional<Rows> stableRows(const TableRule& table, std::span<const ScriptedMemory::Read> reads) {
    const std::size_t size = std::size_t{table.layout.rows} * 2;
    while (reads.size() >= 7) {
        const auto bit = [&](std::size_t read) { return reads[read].words.front() & 1; };
        const std::array<std::pair<std::uint32_t, std::size_t>, 7> expected = {{{table.controlWord, 1},
                                                                                {table.bankWord, 1},
                                                                                {table.bases[bit(1)], size},
                                                                                {table.controlWord, 1},
                                                                                {table.bankWord, 1},
                                                                                {table.bases[bit(4)], size},
                                                                                {table.controlWord, 1}}};
        for (std::size_t i = 0; i < expected.size(); ++i) {
            if (expected[i] != std::pair(reads[i].index, reads[i].words.size())) {
                return std::nullopt;
            }
        }
        Rows rows = usedRows(table, reads[2].words);
        const bool isStable = bit(0) == bit(3) && bit(3) == bit(6) && rows == usedRows(table, reads[5].words);
        reads = reads.subspan(expected.size());
        if (isStable) {
            return reads.empty() ? std::optional(rows) : std::nullopt;
        }
    }
    return std::nullopt;
}

/// The first row that is not less decides.
bool contains(const TableRule& table, const Rows& rows, Row wanted) {
    for (const Row row : rows) {
        if ((row & table.order) >= (wanted & table.order)) {
            return row == wanted;
        }
    }
    return false;
}

Events changes(const TableRule& table, const Rows& before, const Rows& after) {
    Events events;
    const auto pass = [&](char sign, const Rows& rows, const Rows& others) {
        for (const Row row : rows) {
            if (!contains(table, others, row) && (row & table.reported) == table.reported) {
                events.push_back(sign + table.describe(row));
            }
        }
    };
    pass('-', before, after);
    pass('+', after, before);
    events.emplace_back(CHANGE_END);
    return events;
}

class LutModelTest : public testing::TestWithParam<const TableRule*> {
protected:
    const TableRule& m_Table = *GetParam();
    std::shared_ptr<ScriptedMemory> m_Memory = std::make_shared<ScriptedMemory>();
    RecordingConsumer m_Consumer;
};
INSTANTIATE_TEST_SUITE_P(Tables, LutModelTest, testing::Values(&IP_RULE, &PID_RULE),
                         [](const auto& test) { return test.param == &IP_RULE ? "IpLut" : "PidLut"; });

TEST_P(LutModelTest, EveryPollReadsAndReportsByTheRule) {
    Random random;
    const std::uint32_t loadsPerAttempt = 2 * 2 * m_Table.layout.rows + 5;
    const Row drawn = m_Table.ends | ~(m_Table.equality | m_Table.used);
    std::vector<std::uint32_t>& words = m_Memory->words;
    // One word, as another program may write it at any moment.
    const auto writeWord = [&] {
        const std::uint32_t row = random.pick({0U, 1U, 2U, 3U, 4U, 5U, m_Table.layout.rows - 1});
        const std::uint32_t half = random.below(2);
        const auto bits = static_cast<std::uint32_t>(random.bits());
        switch (random.below(10)) {
            case 0:
                words[m_Table.controlWord] ^= 1;
                break;
            case 1:
                words[m_Table.bankWord] ^= random.oneIn(4) ? 1 : bits & ~1U;
                break;
            default:
                words[m_Table.bases[random.below(2)] + row * 2 + half] =
                    bits & static_cast<std::uint32_t>(half == 0 ? drawn >> 32 : drawn);
        }
    };
    const auto sortRows = [&](std::uint32_t base) {
        std::array<Row, 6> rows{};
        for (std::size_t i = 0; i < rows.size(); ++i) {
            rows[i] = Row{words[base + 2 * i]} << 32 | words[base + 2 * i + 1];
        }
        std::ranges::sort(rows, {}, [&](Row row) { return row & m_Table.order; });
        for (std::size_t i = 0; i < rows.size(); ++i) {
            words[base + 2 * i] = static_cast<std::uint32_t>(rows[i] >> 32);
            words[base + 2 * i + 1] = static_cast<std::uint32_t>(rows[i]);
        }
    };

    std::unique_ptr<LutMonitor> monitor;
    Rows known;
    const std::uint32_t states = testNumber("ZEPTFEM_TEST_STATES", 2000) * 256 / m_Table.layout.rows;
    for (std::uint32_t state = 0; state < states; ++state) {
        SCOPED_TRACE(random.origin() + ", state " + std::to_string(state));
        for (std::uint32_t writes = random.below(6); writes > 0; --writes) {
            writeWord();
        }
        if (random.oneIn(2)) {
            sortRows(m_Table.bases[random.below(2)]);
        }
        std::vector<std::uint32_t> writesBefore;  // numbers of loads, last one first
        for (std::uint32_t writes = random.pick({0U, 1U, 2U, 8U}); writes > 0; --writes) {
            writesBefore.push_back(random.below(2 * loadsPerAttempt));
        }
        std::ranges::sort(writesBefore, std::greater());
        const std::uint32_t failingLoad = random.oneIn(20) ? random.below(loadsPerAttempt) : ~0U;
        std::uint32_t loads = 0;
        m_Memory->beforeLoad = [&] {
            for (; !writesBefore.empty() && writesBefore.back() == loads; writesBefore.pop_back()) {
                writeWord();
            }
            if (loads++ == failingLoad) {
                throw Drivers::DevMemError("denied", "memory", 1);
            }
        };
        m_Memory->isLost = random.oneIn(20);
        m_Memory->reads.clear();

        const bool isStart = !monitor || random.oneIn(20);
        const CapturedLog log;
        bool hasFailed = false;
        try {
            if (isStart) {
                monitor.reset();
                known.clear();
                monitor = m_Table.create(m_Memory, m_Consumer, {});
            } else {
                monitor->pollLut();
            }
        } catch (const Drivers::DevMemError&) {
            hasFailed = true;
        }

        Events expected;
        if (hasFailed) {
            ASSERT_TRUE(m_Memory->isLost || loads > failingLoad);
        } else {
            const auto rows = stableRows(m_Table, m_Memory->reads);
            ASSERT_TRUE(rows) << "it reads too little, too much, or something else";
            ASSERT_LE(loads, failingLoad);
            ASSERT_TRUE(!m_Memory->isLost || (!isStart && *rows == known)) << "rows of a lost memory";
            if (isStart) {
                const std::string warning = fmt::format(
                    "[warning] The {} already holds {} used rows at start. They are taken as added now.",
                    m_Table.layout.name, rows->size());
                ASSERT_EQ(log.lines(), rows->empty() ? Events{} : Events{warning});
            } else if (*rows != known) {
                expected = changes(m_Table, std::exchange(known, *rows), *rows);
            }
        }
        ASSERT_EQ(m_Consumer.takeEvents(), expected);
    }
}

TEST_P(LutModelTest, StopRequestEndsTheWaitForATableThatIsNeverStable) {
    constexpr std::uint32_t LOADS = 50'000;
    std::stop_source stop;
    std::uint32_t loads = 0;
    m_Memory->beforeLoad = [&] {
        m_Memory->words[m_Table.bases[0] + 1] = static_cast<std::uint32_t>(m_Table.used) | ++loads % 0x1000;
        if (loads == LOADS) {
            stop.request_stop();
        }
    };
    const auto monitor = m_Table.create(m_Memory, m_Consumer, stop.get_token());
    EXPECT_GE(loads, LOADS);
    m_Memory->reads.clear();
    monitor->pollLut();
    EXPECT_EQ(m_Memory->reads.size(), 0U);
    EXPECT_EQ(m_Consumer.takeEvents(), Events{});
}

TEST(LutMonitor, EventsOfATableThatAnotherThreadWritesAddUpToIt) {
    Random random;
    SCOPED_TRACE(random.origin());
    const TempFolder folder;
    const std::string path = folder / "tsio";
    constexpr std::uint32_t SIZE = Drivers::Zep::TSIO_DEVICE.size;
    writeFile(path, std::string(SIZE, '\0'));
    RecordingConsumer consumer;
    IpLutMonitor monitor(std::make_shared<Pci::PciIf>(path, SIZE, 0), consumer);

    std::set<std::string> written;
    std::map<std::uint32_t, std::string> last;  // by row
    std::atomic<bool> isWriting = true;
    std::jthread writer([&] {
        Pci::PciIf device(path, SIZE, 0);
        const std::uint32_t writes = testNumber("ZEPTFEM_TEST_STATES", 2000);
        for (std::uint32_t version = 1; version <= writes; ++version) {
            // Ascending keys in ascending rows, none of which comes back.
            const std::uint32_t index = random.below(IpLut::TABLE.rows);
            const Row row = place(IpLut::ADDRESS, index << 24 | version) | place(IpLut::UDP_PORT, version) |
                            place(IpLut::TSIIDX, index) | IP_RULE.used;
            const std::uint32_t word = IpLut::TABLE.base + 2 * index;
            device.write32(word + 1, 0);
            last.erase(index);
            if (!random.oneIn(4)) {
                last[index] = *written.insert(IP_RULE.describe(row)).first;
                device.write32(word, static_cast<std::uint32_t>(row >> 32));
                device.write32(word + 1, static_cast<std::uint32_t>(row));
            }
            if (random.oneIn(10)) {
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
        }
        isWriting = false;
    });
    while (isWriting) {
        monitor.pollLut();
    }
    writer.join();
    monitor.pollLut();

    std::set<std::string> present;
    for (const std::string& event : consumer.takeEvents()) {
        const std::string row = event.substr(1);
        if (event != CHANGE_END) {
            ASSERT_TRUE(written.contains(row)) << event << " mixes two rows";
            ASSERT_TRUE(event[0] == '+' ? present.insert(row).second : present.erase(row) == 1) << event;
        }
    }
    std::set<std::string> expected;
    std::ranges::transform(last, std::inserter(expected, expected.end()),
                           [](auto& row) { return row.second; });
    EXPECT_EQ(present, expected);
}

}  // namespace
}  // namespace Vel::Utils
