#include "records/record_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "record_test_support.h"

namespace Vel::Zepctl {
namespace {

/// Reads once. Returns the TSIIDX of every record as a digit.
std::string readOnce(RecordReader& reader) {
    std::string result;
    const auto records = reader.read();
    for (std::size_t at = 0; at < records.size(); at += Ts::RECORD_SIZE) {
        result += std::to_string(Ts::readRecordHeader(&records[at]));
    }
    return result;
}

const std::string RECORDS = join({{.tsiidx = 0}, {.tsiidx = 1}, {.tsiidx = 2}, {.tsiidx = 3}});

TEST(RecordReader, JoinsRecordsOfAFifoThatComeInPieces) {
    const ScratchDirectory scratch;
    ASSERT_EQ(::mkfifo("fifo", 0600), 0);
    RecordReader reader("fifo");
    EXPECT_FALSE(reader.waitForData(std::chrono::milliseconds(1))) << "waits for the first writer";
    CppUtil::FileDescriptor writer(::open("fifo", O_WRONLY));
    std::string read;
    for (std::size_t at = 0; at < 767; at += 59) {
        ASSERT_EQ(::write(writer.get(), &RECORDS[at], 59), 59);
        read += readOnce(reader);
    }
    EXPECT_EQ(readOnce(reader), "");
    EXPECT_FALSE(reader.isAtEnd()) << "nothing is there for now";
    writer.close();
    EXPECT_EQ(read + readOnce(reader), "012");
    EXPECT_TRUE(reader.isAtEnd());
    EXPECT_EQ(reader.getTornBytes(), 191U);
}

TEST(RecordReader, FollowsAFileThatGrowsAndRestartsWhenItIsTruncated) {
    const ScratchDirectory scratch;
    writeFile("file", RECORDS.substr(0, 300));
    RecordReader reader("file");
    EXPECT_EQ(readOnce(reader), "0");
    writeFile("file", RECORDS);
    EXPECT_FALSE(reader.restartIfTruncated());
    EXPECT_EQ(readOnce(reader), "123");
    writeFile("file", join({{.tsiidx = 9}}) + "torn");
    EXPECT_TRUE(reader.restartIfTruncated());
    EXPECT_EQ(readOnce(reader), "9");
    EXPECT_EQ(reader.getTornBytes(), 4U);
}

}  // namespace
}  // namespace Vel::Zepctl
