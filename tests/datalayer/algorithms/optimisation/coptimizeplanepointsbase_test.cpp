#include <atomic>
#include <gtest/gtest.h>
#include <limits>
#include <thread>

#include "datalayer/algorithms/optimisation/coptimizeplanepointsbase.h"

namespace {

class Optimiser : public DataLayer::COptimizePlanePointsBase
{
public:
    using COptimizePlanePointsBase::isAborted;
    using COptimizePlanePointsBase::limitCorrectionVector;
};

} // namespace

TEST(COptimizePlanePointsBase, StepFurthestOverItsLimitEndsExactlyOnIt)
{
    Optimiser o;
    double c[2] = {2.0, 1.0};
    const double limits[2] = {1.0, 1.0};
    int counter = 5;
    o.limitCorrectionVector(c, limits, 2, &counter);
    EXPECT_EQ(c[0], 1.0);
    EXPECT_EQ(c[1], 0.5);
    EXPECT_EQ(counter, 6);

    // Negative components and limits: the absolute quotient decides, the direction stays.
    double d[3] = {-6.0, 1.0, 0.5};
    const double mixed[3] = {-2.0, 4.0, 0.25};
    o.limitCorrectionVector(d, mixed, 3, &counter);
    EXPECT_EQ(d[0], -2.0);
    EXPECT_DOUBLE_EQ(d[1], 1.0 / 3.0);
    EXPECT_DOUBLE_EQ(d[2], 0.5 / 3.0);
    EXPECT_EQ(counter, 7);

    // A null counter: scaling still happens.
    double e[1] = {-8.0};
    const double one[1] = {2.0};
    o.limitCorrectionVector(e, one, 1, nullptr);
    EXPECT_EQ(e[0], -2.0);
}

TEST(COptimizePlanePointsBase, StepWithinOrOnItsLimitsIsNeitherScaledNorCounted)
{
    Optimiser o;
    double c[2] = {1.0, 1.0};
    const double limits[2] = {1.0, 1.0};
    int counter = 0;
    o.limitCorrectionVector(c, limits, 2, &counter);
    EXPECT_EQ(c[0], 1.0);
    EXPECT_EQ(c[1], 1.0);
    EXPECT_EQ(counter, 0);

    double big[2] = {100.0, -50.0};
    o.limitCorrectionVector(big, nullptr, 2, &counter);
    EXPECT_EQ(big[0], 100.0);
    EXPECT_EQ(big[1], -50.0);
    EXPECT_EQ(counter, 0);

    o.limitCorrectionVector(big, limits, 0, &counter);
    o.limitCorrectionVector(nullptr, limits, 2, &counter);
    EXPECT_EQ(big[0], 100.0);
    EXPECT_EQ(counter, 0);
}

TEST(COptimizePlanePointsBase, AbortHoldsUntilResetAndMayComeFromAnotherThread)
{
    Optimiser o;
    EXPECT_FALSE(o.isAborted());
    o.Abort();
    EXPECT_TRUE(o.isAborted());
    EXPECT_TRUE(o.isAborted());
    o.ResetAbortion();
    EXPECT_FALSE(o.isAborted());

    std::atomic<long> rounds{0};
    std::thread worker([&] {
        while (!o.isAborted())
            rounds.fetch_add(1, std::memory_order_relaxed);
    });
    while (rounds.load(std::memory_order_relaxed) < 10)
        std::this_thread::yield();
    o.Abort();
    worker.join();
    EXPECT_TRUE(o.isAborted());
}
