#include "vel/userspace_drivers/drivers/zep/ts/portnames.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace Vel::Drivers::Zep {
namespace {

TEST(PortNames, NameEachPortAndNoOther) {
    EXPECT_EQ(getPhysInName(0), "tuner0");
    EXPECT_EQ(getPhysInName(15), "tuner15");
    EXPECT_EQ(getPhysInName(16), "cam0");
    EXPECT_EQ(getPhysInName(23), "cam7");
    EXPECT_EQ(getPhysInName(32), "tuner16");
    EXPECT_EQ(getPhysInName(37), "tuner21");
    for (const std::uint32_t unnamed : {24U, 31U, 38U, 64U}) {
        EXPECT_THROW(getPhysInName(unnamed), std::out_of_range) << unnamed;
    }

    EXPECT_EQ(getPhysInIdxByName("tuner21"), 37U);
    EXPECT_EQ(getTunerPhysInIdx(16), 32U);
    EXPECT_EQ(getCamPhysInIdx(7), 23U);
    EXPECT_EQ(getModulatorPhysOutIdx(15), 15U);
    EXPECT_EQ(getCamPhysOutIdx(7), 23U);
    EXPECT_THROW(getPhysInIdxByName("modulator0"), std::out_of_range);
    EXPECT_THROW(getTunerPhysInIdx(22), std::out_of_range);
    EXPECT_THROW(getCamPhysInIdx(8), std::out_of_range);
    EXPECT_THROW(getModulatorPhysOutIdx(16), std::out_of_range);
    EXPECT_THROW(getCamPhysOutIdx(8), std::out_of_range);
}

}  // namespace
}  // namespace Vel::Drivers::Zep
