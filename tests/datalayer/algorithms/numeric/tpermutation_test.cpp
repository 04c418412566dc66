#include <algorithm>
#include <climits>
#include <gtest/gtest.h>
#include <numeric>
#include <random>
#include <type_traits>
#include <vector>

#include "datalayer/algorithms/numeric/cpmatrix.h"
#include "datalayer/algorithms/numeric/tpermutation.h"

using DataLayer::CPMatrix;
using DataLayer::TPermutation;

namespace {

template <typename Permutation> Permutation RandomPermutation(std::mt19937_64& engine, int n)
{
    Permutation p(n);
    std::shuffle(p.Data(), p.Data() + n, engine);
    return p;
}

template <typename Permutation> void ExpectInverseOf(const Permutation& q, const Permutation& p)
{
    ASSERT_EQ(q.Size(), p.Size());
    for (int i = 0; i < p.Size(); ++i)
        ASSERT_EQ(q[p[i]], i) << "p[" << i << "] = " << p[i];
}

template <typename Permutation> void ExpectEqual(const Permutation& a, const Permutation& b)
{
    ASSERT_EQ(a.Size(), b.Size());
    for (int i = 0; i < a.Size(); ++i)
        ASSERT_EQ(a[i], b[i]) << "at " << i;
}

} // namespace

TEST(TPermutation, MemoryFormIsThatOfTVectorOfInt)
{
    static_assert(!std::is_polymorphic_v<TPermutation<int>>);
    static_assert(!std::is_polymorphic_v<CPMatrix>);
    static_assert(sizeof(TPermutation<int>) == sizeof(TVector<int>));
    static_assert(sizeof(CPMatrix) == sizeof(TVector<int>));
    static_assert(std::is_same_v<decltype(CPMatrix(3).Inverse()), CPMatrix>);
}

TEST(TPermutation, SizedConstructionIsTheIdentity)
{
    const TPermutation<int> p(6);
    const CPMatrix c(6);
    ASSERT_EQ(p.Size(), 6);
    ASSERT_EQ(c.Size(), 6);
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(p[i], i);
        EXPECT_EQ(c[i], i);
    }
    EXPECT_EQ(TPermutation<int>().Size(), 0);
    EXPECT_EQ(CPMatrix(0).Data(), nullptr);
}

TEST(TPermutation, CopiesAreDeep)
{
    TPermutation<int> p(4);
    TPermutation<int> copy(p);
    copy[0] = 3;
    copy[3] = 0;
    EXPECT_EQ(p[0], 0);
    CPMatrix c(4);
    CPMatrix other(c);
    other[1] = 2;
    EXPECT_EQ(c[1], 1);
    c = other;
    EXPECT_EQ(c[1], 2);
    EXPECT_NE(c.Data(), other.Data());
}

TEST(TPermutation, InverseSatisfiesQOfPOfIEqualsIOnRandomPermutations)
{
    std::mt19937_64 engine(31);
    for (int n : {1, 2, 3, 17, 50, 1000}) {
        for (int trial = 0; trial < 5; ++trial) {
            const TPermutation<int> p = RandomPermutation<TPermutation<int>>(engine, n);
            const TPermutation<int> q = p.Inverse();
            ExpectInverseOf(q, p);

            TPermutation<int> inPlace(p);
            inPlace.Invert();
            ExpectEqual(inPlace, q);

            // Double inversion is the identity, by either route.
            ExpectEqual(q.Inverse(), p);
            inPlace.Invert();
            ExpectEqual(inPlace, p);
        }
    }
}

TEST(TPermutation, InverseOfEveryPermutationOfSix)
{
    std::vector<int> order(6);
    std::iota(order.begin(), order.end(), 0);
    do {
        CPMatrix p(6);
        std::copy(order.begin(), order.end(), p.Data());
        CPMatrix q(p);
        q.Invert();
        ExpectInverseOf(q, p);
        ExpectEqual(p.Inverse(), q);
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST(TPermutation, InverseOfIdentityAndEmptyAreThemselves)
{
    ExpectEqual(TPermutation<int>(9).Inverse(), TPermutation<int>(9));
    TPermutation<int> empty;
    empty.Invert();
    EXPECT_EQ(empty.Size(), 0);
}

TEST(TPermutation, InvertOnEntriesThatAreNoPermutationEndsWithoutReadingOutOfRange)
{
    // The result is unspecified; what matters is that it ends and stays inside the array (the
    // sanitizer build checks the latter).
    const std::vector<std::vector<int>> broken = {{1, 1},       {0, 0, 0}, {5, -2, 0}, {INT_MAX, INT_MIN, 1},
                                                  {2, 0, 0, 7}, {-1}};
    for (const auto& entries : broken) {
        TPermutation<int> p(static_cast<int>(entries.size()));
        std::copy(entries.begin(), entries.end(), p.Data());
        p.Invert();
        const TPermutation<int> q = p.Inverse();
        EXPECT_EQ(q.Size(), p.Size());
    }
}
