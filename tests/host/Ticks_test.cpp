// The real tick and the manual clock, wrap included.
#include "host/Ticks.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

namespace {

class TicksTest : public testing::Test {
protected:
    void TearDown() override { NorvCore::UseRealTicks(); }
};

TEST_F(TicksTest, RealTickRunsAndAnAdvanceStartsFromIt) {
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

TEST_F(TicksTest, ManualClockStandsStillWrapsAndCountsEveryAdvance) {
    NorvCore::SetManualTicks(0xFFFFFFF0u);
    const u32 start = NorvCore::SystemTickCount();
    EXPECT_EQ(start, 0xFFFFFFF0u);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(NorvCore::SystemTickCount(), start);
    NorvCore::AdvanceManualTicks(0x20);
    EXPECT_EQ(NorvCore::SystemTickCount(), 0x10u);
    EXPECT_EQ(static_cast<u32>(NorvCore::SystemTickCount() - start), 0x20u);
    EXPECT_EQ(static_cast<i32>(start - NorvCore::SystemTickCount()), -0x20);

    // Advances from several threads all count.
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 1000; ++i) {
                NorvCore::AdvanceManualTicks(3);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(NorvCore::SystemTickCount(), 0x10u + 4u * 1000u * 3u);
    NorvCore::UseRealTicks();
    EXPECT_FALSE(NorvCore::ManualTicksActive());
    EXPECT_NE(NorvCore::SystemTickCount(), 0x10u + 4u * 1000u * 3u);
}

}  // namespace
