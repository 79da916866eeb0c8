#include "fpga_monitoring/lut_monitor.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include "allocation_count.h"
#include "fpga_monitoring/iplut_monitor.h"
#include "fpga_monitoring/pidlut_monitor.h"
#include "support.h"
#include "table_support.h"
#include "vel/userspace_drivers/interfaces/pci/pciif.h"

namespace Vel::Utils {
namespace {

namespace IpLut = Drivers::Zep::IpLut;
namespace PidLut = Drivers::Zep::PidLut;
using Drivers::Zep::IpInEntry;
using Drivers::Zep::PidLutEntry;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

/// What differs between the tables, for the rules that both share. `version` is some field of a row.
struct TableCase {
    std::string name;
    std::function<std::unique_ptr<LutMonitor>(std::shared_ptr<Drivers::IMemIf>, IFPGAEventConsumer&,
                                              std::stop_token)>
        create;
    std::uint32_t controlWord;
    std::uint32_t spareWord;
    std::uint32_t spareBits;
    std::function<void(TableMemory&, std::uint32_t index, std::uint32_t version, bool used)> write;
    std::function<std::string(std::uint32_t index, std::uint32_t version)> event;
};

std::ostream& operator<<(std::ostream& out, const TableCase& table) {
    return out << table.name;
}

template <typename Monitor>
std::unique_ptr<LutMonitor> createMonitor(std::shared_ptr<Drivers::IMemIf> memory,
                                          IFPGAEventConsumer& consumer, std::stop_token stop) {
    return std::make_unique<Monitor>(std::move(memory), consumer, std::move(stop));
}

const TableCase IP_LUT{
    "IP LUT",
    createMonitor<IpLutMonitor>,
    IpLut::CONTROL.word,
    IpLut::TABLE.base + 1,
    0xFE000000,
    [](TableMemory& memory, std::uint32_t index, std::uint32_t version, bool used) {
        memory.setRow(IpLut::TABLE, index, IpInEntry(index, "239.0.0." + std::to_string(index), version));
        memory.words[IpLut::TABLE.base + 2 * index + 1] &= used ? ~0U : ~IpLut::ENABLED.place(1);
    },
    [](std::uint32_t index, std::uint32_t version) {
        return fmt::format("udp://239.0.0.{}:{}@{}", index, version, index);
    }};

const TableCase PID_LUT{
    "PID LUT",
    createMonitor<PidLutMonitor>,
    PidLut::CONTROL.word,
    PidLut::TABLE.base + 1,
    0x00FFC000,
    [](TableMemory& memory, std::uint32_t index, std::uint32_t version, bool used) {
        memory.setRow(PidLut::TABLE, index, PidLutEntry(index, version, 1, false, used));
    },
    [](std::uint32_t index, std::uint32_t version) { return fmt::format("{}@{}", version, index); }};

class LutMonitorTest : public testing::TestWithParam<TableCase> {
protected:
    std::vector<std::string> poll() {
        m_Monitor->pollLut();
        return m_Consumer.takeEvents();
    }
    void write(std::uint32_t index, std::uint32_t version, bool used = true) {
        m_Table.write(*m_Memory, index, version, used);
    }
    void writeTwoRows(std::uint32_t version) {
        write(0, version);
        write(1, version);
    }
    std::string added(std::uint32_t index, std::uint32_t version) {
        return "+" + m_Table.event(index, version);
    }
    std::string removed(std::uint32_t index, std::uint32_t version) {
        return "-" + m_Table.event(index, version);
    }
    auto twoRowsChanged(std::uint32_t from, std::uint32_t to) {
        return ElementsAre(removed(0, from), removed(1, from), added(0, to), added(1, to));
    }

