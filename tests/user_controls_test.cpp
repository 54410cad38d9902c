#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "midi/user_controls.h"

TEST(UserControls, TempoStepsAreMultiplicativeAndDriftIsKept) {
    UserControls controls;
    EXPECT_DOUBLE_EQ(controls.IncreaseTempo(), 1.01);
    // Up then down is 1.01 * 0.99 = 0.9999, not 1.0.
    EXPECT_DOUBLE_EQ(controls.DecreaseTempo(), 1.01 * 0.99);
    EXPECT_NE(controls.GetTempoScale(), 1.0);

    controls.SetTempoScale(1.0);
    double scale = 0;
    for (int i = 0; i < 70; ++i)
        scale = controls.IncreaseTempo();
    // Stored beyond 2.0: the limit is applied where the scale is used, not here.
    EXPECT_GT(scale, 2.0);
    EXPECT_NEAR(scale, 2.0068, 1e-4);
}

TEST(UserControls, TranspositionChangedIsSetOnlyByANewValueAndClearedByReading) {
    UserControls controls;  // a fresh one is at 0, and unchanged
    EXPECT_FALSE(controls.GetTranspositionChanged());
    controls.SetTransposition(0);
    EXPECT_FALSE(controls.GetTranspositionChanged());
    controls.SetTransposition(2);
    EXPECT_EQ(controls.GetTransposition(), 2);
    EXPECT_TRUE(controls.GetTranspositionChanged());
    EXPECT_FALSE(controls.GetTranspositionChanged());
    controls.SetTransposition(2);
    EXPECT_FALSE(controls.GetTranspositionChanged());
}

TEST(UserControls, ConcurrentStepsAreNotLost) {
    UserControls controls;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 1000; ++i)
                controls.IncreaseTempo();
        });
    }
    for (auto& thread : threads)
        thread.join();
    double expected = 1.0;
    for (int i = 0; i < 4000; ++i)
        expected *= 1.01;
    EXPECT_DOUBLE_EQ(controls.GetTempoScale(), expected);
}
