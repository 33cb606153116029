#include <gtest/gtest.h>

#include "utils/Clock.h"

TEST(ClockTest, TestClockReplacesTheRealOne) {
    struct Fake : velmar::kolto::Clock {
        int64_t now = 1000;
        int64_t SteadyNowMs() override { return now; }
        int64_t WallNowMs() override { return now; }
        void SleepMs(int64_t ms) override { now += ms; }
    } fake;
    velmar::kolto::Clock* previous = velmar::kolto::SetClockForTesting(&fake);
    velmar::kolto::GetClock().SleepMs(20 * 60 * 1000);
    EXPECT_EQ(velmar::kolto::GetClock().SteadyNowMs(), 1000 + 20 * 60 * 1000);
    velmar::kolto::SetClockForTesting(previous);
    int64_t a = velmar::kolto::GetClock().SteadyNowMs();
    velmar::kolto::GetClock().SleepMs(5);
    EXPECT_GE(velmar::kolto::GetClock().SteadyNowMs() - a, 5);
}
