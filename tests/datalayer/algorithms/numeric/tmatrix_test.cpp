#include <Eigen/Dense>
#include <algorithm>
#include <climits>
#include <gtest/gtest.h>
#include <new>
#include <numeric>
#include <random>
#include <type_traits>
#include <vector>

#include "datalayer/algorithms/numeric/cpmatrix.h"
#include "datalayer/algorithms/numeric/tmatrix.h"
#include "datalayer/algorithms/numeric/tpermutation.h"
#include "test_support.h"

namespace {

Eigen::MatrixXd ToEigen(const TMatrix<double>& a)
{
    return Eigen::Map<const Eigen::MatrixXd>(a.Data(), a.Rows(), a.Cols());
}

Eigen::VectorXd ToEigen(const TVector<double>& v)
{
    return Eigen::Map<const Eigen::VectorXd>(v.Data(), v.Size());
}

/// Matrix whose element (r, c) is 10 * r + c, so that every value tells where it came from.
TMatrix<double> Labelled(int rows, int cols)
{
    TMatrix<double> a(rows, cols);
    for (int c = 0; c < cols; ++c)
        for (int r = 0; r < rows; ++r)
            a(r, c) = 10.0 * r + c;
    return a;
}

/// Checks that column i of `before` stands at column p[i] of `after`.
template <typename Permutation>
void ExpectColumnsMoved(const TMatrix<double>& before, const TMatrix<double>& after, const Permutation& p)
{
    ASSERT_EQ(after.Rows(), before.Rows());
    ASSERT_EQ(after.Cols(), before.Cols());
    for (int i = 0; i < before.Cols(); ++i)
        for (int r = 0; r < before.Rows(); ++r)
            ASSERT_EQ(after(r, p[i]), before(r, i)) << "column " << i << " should be at " << p[i];
}

} // namespace

TEST(TMatrix, MemoryFormHasOneVirtualSlotAndNoVirtualDestructor)
{
    static_assert(std::is_polymorphic_v<TMatrix<double>>);
    static_assert(!std::has_virtual_destructor_v<TMatrix<double>>);
    // Table pointer, two 32-bit sizes and the array pointer.
    static_assert(sizeof(TMatrix<double>) == 3 * sizeof(void*));
    static_assert(sizeof(TMatrix<float>) == 3 * sizeof(void*));
}

TEST(TMatrix, ConstructionShapes)
{
    const TMatrix<double> empty;
    EXPECT_EQ(empty.Rows(), 0);
    EXPECT_EQ(empty.Cols(), 0);
    EXPECT_EQ(empty.Data(), nullptr);

    const TMatrix<double> square(3);
    ASSERT_EQ(square.Rows(), 3);
    ASSERT_EQ(square.Cols(), 3);
    for (int c = 0; c < 3; ++c)
        for (int r = 0; r < 3; ++r)
            EXPECT_EQ(square(r, c), 0.0);

    const TMatrix<double> noColumns(3, 0);
    EXPECT_EQ(noColumns.Rows(), 3);
    EXPECT_EQ(noColumns.Cols(), 0);
    EXPECT_EQ(noColumns.Data(), nullptr);

    const TMatrix<float> wide(2, 5);
    EXPECT_EQ(wide.Rows(), 2);
    EXPECT_EQ(wide.Cols(), 5);
}

TEST(TMatrix, StorageIsColumnMajorWithLeadingDimensionRows)
{
    const TMatrix<double> a = Labelled(3, 4);
    for (int c = 0; c < 4; ++c)
        for (int r = 0; r < 3; ++r)
            EXPECT_EQ(a.Data()[c * 3 + r], 10.0 * r + c);
}

TEST(TMatrix, CopiesAreDeepAndCopyAssignmentAlwaysReallocates)
{
    const TMatrix<double> a = Labelled(2, 3);
    TMatrix<double> copy(a);
    EXPECT_NE(copy.Data(), a.Data());
    copy(1, 2) = -1;
    EXPECT_EQ(a(1, 2), 12.0);

    TMatrix<double> target(2, 3);
    const double* before = target.Data();
    target = a;
    EXPECT_NE(target.Data(), before); // the old array was alive during the new allocation
    EXPECT_EQ(ToEigen(target), ToEigen(a));

    TMatrix<double> reshaped(7, 1);
    reshaped = a;
    EXPECT_EQ(reshaped.Rows(), 2);
    EXPECT_EQ(reshaped.Cols(), 3);
    EXPECT_EQ(ToEigen(reshaped), ToEigen(a));
}

