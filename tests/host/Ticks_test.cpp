// The real tick, and a manual advance starting from it. The manual clock
// itself, wrap included, is what the cache, scoring and SSL tests run on.
#include "host/Ticks.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace {

TEST(TicksTest, RealTickRunsAndAnAdvanceStartsFromIt) {
    ASSERT_FALSE(NorvCore::ManualTicksActive());
    const u32 before = NorvCore::SystemTickCount();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    const u32 elapsed = NorvCore::SystemTickCount() - before;
    EXPECT_GE(elapsed, 25u);
    EXPECT_LT(elapsed, 10000u);

    NorvCore::AdvanceManualTicks(1000);
    ASSERT_TRUE(NorvCore::ManualTicksActive());
    const u32 moved = NorvCore::SystemTickCount() - before;
    EXPECT_GE(moved, 1025u);
    EXPECT_LT(moved, 11000u);
}

}  // namespace
