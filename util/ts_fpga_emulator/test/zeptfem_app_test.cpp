#include "zeptfem_app.h"

#include <array>
#include <csignal>

#include "support.h"

namespace Vel::Utils {
namespace {

TEST(ZEPTFEMApplication, IsWiredFromItsSettingsAndTakenDownInAFixedOrder) {
    const CapturedLog log;
    const TempFolder folder;
    const std::string tables = folder / "tables";
    const std::string records = folder / "records";
    writeFile(tables, std::string(131072, '\0'));
    const std::array arguments = {
        "zeptfem", "-fudp://1.2.3.4 a.ts", "-t", tables.c_str(), "-r",      tables.c_str(), "-pctrl",
        "-P",      records.c_str(),        "-m", "stray",        "argument"};
    {
        ZEPTFEMApplication application(static_cast<int>(arguments.size()), arguments.data());
        ASSERT_TRUE(log.waitFor("[debug] Enter the main thread of FPGAMonitor"));
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
            "[info] Application exit has been signaled...", "[debug] Destroy ZEPTFEMApplication",
            "[debug] Destroy FPGAMonitor", "[debug] Joined with FPGAMonitor thread",
            "[debug] Destroy PktioStreamManager", "[debug] Destroy PacketDispatcher"));
}

}  // namespace
}  // namespace Vel::Utils