TEST(TMatrix, SelfAssignmentKeepsContents)
{
    TMatrix<double> a = Labelled(3, 2);
    const double* before = a.Data();
    TMatrix<double>& alias = a;
    a = alias;
    EXPECT_EQ(a.Data(), before);
    EXPECT_EQ(ToEigen(a), ToEigen(Labelled(3, 2)));
    a = std::move(alias);
    EXPECT_EQ(a.Data(), before);
    EXPECT_EQ(ToEigen(a), ToEigen(Labelled(3, 2)));
}

TEST(TMatrix, MoveTakesOverTheArrayAndLeavesSourceEmpty)
{
    TMatrix<double> a = Labelled(2, 3);
    const double* array = a.Data();
    TMatrix<double> b(std::move(a));
    EXPECT_EQ(b.Data(), array);
    EXPECT_EQ(b.Rows(), 2);
    EXPECT_EQ(b.Cols(), 3);
    EXPECT_EQ(a.Rows(), 0);
    EXPECT_EQ(a.Cols(), 0);
    EXPECT_EQ(a.Data(), nullptr);

    TMatrix<double> c(4);
    c = std::move(b);
    EXPECT_EQ(c.Data(), array);
    EXPECT_EQ(c(1, 2), 12.0);
    EXPECT_EQ(b.Rows(), 0);
    EXPECT_EQ(b.Cols(), 0);
    EXPECT_EQ(b.Data(), nullptr);
}

TEST(TMatrix, ResizeKeepsValuesOnSameShapeAndZeroesAnyOtherShape)
{
    TMatrix<double> a = Labelled(2, 3);
    const double* before = a.Data();
    a.Resize(2, 3);
    EXPECT_EQ(a.Data(), before);
    EXPECT_EQ(ToEigen(a), ToEigen(Labelled(2, 3)));

    // Same element count, other shape: still dropped.
    a.Resize(3, 2);
    ASSERT_EQ(a.Rows(), 3);
    ASSERT_EQ(a.Cols(), 2);
    EXPECT_TRUE(ToEigen(a).isZero(0.0));

    a.Resize(4, 0);
    EXPECT_EQ(a.Rows(), 4);
    EXPECT_EQ(a.Cols(), 0);
    EXPECT_EQ(a.Data(), nullptr);
}

TEST(TMatrix, AllocationWhoseByteCountOverflowsThrowsBadAlloc)
{
    // (2^31 - 1)^2 doubles overflow a 64-bit byte count; as many floats come within 2^34 bytes of
    // it. Neither can be had.
    EXPECT_THROW(TMatrix<double>(INT_MAX, INT_MAX), std::bad_alloc);
    EXPECT_THROW(TMatrix<float>(INT_MAX), std::bad_alloc);
    TMatrix<double> a = Labelled(2, 2);
    EXPECT_THROW(a.Resize(INT_MAX, INT_MAX), std::bad_alloc);
    // The failed Resize allocated before it freed: the matrix is still whole.
    EXPECT_EQ(ToEigen(a), ToEigen(Labelled(2, 2)));
}

TEST(TMatrix, InPlaceTransposeReshapesTheSameObject)
{
    TMatrix<double> a = Labelled(2, 3);
    TMatrix<double>* address = &a;
    a.Transpose();
    ASSERT_EQ(address->Rows(), 3);
    ASSERT_EQ(address->Cols(), 2);
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 2; ++c)
            EXPECT_EQ(a(r, c), 10.0 * c + r);

    std::mt19937_64 engine(21);
    TMatrix<double> square = vorn2test::RandomMatrix(engine, 5, 5);
    const Eigen::MatrixXd expected = ToEigen(square).transpose();
    square.Transpose();
    EXPECT_EQ(ToEigen(square), expected);

    TMatrix<double> one(1);
    one(0, 0) = 4;
    one.Transpose();
    EXPECT_EQ(one.Rows(), 1);
    EXPECT_EQ(one.Cols(), 1);
    EXPECT_EQ(one(0, 0), 4.0);

    TMatrix<double> empty;
    empty.Transpose();
    EXPECT_EQ(empty.Rows(), 0);
    EXPECT_EQ(empty.Cols(), 0);
    EXPECT_EQ(empty.Data(), nullptr);
}

