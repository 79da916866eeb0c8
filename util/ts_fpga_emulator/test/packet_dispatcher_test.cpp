#include "tspacket_streaming/packet_dispatcher.h"

#include <sys/stat.h>

#include "support.h"
#include "thrown_text.h"
#include "vel/ts_basics/ts_error.h"

namespace Vel::Utils {
namespace {

TEST(PacketDispatcher, RecordIsTheWholeBufferAndAFailureIsReportedByEveryLaterCall) {
    const TemporaryFolder folder;
    auto packet = makePacket(0x100);
    for (const std::string& path :
         {folder / "missing/records", std::string("/dev/full"), folder / "records"}) {
        PacketDispatcher dispatcher(path);
        Ts::LowlevInTSPacket dead;
        EXPECT_THROW(dispatcher.dispatch(dead), Ts::TsPacketError);
        if (!path.ends_with("/missing/records")) {
            EXPECT_NO_THROW(dispatcher.dispatch(packet));
        }
        for (int call = 0; call < 2 && path != folder / "records"; ++call) {
            EXPECT_EQ(thrownText<CppUtil::IOError>([&] { dispatcher.dispatch(packet); }),
                      "IOErrorr: Failed writing TS packets to file: \"" + path + "\"");
        }
    }
    EXPECT_EQ(readFile(folder / "records"), TestPacket{}.record(0));
}

TEST(PacketDispatcher, ThreadsDoNotMixTheirRecordsAndAStopEndsTheOutput) {
    constexpr std::uint32_t SIZE = 1'000'000;  // more than a pipe holds, so that a record is written in parts
    constexpr std::uint32_t RECORDS = 10;      // of each thread
    const CapturedLog log;
    const TemporaryFolder folder;
    const std::string path = folder / "fifo";
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    std::fstream reader(path, std::ios::in | std::ios::out | std::ios::binary);
    std::stop_source stop;
    PacketDispatcher dispatcher(path, stop.get_token());
    const auto write = [&](char content, std::uint32_t records) {
        auto packet = Ts::LowlevInTSPacket::create<SIZE>();
        std::fill_n(packet.getWriteDataPtr(), SIZE, content);
        for (; records > 0; --records) {
            dispatcher.dispatch(packet);
        }
    };
    {
        const std::jthread first(write, 'a', RECORDS);
        const std::jthread second(write, 'b', RECORDS);
        std::string record(SIZE, '\0');
        for (std::uint32_t i = 0; i < 2 * RECORDS; ++i) {
            reader.read(record.data(), SIZE);
            EXPECT_EQ(record.find_first_not_of(record[0]), std::string::npos) << "record " << i;
        }
    }
    stop.request_stop();
    write('c', 2);
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1U) << "the second record is not begun";
    EXPECT_THAT(lines[0], testing::StartsWith("[error] The last record on " + path + " is torn: "));
    EXPECT_THAT(lines[0], testing::EndsWith(" of 1000000 bytes written, then none for 1 s"));
}

}  // namespace
}  // namespace Vel::Utils
