#include "vel/ts_basics/pid_filter.h"

#include <gtest/gtest.h>

namespace Vel::Ts::Misc {
namespace {

unsigned countPassed(const PidFilter& filter) {
    unsigned passed = 0;
    for (std::uint32_t pid = 0; pid < PID_COUNT + 10; ++pid) {
        passed += filter.isPidPassed(pid) ? 1 : 0;
    }
    return passed;
}

TEST(PidFilter, ConstructionDecidesWhatPasses) {
    EXPECT_EQ(countPassed(PidFilter()), 8192U);
    EXPECT_EQ(countPassed(PidFilter(true, false)), 0U);
    const PidFilter withoutNull(false, true);
    EXPECT_EQ(countPassed(withoutNull), 8191U);
    EXPECT_FALSE(withoutNull.isPidPassed(NULL_PID));
    const PidFilter listed({0, 8191, 8192, 70000});
    EXPECT_EQ(countPassed(listed), 2U);
    EXPECT_TRUE(listed.isPidPassed(0) && listed.isPidPassed(8191));
}

TEST(PidFilter, ChangesTouchTheNamedPidsAlone) {
    PidFilter filter(true, false);
    filter.addPid({0x100, 0x101, 0xFFFFFFFF});
    EXPECT_EQ(countPassed(filter), 2U);
    filter.removePid({0x101, 8192});
    EXPECT_EQ(countPassed(filter), 1U);
    EXPECT_TRUE(filter.isPidPassed(0x100));
    EXPECT_FALSE(filter.isPidPassed(0x100 + 8192));
    filter.passAll(true);
    EXPECT_EQ(countPassed(filter), 8191U);
}

}  // namespace
}  // namespace Vel::Ts::Misc