TEST(TMatrix, ProductMatchesEigenAndIsThePlainAscendingInnerSum)
{
    std::mt19937_64 engine(22);
    const TMatrix<double> a = vorn2test::RandomMatrix(engine, 7, 13);
    const TMatrix<double> b = vorn2test::RandomMatrix(engine, 13, 5);
    const TMatrix<double> p = a * b;
    ASSERT_EQ(p.Rows(), 7);
    ASSERT_EQ(p.Cols(), 5);
    // 13 products of terms <= 1: Eigen's blocked kernel may round differently.
    EXPECT_TRUE(ToEigen(p).isApprox(ToEigen(a) * ToEigen(b), 1e-14));
    for (int j = 0; j < 5; ++j) {
        for (int i = 0; i < 7; ++i) {
            double sum = 0;
            for (int k = 0; k < 13; ++k)
                sum += a(i, k) * b(k, j);
            ASSERT_EQ(p(i, j), sum) << "at (" << i << ", " << j << ")";
        }
    }

    const TVector<double> v = vorn2test::RandomVector(engine, 13);
    const TVector<double> av = a * v;
    ASSERT_EQ(av.Size(), 7);
    EXPECT_TRUE(ToEigen(av).isApprox(ToEigen(a) * ToEigen(v), 1e-14));
    for (int i = 0; i < 7; ++i) {
        double sum = 0;
        for (int k = 0; k < 13; ++k)
            sum += a(i, k) * v[k];
        ASSERT_EQ(av[i], sum) << "at " << i;
    }
}

TEST(TMatrix, ProductOverEmptyInnerDimensionIsZero)
{
    const TMatrix<double> a(3, 0);
    const TMatrix<double> b(0, 2);
    const TMatrix<double> p = a * b;
    ASSERT_EQ(p.Rows(), 3);
    ASSERT_EQ(p.Cols(), 2);
    EXPECT_TRUE(ToEigen(p).isZero(0.0));
    const TVector<double> av = a * TVector<double>();
    ASSERT_EQ(av.Size(), 3);
    EXPECT_TRUE(ToEigen(av).isZero(0.0));
}

TEST(TMatrix, ElementwiseArithmeticMatchesEigen)
{
    std::mt19937_64 engine(23);
    const TMatrix<double> a = vorn2test::RandomMatrix(engine, 4, 6);
    const TMatrix<double> b = vorn2test::RandomMatrix(engine, 4, 6);
    // One rounding per element on both sides.
    EXPECT_EQ(ToEigen(a + b), ToEigen(a) + ToEigen(b));
    EXPECT_EQ(ToEigen(a - b), ToEigen(a) - ToEigen(b));
    EXPECT_EQ(ToEigen(a * -1.75), ToEigen(a) * -1.75);
}

TEST(TMatrix, ShapeExtractionsMatchEigen)
{
    std::mt19937_64 engine(24);
    const TMatrix<double> a = vorn2test::RandomMatrix(engine, 6, 9);
    const Eigen::MatrixXd ea = ToEigen(a);

    const TMatrix<double> t = a.Transposed();
    EXPECT_EQ(t.Rows(), 9);
    EXPECT_EQ(ToEigen(t), ea.transpose());

    const TMatrix<double> block = a.Block(1, 2, 4, 7);
    EXPECT_EQ(ToEigen(block), ea.block(1, 2, 4, 6));
    EXPECT_EQ(ToEigen(a.Block(5, 8, 5, 8)), ea.block(5, 8, 1, 1));

    for (int r = 0; r < 6; ++r)
        EXPECT_EQ(ToEigen(a.Row(r)), ea.row(r).transpose());

    EXPECT_EQ(ToEigen(a.Diagonal()), ea.diagonal());
    EXPECT_EQ(t.Diagonal().Size(), 6);
    EXPECT_EQ(ToEigen(t.Diagonal()), ea.transpose().diagonal());

    const TVector<double> u = vorn2test::RandomVector(engine, 4);
    const TVector<double> w = vorn2test::RandomVector(engine, 3);
    const TMatrix<double> outer = TMatrix<double>::Outer(u, w);
    ASSERT_EQ(outer.Rows(), 4);
    ASSERT_EQ(outer.Cols(), 3);
    EXPECT_EQ(ToEigen(outer), ToEigen(u) * ToEigen(w).transpose());
}

TEST(TMatrix, NormInfIsLargestAbsoluteRowSum)
{
    std::mt19937_64 engine(25);
    const TMatrix<double> a = vorn2test::RandomMatrix(engine, 8, 5);
    // Eigen sums the same five terms; the order may differ.
    EXPECT_NEAR(a.NormInf(), ToEigen(a).rowwise().lpNorm<1>().maxCoeff(), 1e-15 * 5);

    TMatrix<float> f(2, 3);
    f(0, 0) = -1;
    f(0, 1) = 2;
    f(0, 2) = -3;
    f(1, 0) = 6.5f;
    EXPECT_EQ(f.NormInf(), 6.5f);

    EXPECT_EQ(TMatrix<double>(0, 4).NormInf(), 0.0);
    EXPECT_EQ(TMatrix<double>(4, 0).NormInf(), 0.0);
}

