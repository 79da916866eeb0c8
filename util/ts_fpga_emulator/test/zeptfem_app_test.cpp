#include "zeptfem_app.h"

#include <array>
#include <csignal>

#include "support.h"

namespace Vel::Utils {
namespace {

TEST(ZEPTFEMApplication, IsWiredFromItsSettingsAndTakenDownInAFixedOrder) {
    const CapturedLog log;
    const TemporaryFolder folder;
    const std::string tables = folder / "tables";  // of both control devices, which use different words of it
    const std::string records = folder / "records";
    std::vector<std::uint32_t> words(131072 / sizeof(std::uint32_t));
    words[2048] = 0x01020304;
    words[2049] = 0x01030000;
    words[8192] = 3 << 13 | 256;
    words[8193] = 0x2000;
    writeFile(tables, std::string(reinterpret_cast<const char*>(words.data()), 131072));
    const std::array arguments = {
        "zeptfem", "-fudp://5.6.7.8 a.ts", "-t", tables.c_str(), "-r",      tables.c_str(), "-pctrl",
        "-P",      records.c_str(),        "-m", "stray",        "argument"};
    {
        ZEPTFEMApplication application(static_cast<int>(arguments.size()), arguments.data());
        ASSERT_TRUE(log.waitFor("[info] Detected added CPU route"));
        application.handleSignal(SIGTERM);
        EXPECT_EQ(application.doApplication(), 0);
    }
    auto lines = log.lines();
    // The two threads log these in either order.
    std::erase(lines, "[debug] Enter the main thread of FPGAMonitor");
    std::erase(lines, "[debug] Exit the main thread of FPGAMonitor");
    EXPECT_THAT(
        lines,
        testing::ElementsAre(
            "[info] Starting the zeptfem application",
            "[warning] Ignored the argument \"argument\", which belongs to no option",
            "[debug] Given path to router device " + tables, "[debug] Given path to tsio device " + tables,
            "[debug] Given path to pktio_ctrl device ctrl",
            "[debug] Given path to pktio_data device " + records,
            "[debug] Stream mode is set to: \nPCR RATE ADAPTION\n",
            "[debug] Given URI to file mapping: \"a.ts\"", "[debug] Create PktioStreamManager",
            "[warning] The IP LUT already holds 1 used rows at start. They are taken as added now.",
            "[warning] The PID LUT already holds 1 used rows at start. They are taken as added now.",
            "[info] Detected added input TS: udp://1.2.3.4 @ TSIIDX 3",
            "[info] Detected added CPU route of PID 256 from TSIIDX 3",
            "[info] Application exit has been signaled...", "[debug] Destroy ZEPTFEMApplication",
            "[debug] Destroy FPGAMonitor", "[debug] Joined with FPGAMonitor thread",
            "[debug] Destroy PktioStreamManager", "[debug] Destroy PacketDispatcher"));
}

}  // namespace
}  // namespace Vel::Utils
