#include <gtest/gtest.h>

#include "datalayer/algorithms/numeric/tvector.h"

TEST(TVector, SizedConstructionGivesZeros)
{
    TVector<double> v(3);
    ASSERT_EQ(v.Size(), 3);
    EXPECT_EQ(v[0], 0.0);
    EXPECT_EQ(v[2], 0.0);
}
