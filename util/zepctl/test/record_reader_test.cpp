#include "records/record_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <thread>

#include "record_test_support.h"

namespace Vel::Zepctl {
namespace {

using Tsiidxs = std::vector<std::uint32_t>;

/// TSIIDX of every record up to the end.
Tsiidxs readToEnd(RecordReader& reader) {
    Tsiidxs result;
    do {
        reader.waitForData();
        const auto records = reader.read();
        for (std::size_t at = 0; at < records.size(); at += Ts::RECORD_SIZE) {
            result.push_back(Ts::readRecordHeader(&records[at]));
        }
    } while (!reader.isAtEnd());
    return result;
}

TEST(RecordReader, WaitsForTheWriterOfAFifoAndJoinsRecordsThatComeInPieces) {
    const ScratchDirectory scratch;
    const std::string fifo = scratch.file("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    RecordReader reader(fifo);
    const std::string stream = join({{.tsiidx = 0}, {.tsiidx = 1}, {.tsiidx = 2}, {.tsiidx = 3}});
    std::thread writer([&] {
        const CppUtil::FileDescriptor file(::open(fifo.c_str(), O_WRONLY));
        for (std::size_t at = 0; at + 1 < stream.size(); at += 59) {  // 59 divides 767
            EXPECT_EQ(::write(file.get(), &stream[at], 59), 59);
        }
    });
    EXPECT_EQ(readToEnd(reader), (Tsiidxs{0, 1, 2}));
    EXPECT_EQ(reader.getTornBytes(), 191U);
    writer.join();
}

TEST(RecordReader, FollowsAFileThatGrowsAndRestartsWhenItIsTruncated) {
    const ScratchDirectory scratch;
    const std::string stream = join({{.tsiidx = 0}, {.tsiidx = 1}, {.tsiidx = 2}});
    RecordReader reader(scratch.write("file", stream.substr(0, 300)));
    EXPECT_EQ(readToEnd(reader), (Tsiidxs{0}));
    scratch.write("file", stream);
    EXPECT_FALSE(reader.restartIfTruncated());
    EXPECT_EQ(readToEnd(reader), (Tsiidxs{1, 2}));
    scratch.write("file", join({{.tsiidx = 9}}) + "torn");
    EXPECT_TRUE(reader.restartIfTruncated());
    EXPECT_EQ(readToEnd(reader), (Tsiidxs{9}));
    EXPECT_EQ(reader.getTornBytes(), 4U);
}

}  // namespace
}  // namespace Vel::Zepctl
