#include <gtest/gtest.h>
#include <string>
#include <typeinfo>
#include <vector>

#include "datalayer/algorithms/codecs/any.h"

namespace {

/// Counts live instances, to see that Any destroys exactly what it owns.
struct Counted
{
    static int live;
    int value = 0;
    Counted() { ++live; }
    explicit Counted(int v) : value(v) { ++live; }
    Counted(const Counted& o) : value(o.value) { ++live; }
    ~Counted() { --live; }
};
int Counted::live = 0;

TEST(Any, DefaultIsEmptyOfTypeVoid)
{
    Any a;
    EXPECT_FALSE(a);
    EXPECT_EQ(a.type(), typeid(void));
    a.reset(); // no effect on an empty value
    EXPECT_FALSE(a);
}

TEST(Any, CopiesAreIndependent)
{
    Any a;
    a = std::vector<int>{1, 2, 3};
    Any b(a);
    b.as<std::vector<int>>().push_back(4);
    EXPECT_EQ(a.as<std::vector<int>>(), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(b.as<std::vector<int>>(), (std::vector<int>{1, 2, 3, 4}));
    Any c;
    c = b;
    b.as<std::vector<int>>().clear();
    EXPECT_EQ(c.as<std::vector<int>>().size(), 4u);
    c = Any(); // assignment from an empty source empties the target
    EXPECT_FALSE(c);
    EXPECT_EQ(c.type(), typeid(void));
}

TEST(Any, MoveLeavesSourceEmptyAndOwnershipIsExact)
{
    Counted::live = 0;
    {
        Any a;
        a = Counted(7);
        EXPECT_EQ(Counted::live, 1);
        Any b(std::move(a));
        EXPECT_FALSE(a);
        EXPECT_EQ(a.type(), typeid(void));
        EXPECT_EQ(b.as<Counted>().value, 7);
        Any c;
        c = std::move(b);
        EXPECT_FALSE(b);
        EXPECT_EQ(Counted::live, 1);
        Any d(c);
        EXPECT_EQ(Counted::live, 2);
        Any& alias = d;
        d = alias; // self-assignment changes nothing, in both forms
        d = std::move(alias);
        EXPECT_EQ(d.as<Counted>().value, 7);
        d.reset();
        EXPECT_EQ(Counted::live, 1);
        c = std::string("other type"); // replacing destroys the old value
        EXPECT_EQ(Counted::live, 0);
    }
    EXPECT_EQ(Counted::live, 0);
}

TEST(Any, FirstAccessCreatesTheValue)
{
    Any a;
    EXPECT_TRUE(a.as<std::vector<int>>().empty());
    EXPECT_TRUE(a);
    EXPECT_EQ(a.type(), typeid(std::vector<int>));
}

TEST(Any, WrongTypeThrowsBadCastAndKeepsTheValue)
{
    Any a(std::vector<int>{5});
    try {
        a.as<int>();
        FAIL() << "expected std::bad_cast";
    } catch (const std::bad_cast& e) {
        EXPECT_STREQ(e.what(), "bad cast");
    }
    EXPECT_EQ(a.as<std::vector<int>>(), std::vector<int>{5});
    const Any empty;
    EXPECT_THROW(empty.as<int>(), std::bad_cast);
    const Any& ca = a;
    EXPECT_EQ(ca.as<std::vector<int>>()[0], 5);
}

} // namespace
