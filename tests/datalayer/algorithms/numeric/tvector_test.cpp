#include <Eigen/Dense>
#include <cmath>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <type_traits>

#include "datalayer/algorithms/numeric/tvector.h"
#include "test_support.h"

namespace {

Eigen::VectorXd ToEigen(const TVector<double>& v)
{
    return Eigen::Map<const Eigen::VectorXd>(v.Data(), v.Size());
}

template <typename T> TVector<T> MakeVector(std::initializer_list<T> values)
{
    TVector<T> v(static_cast<int>(values.size()));
    int i = 0;
    for (T value : values)
        v[i++] = value;
    return v;
}

template <typename T> std::string CapturePrint(const TVector<T>& v)
{
    testing::internal::CaptureStderr();
    v.Print();
    return testing::internal::GetCapturedStderr();
}

} // namespace

TEST(TVector, MemoryFormIsSizeAndOwnedArrayWithoutVirtualTable)
{
    // Exported signatures carry the vector by value: a 32-bit size and one pointer, nothing else.
    static_assert(!std::is_polymorphic_v<TVector<double>>);
    static_assert(sizeof(TVector<double>) == sizeof(void*) * 2);
    static_assert(sizeof(TVector<int>) == sizeof(void*) * 2);
    TVector<double> empty;
    EXPECT_EQ(empty.Size(), 0);
    EXPECT_EQ(empty.Data(), nullptr);
    TVector<int> zeroSized(0);
    EXPECT_EQ(zeroSized.Data(), nullptr);
}

TEST(TVector, SizedConstructionGivesZerosInEveryInstantiation)
{
    TVector<double> d(5);
    TVector<float> f(4);
    TVector<int> i(3);
    ASSERT_EQ(d.Size(), 5);
    ASSERT_EQ(f.Size(), 4);
    ASSERT_EQ(i.Size(), 3);
    for (int k = 0; k < 5; ++k)
        EXPECT_EQ(d[k], 0.0);
    for (int k = 0; k < 4; ++k)
        EXPECT_EQ(f[k], 0.0f);
    for (int k = 0; k < 3; ++k)
        EXPECT_EQ(i[k], 0);
}

TEST(TVector, CopiesAreDeepAndCopyAssignmentAlwaysReallocates)
{
    TVector<double> a = MakeVector<double>({1, 2, 3});
    TVector<double> copy(a);
    EXPECT_NE(copy.Data(), a.Data());
    copy[0] = 9;
    EXPECT_EQ(a[0], 1.0);

    // Same size: the old array is still alive while the new one is allocated, so a fresh array
    // shows as a different address.
    TVector<double> target = MakeVector<double>({7, 8, 9});
    const double* before = target.Data();
    target = a;
    EXPECT_NE(target.Data(), before);
    EXPECT_NE(target.Data(), a.Data());
    EXPECT_EQ(target[0], 1.0);
    EXPECT_EQ(target[2], 3.0);

    TVector<double> longer(10);
    longer = a;
    EXPECT_EQ(longer.Size(), 3);
    EXPECT_EQ(longer[1], 2.0);
}

TEST(TVector, SelfAssignmentKeepsArrayAndContents)
{
    TVector<int> a = MakeVector<int>({4, 5, 6});
    const int* before = a.Data();
    TVector<int>& alias = a;
    a = alias;
    EXPECT_EQ(a.Data(), before);
    EXPECT_EQ(a.Size(), 3);
    EXPECT_EQ(a[0], 4);
    EXPECT_EQ(a[2], 6);
    a = std::move(alias);
    EXPECT_EQ(a.Data(), before);
    EXPECT_EQ(a[1], 5);
}

TEST(TVector, MoveTakesOverTheArrayAndLeavesSourceEmpty)
{
    TVector<double> a = MakeVector<double>({1, 2});
    const double* array = a.Data();
    TVector<double> b(std::move(a));
    EXPECT_EQ(b.Data(), array);
    EXPECT_EQ(b.Size(), 2);
    EXPECT_EQ(a.Size(), 0);
    EXPECT_EQ(a.Data(), nullptr);

    TVector<double> c(5);
    c = std::move(b);
    EXPECT_EQ(c.Data(), array);
    EXPECT_EQ(c.Size(), 2);
    EXPECT_EQ(c[1], 2.0);
    EXPECT_EQ(b.Size(), 0);
    EXPECT_EQ(b.Data(), nullptr);
}

TEST(TVector, ResizeKeepsValuesOnSameSizeAndZeroesOtherwise)
{
    TVector<float> v = MakeVector<float>({1, 2, 3});
    const float* before = v.Data();
    v.Resize(3);
    EXPECT_EQ(v.Data(), before);
    EXPECT_EQ(v[2], 3.0f);

    v.Resize(4);
    ASSERT_EQ(v.Size(), 4);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(v[i], 0.0f);
    v.Resize(0);
    EXPECT_EQ(v.Size(), 0);
    EXPECT_EQ(v.Data(), nullptr);
}

TEST(TVector, ElementwiseArithmeticMatchesEigen)
{
    std::mt19937_64 engine(11);
    const TVector<double> a = vorn2test::RandomVector(engine, 37);
    const TVector<double> b = vorn2test::RandomVector(engine, 37);
    const Eigen::VectorXd ea = ToEigen(a);
    const Eigen::VectorXd eb = ToEigen(b);
    // One rounding per element on both sides: the results must agree bit for bit.
    EXPECT_EQ(ToEigen(a + b), ea + eb);
    EXPECT_EQ(ToEigen(a - b), ea - eb);
    EXPECT_EQ(ToEigen(-a), -ea);
    EXPECT_EQ(ToEigen(a * 2.5), ea * 2.5);
    EXPECT_EQ(ToEigen(2.5 * a), 2.5 * ea);
    EXPECT_EQ(ToEigen(a / 3.0), ea / 3.0);
}