    const TableCase& m_Table = GetParam();
    CapturedLog m_Log;
    std::shared_ptr<TableMemory> m_Memory = std::make_shared<TableMemory>();
    RecordingConsumer m_Consumer;
    std::stop_source m_Stop;
    std::unique_ptr<LutMonitor> m_Monitor = m_Table.create(m_Memory, m_Consumer, m_Stop.get_token());
};

class IpLutMonitorTest : public LutMonitorTest {
protected:
    void set(std::uint32_t index, const IpInEntry& row) { m_Memory->setRow(IpLut::TABLE, index, row); }
};
INSTANTIATE_TEST_SUITE_P(, IpLutMonitorTest, testing::Values(IP_LUT));

TEST_P(IpLutMonitorTest, AnyChangeOfAnEnabledRowIsARemovalAndAnAddition) {
    set(7, {3, "239.1.2.3", 5000});
    EXPECT_THAT(poll(), ElementsAre("+udp://239.1.2.3:5000@3"));
    set(7, {3, "239.1.2.3", 5001});
    EXPECT_THAT(poll(), ElementsAre("-udp://239.1.2.3:5000@3", "+udp://239.1.2.3:5001@3"));
    set(7, {3, "239.1.2.4", 5001});
    EXPECT_THAT(poll(), ElementsAre("-udp://239.1.2.3:5001@3", "+udp://239.1.2.4:5001@3"));
    set(7, {4, "239.1.2.4", 5001});
    EXPECT_THAT(poll(), ElementsAre("-udp://239.1.2.4:5001@3", "+udp://239.1.2.4:5001@4"));
    write(7, 0, false);
    set(255, {4, "239.1.2.4", 5001});
    EXPECT_THAT(poll(), IsEmpty()) << "the same input in another row";
    set(255, {255, "239.255.255.255", 0});
    EXPECT_THAT(poll(), ElementsAre("-udp://239.1.2.4:5001@4", "+udp://239.255.255.255@255"));
}

TEST_P(IpLutMonitorTest, RowsOutOfAscendingOrderAreRemovedAndAddedAgain) {
    set(0, {0, "239.1.2.4", 5000});
    set(1, {1, "239.1.2.3", 5000});
    EXPECT_THAT(poll(), ElementsAre("+udp://239.1.2.4:5000@0", "+udp://239.1.2.3:5000@1"));
    set(2, {2, "239.1.2.5", 5000});
    EXPECT_THAT(poll(),
                ElementsAre("-udp://239.1.2.3:5000@1", "+udp://239.1.2.3:5000@1", "+udp://239.1.2.5:5000@2"));
    m_Memory->words[m_Table.spareWord] ^= m_Table.spareBits;
    EXPECT_THAT(poll(), IsEmpty()) << "but only when some row has changed";
}

using PidLutMonitorTest = LutMonitorTest;
INSTANTIATE_TEST_SUITE_P(, PidLutMonitorTest, testing::Values(PID_LUT));

TEST_P(PidLutMonitorTest, CpuRouteIsTheEventAndAnyOtherChangeOfItsRowRenewsIt) {
    const auto changed = [&](std::uint32_t pidIdx, std::uint32_t filtTab, bool out, bool cpu) {
        m_Memory->setRow(PidLut::TABLE, 2047, PidLutEntry(255, 8191, pidIdx, filtTab, out, cpu));
        return poll();
    };
    EXPECT_THAT(changed(7, 255, true, false), IsEmpty()) << "the out route alone";
    EXPECT_THAT(changed(7, 255, true, true), ElementsAre("+8191@255"));
    EXPECT_THAT(changed(7, 3, true, true), ElementsAre("-8191@255", "+8191@255")) << "FiltTabIDX";
    EXPECT_THAT(changed(8, 3, true, true), ElementsAre("-8191@255", "+8191@255")) << "PIDIDX";
    EXPECT_THAT(changed(8, 3, false, true), ElementsAre("-8191@255", "+8191@255")) << "out route";
    EXPECT_THAT(changed(8, 3, true, false), ElementsAre("-8191@255"));
    EXPECT_THAT(changed(8, 4, true, false), IsEmpty()) << "a row without CPU route";
}

TEST_P(PidLutMonitorTest, BankFlipPutsTheOtherTableInForce) {
    auto upper = PidLut::TABLE;
    upper.base = PidLut::UPPER_BASE;
    writeTwoRows(0x100);
    EXPECT_THAT(poll(), ElementsAre("+256@0", "+256@1"));
    m_Memory->setRow(upper, 0, PidLutEntry(1, 0x100, 1, false, true));
    m_Memory->setRow(upper, 5, PidLutEntry(1, 0x101, 1, false, true));
    EXPECT_THAT(poll(), IsEmpty()) << "the other bank is being prepared";
    m_Memory->words[PidLut::BANK_SELECT.word] |= PidLut::BANK_SELECT.place(1);
    EXPECT_THAT(poll(), ElementsAre("-256@0", "+257@1"));
}

INSTANTIATE_TEST_SUITE_P(Tables, LutMonitorTest, testing::Values(IP_LUT, PID_LUT));

TEST_P(LutMonitorTest, SpareBitsAndUnusedRowsAreNoChangeAndDoNotMakeTheTableUnstable) {
    writeTwoRows(5);
    poll();
    m_Memory->words[m_Table.spareWord] |= m_Table.spareBits;
    write(9, 1, false);
    EXPECT_THAT(poll(), IsEmpty());

    // While they change between any two reads, polls end, with and without a change beside them.
    std::uint32_t reads = 0;
    m_Memory->onRead = [&] {
        ASSERT_LT(++reads, 1000U) << "the poll does not end";
        m_Memory->words[m_Table.spareWord] ^= m_Table.spareBits;
        write(9, reads, false);
    };
    EXPECT_THAT(poll(), IsEmpty());
    write(1, 7);
    EXPECT_THAT(poll(), ElementsAre(removed(1, 5), added(1, 7)));
}

TEST_P(LutMonitorTest, WriterBetweenAnyTwoReadsIsNeverSeenHalfway) {
    for (std::uint32_t at = 1; at < 12; ++at) {
        writeTwoRows(1000 + at);
        poll();
        std::uint32_t reads = 0;
        m_Memory->onRead = [&] {
            if (++reads == at || reads == at + 1) {
                write(reads - at, 2000 + at);
            }
        };
        auto events = poll();
        std::ranges::move(poll(), std::back_inserter(events));
        EXPECT_THAT(events, twoRowsChanged(1000 + at, 2000 + at)) << "from read " << at << " on";
        m_Memory->onRead = nullptr;
    }
}

TEST_P(LutMonitorTest, ControlBitThatDiffersInAnyOfThreeSamplesRestartsTheReading) {
    writeTwoRows(1);
    poll();
    std::uint32_t version = 1;
    const auto readsOfAPoll = [&](auto flipsBefore) {
        std::uint32_t reads = 0;
        m_Memory->onRead = [&] { m_Memory->words[m_Table.controlWord] ^= flipsBefore(++reads) ? 1 : 0; };
        writeTwoRows(version + 1);
        EXPECT_THAT(poll(), twoRowsChanged(version, version + 1));
        ++version;
        return reads;
    };
    const std::uint32_t quiet = readsOfAPoll([](auto) { return false; });
    EXPECT_EQ(readsOfAPoll([](auto read) { return read == 1; }), quiet) << "flipped before the first sample";
    for (std::uint32_t at = 2; at <= quiet; ++at) {
        EXPECT_GT(readsOfAPoll([=](auto read) { return read == at; }), quiet) << "flipped before read " << at;
    }
    EXPECT_GT(readsOfAPoll([=](auto read) { return read == 2 || read == quiet; }), quiet)
        << "only the middle sample differs";
}

TEST_P(LutMonitorTest, TableThatNeverHoldsStillIsReadUntilItDoesOrUntilAStopRequest) {
    writeTwoRows(1);
    poll();
    std::uint32_t reads = 0;
    m_Memory->onRead = [&] { write(0, std::min(++reads, 1000U)); };
    write(1, 9);
    EXPECT_THAT(poll(), ElementsAre(removed(0, 1), removed(1, 1), added(0, 1000), added(1, 9)));
    reads = 0;
    m_Memory->onRead = [&] {
        write(0, ++reads);
        if (reads == 1000) {
            m_Stop.request_stop();
        }
    };
    EXPECT_THAT(poll(), IsEmpty());
    EXPECT_GE(reads, 1000U);
}

TEST_P(LutMonitorTest, RowsThatAreThereAtTheStartAreWarnedOfAndAddedByTheFirstPoll) {
    EXPECT_THAT(m_Log.lines(), IsEmpty()) << "the table was empty";
    writeTwoRows(5);
    m_Monitor = m_Table.create(m_Memory, m_Consumer, {});
    EXPECT_THAT(m_Log.lines(), ElementsAre("[warning] The " + m_Table.name +
                                           " already holds 2 used rows at start. "
                                           "They are taken as added now."));
    EXPECT_THAT(poll(), ElementsAre(added(0, 5), added(1, 5)));
    EXPECT_THAT(poll(), IsEmpty());
}

TEST_P(LutMonitorTest, ErrorLeavesTheCacheUntouchedAndReachesTheCaller) {
    writeTwoRows(5);
    poll();
    for (std::uint32_t at = 1; at < 8; ++at) {
        writeTwoRows(5 + at);
        std::uint32_t reads = 0;
        m_Memory->onRead = [&] {
            if (++reads == at) {
                throw Drivers::DevMemError("gone", "here", 1);
            }
        };
        EXPECT_EQ(thrownText<Drivers::DevMemError>([this] { m_Monitor->pollLut(); }),
                  "Device memory Error: gone");
        reads = 0;
        EXPECT_THROW(m_Table.create(m_Memory, m_Consumer, {}), Drivers::DevMemError);
        m_Memory->onRead = nullptr;
        EXPECT_THAT(poll(), twoRowsChanged(4 + at, 5 + at)) << "error at read " << at;
    }
}

TEST_P(LutMonitorTest, PollWithoutChangeAllocatesNothing) {
    writeTwoRows(5);
    poll();
    const std::size_t before = allocationCount();
    m_Monitor->pollLut();
    EXPECT_EQ(allocationCount() - before, 0U);
}

TEST_P(LutMonitorTest, FileTruncatedUnderTheMappingIsNotTakenForAnEmptyTable) {
    const TempFolder folder;
    const std::string path = folder / "device";
    writeTwoRows(5);
    // Behind the first page, which holds the control bit and the bank select bit, and in the middle of a row.
    for (const std::uint64_t length :
         {static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE)), m_Table.spareWord * 4UL}) {
        writeFile(path, {reinterpret_cast<const char*>(m_Memory->words.data()), TableMemory::SIZE});
        m_Monitor = m_Table.create(std::make_shared<Pci::PciIf>(path, TableMemory::SIZE, 0), m_Consumer, {});
        EXPECT_THAT(poll(), ElementsAre(added(0, 5), added(1, 5)));
        std::filesystem::resize_file(path, length);
        for (int i = 0; i < 2; ++i) {
            EXPECT_THAT(thrownText<Pci::PciError>([&] { m_Monitor->pollLut(); }),
                        AllOf(StartsWith("PCI Error: "), HasSubstr(path)));
            EXPECT_THAT(m_Consumer.takeEvents(), IsEmpty());
        }
        // With its size back, it is the file's content that counts: no row is left.
        std::filesystem::resize_file(path, 0);
        std::filesystem::resize_file(path, TableMemory::SIZE);
        EXPECT_THAT(poll(), ElementsAre(removed(0, 5), removed(1, 5)));
    }
}

}  // namespace
}  // namespace Vel::Utils