TEST(TMatrix, IdentityAndScaledIdentity)
{
    EXPECT_EQ(ToEigen(TMatrix<double>::Identity(4)), Eigen::MatrixXd::Identity(4, 4));
    EXPECT_EQ(ToEigen(TMatrix<double>::Identity(2, 5)), Eigen::MatrixXd::Identity(2, 5));
    EXPECT_EQ(ToEigen(TMatrix<double>::Identity(5, 2)), Eigen::MatrixXd::Identity(5, 2));
    EXPECT_EQ(ToEigen(TMatrix<double>::ScaledIdentity(3, -2.5)), -2.5 * Eigen::MatrixXd::Identity(3, 3));
}

TEST(TMatrix, PermuteColumnsMovesColumnIToPositionPOfIForEveryPermutationOfFive)
{
    const TMatrix<double> before = Labelled(3, 5);
    std::vector<int> order(5);
    std::iota(order.begin(), order.end(), 0);
    int count = 0;
    do {
        DataLayer::TPermutation<int> p(5);
        for (int i = 0; i < 5; ++i)
            p[i] = order[i];
        TMatrix<double> a(before);
        a.PermuteColumns(p);
        ExpectColumnsMoved(before, a, p);
        ++count;
    } while (std::next_permutation(order.begin(), order.end()));
    EXPECT_EQ(count, 120);
}

TEST(TMatrix, PermuteColumnsOnRandomPermutationsOfFifty)
{
    std::mt19937_64 engine(26);
    const TMatrix<double> before = vorn2test::RandomMatrix(engine, 4, 50);
    for (int trial = 0; trial < 20; ++trial) {
        DataLayer::CPMatrix p(50);
        std::shuffle(p.Data(), p.Data() + 50, engine);
        TMatrix<double> a(before);
        a.PermuteColumns(p);
        ExpectColumnsMoved(before, a, p);

        // Applying the inverse afterwards restores the original.
        a.PermuteColumns(p.Inverse());
        EXPECT_EQ(ToEigen(a), ToEigen(before));
    }
    // A plain TVector<int> serves as well.
    TVector<int> reverse(50);
    for (int i = 0; i < 50; ++i)
        reverse[i] = 49 - i;
    TMatrix<double> a(before);
    a.PermuteColumns(reverse);
    ExpectColumnsMoved(before, a, reverse);
}

TEST(TMatrix, PermuteColumnsLeavesBrokenCyclesInPlaceAndEnds)
{
    // 0 <-> 1 is a true cycle; 2 points out of range and 3 leads into 2: both stay put.
    const TMatrix<double> before = Labelled(2, 4);
    TVector<int> p(4);
    p[0] = 1;
    p[1] = 0;
    p[2] = 5;
    p[3] = 2;
    TMatrix<double> a(before);
    a.PermuteColumns(p);
    EXPECT_EQ(ToEigen(a).col(0), ToEigen(before).col(1));
    EXPECT_EQ(ToEigen(a).col(1), ToEigen(before).col(0));
    EXPECT_EQ(ToEigen(a).col(2), ToEigen(before).col(2));
    EXPECT_EQ(ToEigen(a).col(3), ToEigen(before).col(3));

    // A path that runs into a loop without returning (0 -> 1 -> 2 -> 1), negative entries and a
    // constant map: none may hang or read outside p.
    TVector<int> rho(3);
    rho[0] = 1;
    rho[1] = 2;
    rho[2] = 1;
    TMatrix<double> b = Labelled(2, 3);
    b.PermuteColumns(rho);
    EXPECT_EQ(ToEigen(b).col(0), ToEigen(Labelled(2, 3)).col(0));

    TVector<int> negative(3);
    negative[0] = -1;
    negative[1] = INT_MIN;
    negative[2] = INT_MAX;
    TMatrix<double> c = Labelled(2, 3);
    c.PermuteColumns(negative);
    EXPECT_EQ(ToEigen(c), ToEigen(Labelled(2, 3)));

    TVector<int> constant(6); // all zero
    TMatrix<double> d = Labelled(2, 6);
    d.PermuteColumns(constant);
    EXPECT_EQ(ToEigen(d), ToEigen(Labelled(2, 6)));
}