TEST(TVector, ScalarOnTheLeftConvertsLikeScalarOnTheRight)
{
    const TVector<double> a = MakeVector<double>({1.5, -2});
    const TVector<double> left = 2 * a; // an int literal, converted as for a * 2
    const TVector<double> right = a * 2;
    EXPECT_EQ(left[0], 3.0);
    EXPECT_EQ(left[1], right[1]);
    const TVector<float> f = 0.5 * MakeVector<float>({4, 8});
    EXPECT_EQ(f[1], 4.0f);
}

TEST(TVector, SizeOfFirstOperandDrivesElementwiseLoops)
{
    const TVector<int> a = MakeVector<int>({1, 2});
    const TVector<int> b = MakeVector<int>({10, 20, 30});
    const TVector<int> sum = a + b;
    ASSERT_EQ(sum.Size(), 2);
    EXPECT_EQ(sum[0], 11);
    EXPECT_EQ(sum[1], 22);
    EXPECT_EQ(Dot(a, b), 50);
}

TEST(TVector, DotAndNormMatchEigen)
{
    std::mt19937_64 engine(12);
    const TVector<double> a = vorn2test::RandomVector(engine, 101);
    const TVector<double> b = vorn2test::RandomVector(engine, 101);
    // Both are sums of 101 terms of size <= 1; Eigen may sum in another order.
    const double tolerance = 101 * 4 * 2.220446049250313e-16;
    EXPECT_NEAR(Dot(a, b), ToEigen(a).dot(ToEigen(b)), tolerance);
    EXPECT_NEAR(a.Norm(), ToEigen(a).norm(), tolerance);
    EXPECT_EQ(TVector<double>().Norm(), 0.0);
    EXPECT_EQ(Dot(TVector<double>(), TVector<double>()), 0.0);
    EXPECT_EQ(MakeVector<int>({3, 4}).Norm(), 5);
    EXPECT_EQ(MakeVector<float>({3, 4}).Norm(), 5.0f);
}

TEST(TVector, NormIsThePlainSumOfSquaresWithoutOverflowScaling)
{
    // Described behaviour: no scaling, so squares beyond the range overflow to infinity even
    // though the norm itself would be representable.
    const TVector<double> big = MakeVector<double>({1e200, 1e200});
    EXPECT_TRUE(std::isinf(big.Norm()));
    const TVector<double> tiny = MakeVector<double>({1e-200, 1e-200});
    EXPECT_EQ(tiny.Norm(), 0.0);
}

TEST(TVector, GatherPicksIndexedElementsAndSubCopiesInclusiveRange)
{
    const TVector<double> a = MakeVector<double>({10, 11, 12, 13, 14});
    const TVector<double> g = a.Gather(MakeVector<int>({4, 0, 4, 2}));
    ASSERT_EQ(g.Size(), 4);
    EXPECT_EQ(g[0], 14.0);
    EXPECT_EQ(g[1], 10.0);
    EXPECT_EQ(g[2], 14.0);
    EXPECT_EQ(g[3], 12.0);
    EXPECT_EQ(a.Gather(TVector<int>()).Size(), 0);

    const TVector<double> s = a.Sub(1, 3);
    ASSERT_EQ(s.Size(), 3);
    EXPECT_EQ(s[0], 11.0);
    EXPECT_EQ(s[2], 13.0);
    const TVector<double> one = a.Sub(4, 4);
    ASSERT_EQ(one.Size(), 1);
    EXPECT_EQ(one[0], 14.0);
}

TEST(TVector, PrintWritesHeaderAndAtMostTenElements)
{
    EXPECT_EQ(CapturePrint(TVector<double>()), "0-vector:\n\n");
    EXPECT_EQ(CapturePrint(TVector<int>()), "0-vector:\n\n");
    EXPECT_EQ(CapturePrint(MakeVector<double>({1.5})), "1-vector:\n\t1.5;\n");
    EXPECT_EQ(CapturePrint(MakeVector<int>({-7})), "1-vector:\n\t-7;\n");
    EXPECT_EQ(CapturePrint(MakeVector<double>({0.1, -2, 1234567})), "3-vector:\n\t0.1,\t-2,\t1.23457e+06;\n");
    EXPECT_EQ(CapturePrint(MakeVector<int>({1, 20, -300})), "3-vector:\n\t1,\t20,\t-300;\n");
    EXPECT_EQ(CapturePrint(MakeVector<float>({0.25f, 3})), "2-vector:\n\t0.25,\t3;\n");

    // Twelve elements: only the first ten appear, and none of them is the last, so no ';'.
    TVector<double> d(12);
    TVector<int> i(12);
    for (int k = 0; k < 12; ++k) {
        d[k] = k + 0.5;
        i[k] = k * k;
    }
    EXPECT_EQ(CapturePrint(d), "12-vector:\n\t0.5,\t1.5,\t2.5,\t3.5,\t4.5,\t5.5,\t6.5,\t7.5,\t8.5,\t9.5,\n");
    EXPECT_EQ(CapturePrint(i), "12-vector:\n\t0,\t1,\t4,\t9,\t16,\t25,\t36,\t49,\t64,\t81,\n");
}
