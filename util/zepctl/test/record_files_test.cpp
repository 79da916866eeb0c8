#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <thread>

#include "record_test_support.h"
#include "records/record_reader.h"
#include "records/record_split.h"

namespace Vel::Zepctl {
namespace {

/// TSIIDX of every record up to the end.
std::vector<std::uint32_t> readToEnd(RecordReader& reader) {
    std::vector<std::uint32_t> inputs;
    do {
        reader.waitForData();
        const auto records = reader.read();
        EXPECT_EQ(records.size() % Ts::RECORD_SIZE, 0U);
        for (std::size_t at = 0; at < records.size(); at += Ts::RECORD_SIZE) {
            inputs.push_back(RecordView(&records[at]).getTsiidx());
        }
    } while (!reader.isAtEnd());
    return inputs;
}

std::vector<TestRecord> numberedRecords(std::uint32_t count) {
    std::vector<TestRecord> records;
    for (std::uint32_t i = 0; i < count; ++i) {
        records.push_back({.tsiidx = i});
    }
    return records;
}

TEST(RecordReader, GivesWholeRecordsAcrossBlocksAndTellsTheTornRest) {
    const ScratchDirectory scratch;
    Bytes stream = join(numberedRecords(5000));
    stream.resize(stream.size() - 1);
    RecordReader reader(scratch.write("file", stream));
    EXPECT_EQ(reader.getSize(), stream.size());
    const auto inputs = readToEnd(reader);
    ASSERT_EQ(inputs.size(), 4999U);
    EXPECT_EQ(inputs.back(), 4998U);
    EXPECT_EQ(reader.getTornBytes(), 191U);
}

TEST(RecordReader, WaitsForTheWriterOfAFifoAndMendsRecordsThatComeInPieces) {
    const ScratchDirectory scratch;
    const std::string fifo = scratch.file("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    RecordReader reader(fifo);
    EXPECT_EQ(reader.getSize(), 0U);
    const Bytes stream = join(numberedRecords(40));
    std::thread writer([&] {
        const CppUtil::FileDescriptor file(::open(fifo.c_str(), O_WRONLY));
        for (std::size_t at = 0; at < stream.size(); at += 100) {
            EXPECT_GT(::write(file.get(), &stream[at], std::min<std::size_t>(100, stream.size() - at)), 0);
        }
    });
    EXPECT_EQ(readToEnd(reader).size(), 40U);
    EXPECT_EQ(reader.getTornBytes(), 0U);
    writer.join();
}

TEST(RecordReader, FollowsAFileThatGrowsAndStartsAnewWhereItWasEmptied) {
    const ScratchDirectory scratch;
    const Bytes records = join(numberedRecords(3));
    RecordReader reader(scratch.write("file", Bytes(records.begin(), records.begin() + 300)));
    EXPECT_EQ(readToEnd(reader), (std::vector<std::uint32_t>{0}));
    scratch.write("file", records);
    EXPECT_FALSE(reader.restartIfTruncated());
    EXPECT_EQ(readToEnd(reader), (std::vector<std::uint32_t>{1, 2}));
    scratch.write("file", join({{.tsiidx = 9}}));
    EXPECT_TRUE(reader.restartIfTruncated());
    EXPECT_EQ(readToEnd(reader), (std::vector<std::uint32_t>{9}));
    EXPECT_EQ(reader.getTornBytes(), 0U);
}

TEST(RecordReader, NamesWhatCannotBeRead) {
    const ScratchDirectory scratch;
    const std::string directory = scratch.file("");
    EXPECT_EQ(textOf<CommandError>([&] { RecordReader(scratch.file("none")); }),
              "Cannot open " + scratch.file("none") + ": No such file or directory");
    EXPECT_EQ(textOf<CommandError>([&] { RecordReader(directory).read(); }),
              "Cannot read " + directory + ": Is a directory");
}

class Split : public testing::Test {
protected:
    const ScratchDirectory m_Scratch;
    const CppUtil::FileDescriptor m_Source{::open("/dev/null", O_RDONLY)};

    RecordSplit split(const std::string& directory) const {
        return {m_Scratch.file(directory), m_Source.get()};
    }
};

Bytes packetsOf(const std::vector<TestRecord>& records) {
    Bytes packets;
    for (const TestRecord& record : records) {
        const Bytes bytes = record.bytes();
        packets.insert(packets.end(), bytes.begin() + Ts::RECORD_HEADER_SIZE, bytes.end());
    }
    return packets;
}

TEST_F(Split, WritesTheGoodPacketsOfEachInputInOrderAndLogsTheRest) {
    std::filesystem::create_directories(m_Scratch.file("a/b"));
    m_Scratch.write("a/b/tsiidx-000.ts", Bytes(1000, 1));
    m_Scratch.write("a/b/tsiidx-004.ts", Bytes(10, 1));
    std::vector<TestRecord> long0;
    for (std::uint32_t i = 0; i < 1000; ++i) {
        long0.push_back({.tsiidx = 0, .pid = i});
    }
    auto split = this->split("a/b");
    split.add(join(long0));
    split.add(
        join({{.tsiidx = 255}, {.tsiidx = 0, .sync = 0}, {.tsiidx = 256}, {.tsiidx = 255, .counter = 5}}));
    split.end(7);
    EXPECT_EQ(m_Scratch.read("a/b/tsiidx-000.ts"), packetsOf(long0));
    EXPECT_EQ(m_Scratch.read("a/b/tsiidx-255.ts"), packetsOf({{}, {.counter = 5}}));
    EXPECT_EQ(m_Scratch.read("a/b/tsiidx-004.ts"), Bytes(10, 1));
    ASSERT_EQ(split.getOutputs().size(), 2U);
    EXPECT_EQ(split.getOutputs()[1]->getPackets(), 2U);
    EXPECT_EQ(split.getFaults().toString(),
              "1 bad sync byte, 1 unknown TSIIDX value, 1 torn record; the first at record 1001 (byte "
              "192192): "
              "TSIIDX 0: sync byte 0x00, expected 0x47");
}

TEST_F(Split, TellsThatTheDiskIsFullOrTheDirectoryIsNone) {
    std::filesystem::create_directory(m_Scratch.file("full"));
    std::filesystem::create_symlink("/dev/full", m_Scratch.file("full/tsiidx-003.ts"));
    auto split = this->split("full");
    split.add(join({{}}));
    EXPECT_EQ(textOf<CommandError>([&] { split.end(0); }),
              "Cannot write " + m_Scratch.file("full/tsiidx-003.ts") + ": No space left on device");
    m_Scratch.write("file", {});
    EXPECT_EQ(textOf<CommandError>([&] { this->split("file"); }),
              "Cannot create directory " + m_Scratch.file("file") + ": Not a directory");
}

TEST_F(Split, DoesNotOverwriteWhatItReads) {
    const Bytes records = join({{}});
    const RecordReader reader(m_Scratch.write("tsiidx-003.ts", records));
    RecordSplit split(m_Scratch.file("."), reader.getDescriptor());
    EXPECT_THROW(split.add(records), CommandError);
    EXPECT_EQ(m_Scratch.read("tsiidx-003.ts"), records);
}

}  // namespace
}  // namespace Vel::Zepctl
