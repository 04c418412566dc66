#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <vector>

#include "datalayer/algorithms/graphs/cdisjointsets.h"

using DataLayer::CDisjointSets;

namespace {

std::vector<unsigned int> Members(const CDisjointSets& s, unsigned int x)
{
    std::unique_ptr<unsigned int[]> m(s.GetClassMembers(x, nullptr));
    return std::vector<unsigned int>(m.get(), m.get() + s.GetClassSize(x));
}

TEST(CDisjointSets, EmptyPartition)
{
    CDisjointSets s(0);
    EXPECT_EQ(s.Size(), 0u);
    EXPECT_EQ(s.GetNumClasses(), 0u);
    EXPECT_EQ(s.GetClassByIndex(0), -1);
    EXPECT_EQ(s.GetLargestClassRep(), 0u);
    EXPECT_TRUE(s.begin() == s.end());
    CDisjointSets d;
    EXPECT_EQ(d.Size(), 0u);
}

TEST(CDisjointSets, UnifyKeepsTheRootOfTheLargerClassAndTheFirstOnATie)
{
    CDisjointSets s(5);
    EXPECT_EQ(s.GetLargestClassRep(), 0u); // all singletons
    EXPECT_EQ(s.Unify(1, 2), 1u);
    EXPECT_EQ(s.GetClassRep(2), 1u);
    EXPECT_EQ(s.Unify(3, 1), 1u); // class of 1 has size 2, class of 3 size 1
    EXPECT_EQ(s.GetNumClasses(), 3u);
    EXPECT_EQ(s.Unify(2, 3), 1u); // same class: nothing changes
    EXPECT_EQ(s.GetNumClasses(), 3u);
    EXPECT_EQ(s.GetClassSize(3), 3u);
    EXPECT_TRUE(s.SameClass(2, 3));
    EXPECT_FALSE(s.SameClass(0, 3));
    EXPECT_EQ(s.GetLargestClassRep(), 1u);
    EXPECT_EQ(Members(s, 2), (std::vector<unsigned int>{1, 2, 3}));
    std::unique_ptr<unsigned int[]> classes(s.GetClasses(nullptr));
    EXPECT_EQ(std::vector<unsigned int>(classes.get(), classes.get() + 3),
              (std::vector<unsigned int>{0, 1, 4}));
    EXPECT_EQ(s.GetClassByIndex(2), 4);
    EXPECT_EQ(s.GetClassByIndex(3), -1);
}

TEST(CDisjointSets, DismantleSplitsOnlyTheGivenClass)
{
    CDisjointSets s(6);
    s.Unify(0, 5);
    s.Unify(5, 2);
    s.Unify(1, 3);
    s.DismantleClass(4); // singleton: nothing
    EXPECT_EQ(s.GetNumClasses(), 3u);
    s.DismantleClass(2);
    EXPECT_EQ(s.GetNumClasses(), 5u);
    for (unsigned int x : {0u, 2u, 5u}) {
        EXPECT_EQ(s.GetClassRep(x), x);
        EXPECT_EQ(s.GetClassSize(x), 1u);
    }
    EXPECT_TRUE(s.SameClass(1, 3));
}

TEST(CDisjointSets, ClassIndexAndLookupsAgreeWithABruteForceLabelling)
{
    std::mt19937 engine(47110815);
    const unsigned int n = 300;
    CDisjointSets s(n);
    std::vector<unsigned int> label(n);
    for (unsigned int i = 0; i < n; ++i)
        label[i] = i;
    for (int k = 0; k < 250; ++k) {
        const unsigned int a = engine() % n, b = engine() % n;
        s.Unify(a, b);
        const unsigned int from = label[b], to = label[a];
        for (unsigned int& l : label)
            if (l == from)
                l = to;
    }
    unsigned int classes = 0;
    for (unsigned int i = 0; i < n; ++i) {
        classes += s.GetClassRep(i) == i;
        EXPECT_EQ(s.GetClassByIndex(s.GetClassIndex(i)), static_cast<int>(s.GetClassRep(i)));
        for (unsigned int j = 0; j < n; j += 7) {
            ASSERT_EQ(s.SameClass(i, j), label[i] == label[j]);
        }
    }
    EXPECT_EQ(classes, s.GetNumClasses());
    // The largest class-size entry belongs to a root of a largest class.
    const unsigned int largest = s.GetLargestClassRep();
    EXPECT_EQ(s.GetClassRep(largest), largest);
    for (unsigned int i = 0; i < n; ++i) {
        EXPECT_LE(s.GetClassSize(i), s.GetClassSize(largest));
    }
}

TEST(CDisjointSets, IteratorsWalkClassesAndMembersAscending)
{
    CDisjointSets s(7);
    s.Unify(4, 1);
    s.Unify(6, 4);
    s.Unify(2, 5);
    std::vector<std::vector<unsigned int>> seen;
    for (auto it = s.begin(); it != s.end(); ++it) {
        std::vector<unsigned int> members;
        for (unsigned int m : it.GetClass())
            members.push_back(m);
        EXPECT_EQ(s.GetClassRep(members[0]), *it);
        seen.push_back(members);
    }
    EXPECT_EQ(seen, (std::vector<std::vector<unsigned int>>{{0}, {2, 5}, {3}, {1, 4, 6}}));
    // Iterators own a snapshot: copies walk on independently and later unions don't disturb them.
    auto cls = s.GetClass(6);
    auto copy = cls;
    ++copy;
    s.Unify(0, 3);
    EXPECT_EQ(*cls, 1u);
    EXPECT_EQ(*copy, 4u);
    EXPECT_EQ(cls.Size(), 3u);
}

TEST(CDisjointSets, CopyIsDeepAndMoveEmptiesTheSource)
{
    CDisjointSets a(4);
    a.Unify(0, 1);
    CDisjointSets b(a);
    b.Unify(2, 3);
    EXPECT_EQ(a.GetNumClasses(), 3u);
    EXPECT_EQ(b.GetNumClasses(), 2u);
    CDisjointSets c(std::move(b));
    EXPECT_EQ(b.Size(), 0u);
    EXPECT_EQ(c.GetNumClasses(), 2u);
    a = c;
    EXPECT_TRUE(a.SameClass(2, 3));
}

} // namespace
