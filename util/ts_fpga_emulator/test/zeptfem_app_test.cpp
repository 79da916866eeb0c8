#include "zeptfem_app.h"

#include <gmock/gmock.h>

#include <array>
#include <csignal>

#include "support.h"

namespace Vel::Utils {
namespace {

using testing::ElementsAre;

TEST(ZEPTFEMApplication, IsWiredFromItsSettingsAndTakenDownInAFixedOrder) {
    const CapturedLog log;
    const TempFolder folder;
    const std::string tsio = folder / "tsio";
    const std::string router = folder / "router";
    const std::string records = folder / "records";
    writeFile(tsio, std::string(16384, '\0'));
    writeFile(router, std::string(131072, '\0'));
    const std::array arguments = {"zeptfem", "-fudp://239.10.0.1:5000 /a.ts",
                                  "-t",      tsio.c_str(),
                                  "-r",      router.c_str(),
                                  "-P",      records.c_str(),
                                  "-pctrl",  "-m",
                                  "stray",   "argument"};
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
        ElementsAre("[info] Starting the zeptfem application",
                    "[warning] Ignored the argument \"argument\", which belongs to no option",
                    "[debug] Given path to router device " + router,
                    "[debug] Given path to tsio device " + tsio,
                    "[debug] Given path to pktio_ctrl device ctrl",
                    "[debug] Given path to pktio_data device " + records,
                    "[debug] Stream mode is set to: \nPCR RATE ADAPTION\n",
                    "[debug] Given URI to file mapping: \"/a.ts\"", "[debug] Create PktioStreamManager",
                    "[info] Application exit has been signaled...", "[debug] Destroy ZEPTFEMApplication",
                    "[debug] Destroy FPGAMonitor", "[debug] Joined with FPGAMonitor thread",
                    "[debug] Destroy PktioStreamManager", "[debug] Destroy PacketDispatcher"));
}

}  // namespace
}  // namespace Vel::Utils
