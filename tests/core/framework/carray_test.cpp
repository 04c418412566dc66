#include <gtest/gtest.h>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "core/base/lbvector.h"
#include "core/framework/carray.h"

namespace {

template <typename T, typename A> std::vector<T> contents(const CArray<T, A>& a)
{
    return std::vector<T>(a.GetData(), a.GetData() + a.GetSize());
}

/// Long enough to live on the heap, so that a dangling copy shows up under the sanitizers.
std::string longText(int i)
{
    return "element number " + std::to_string(i) + " with a tail longer than the small buffer";
}

} // namespace

TEST(CArray, AutomaticGrowthStepsByAnEighthOfTheSizeBetweenFourAnd1024)
{
    CArray<int> a;
    EXPECT_EQ(a.GetAllocSize(), 0);
    EXPECT_EQ(a.GetData(), nullptr);
    std::vector<std::ptrdiff_t> capacities;
    for (int i = 0; i < 80; ++i) {
        a.Add(i);
        if (capacities.empty() || capacities.back() != a.GetAllocSize())
            capacities.push_back(a.GetAllocSize());
    }
    // Steps of 4 while size / 8 < 4, then size / 8: 40 -> 45 -> 50 -> 56 -> 63 -> 70 -> 78 -> 87.
    const std::vector<std::ptrdiff_t> expected{4,  8,  12, 16, 20, 24, 28, 32, 36,
                                               40, 45, 50, 56, 63, 70, 78, 87};
    EXPECT_EQ(capacities, expected);
    for (int i = 0; i < 80; ++i)
        EXPECT_EQ(a[i], i);
}

TEST(CArray, AutomaticStepIsCappedAt1024)
{
    CArray<char> a;
    a.SetSize(20000);
    EXPECT_EQ(a.GetAllocSize(), 20000); // the request exceeds capacity + step
    a.Add('x');
    EXPECT_EQ(a.GetAllocSize(), 20000 + 1024);
    EXPECT_EQ(a.GetSize(), 20001);
}

TEST(CArray, RequestBeyondCapacityPlusStepAllocatesExactlyTheRequest)
{
    CArray<double> a;
    a.Add(1.0);
    ASSERT_EQ(a.GetAllocSize(), 4);
    a.SetSize(100);
    EXPECT_EQ(a.GetAllocSize(), 100);
    EXPECT_EQ(a[0], 1.0);
    EXPECT_EQ(a[99], 0.0);
}

TEST(CArray, ExplicitGrowByIsStoredAndUsedFromThenOn)
{
    CArray<int> a;
    a.SetSize(0, 10);
    a.Add(1);
    EXPECT_EQ(a.GetAllocSize(), 10);
    for (int i = 0; i < 10; ++i)
        a.Add(i);
    EXPECT_EQ(a.GetSize(), 11);
    EXPECT_EQ(a.GetAllocSize(), 20);
    // -1 and 0 keep the stored step of 10.
    a.SetSize(25, -1);
    EXPECT_EQ(a.GetAllocSize(), 30);
    a.SetSize(31, 0);
    EXPECT_EQ(a.GetAllocSize(), 40);
    // A new positive step replaces it.
    a.SetSize(41, 100);
    EXPECT_EQ(a.GetAllocSize(), 140);
}

TEST(CArray, ShrinkingKeepsTheBlockAndSizeZeroFreesIt)
{
    CArray<int> a;
    a.SetSize(50);
    const int* block = a.GetData();
    a.SetSize(3);
    EXPECT_EQ(a.GetAllocSize(), 50);
    EXPECT_EQ(a.GetData(), block);
    a.RemoveAt(0, 2);
    EXPECT_EQ(a.GetAllocSize(), 50);
    a.RemoveAll();
    EXPECT_EQ(a.GetSize(), 0);
    EXPECT_EQ(a.GetAllocSize(), 0);
    EXPECT_EQ(a.GetData(), nullptr);
    EXPECT_TRUE(a.IsEmpty());
    EXPECT_EQ(a.GetUpperBound(), -1);
}

TEST(CArray, GrowingValueInitialisesNewElements)
{
    CArray<LbVector2d> points;
    points.Add(LbVector2d(1, 2));
    points.SetSize(3);
    EXPECT_EQ(points[0], LbVector2d(1, 2));
    EXPECT_EQ(points[2], LbVector2d());
    points.SetSize(1);
    points.SetSize(2);
    EXPECT_EQ(points[1], LbVector2d()); // no stale value from before the shrink
}

TEST(CArray, InsertAtShiftsTheTailBack)
{
    CArray<int> a;
    for (int i = 0; i < 4; ++i)
        a.Add(i);
    a.InsertAt(1, 99, 2);
    EXPECT_EQ(contents(a), (std::vector<int>{0, 99, 99, 1, 2, 3}));
    a.InsertAt(6, 7);
    EXPECT_EQ(contents(a), (std::vector<int>{0, 99, 99, 1, 2, 3, 7}));
    a.InsertAt(0, -1);
    EXPECT_EQ(contents(a), (std::vector<int>{-1, 0, 99, 99, 1, 2, 3, 7}));
}

TEST(CArray, InsertAtPastTheEndPadsWithDefaultElements)
{
    CArray<int> a;
    a.Add(5);
    a.InsertAt(3, 8, 2);
    EXPECT_EQ(contents(a), (std::vector<int>{5, 0, 0, 8, 8}));
}

TEST(CArray, RemoveAtMovesTheTailForward)
{
    CArray<std::string> a;
    for (int i = 0; i < 6; ++i)
        a.Add(longText(i));
    a.RemoveAt(1, 2);
    EXPECT_EQ(contents(a), (std::vector<std::string>{longText(0), longText(3), longText(4), longText(5)}));
    a.RemoveAt(3);
    EXPECT_EQ(contents(a), (std::vector<std::string>{longText(0), longText(3), longText(4)}));
    // Removing nothing changes nothing (no element is moved onto itself).
    a.RemoveAt(0, 0);
    a.RemoveAt(3, 0);
    EXPECT_EQ(contents(a), (std::vector<std::string>{longText(0), longText(3), longText(4)}));
}

TEST(CArray, ElementFromTheArrayItselfIsCopiedBeforeTheArrayChanges)
{
    CArray<std::string> a;
    for (int i = 0; i < 4; ++i)
        a.Add(longText(i));
    ASSERT_EQ(a.GetSize(), a.GetAllocSize()); // the next Add reallocates
    a.Add(a[0]);
    EXPECT_EQ(a[4], longText(0));
    a.InsertAt(0, a[2]);
    EXPECT_EQ(a[0], longText(2));
    EXPECT_EQ(a[3], longText(2));
    a.SetSize(a.GetAllocSize());
    a.SetAtGrow(a.GetSize(), a[1]);
    EXPECT_EQ(a[a.GetUpperBound()], longText(0));
}

TEST(CArray, AddAppendAndSetAtGrowReportPositions)
{
    CArray<int> a;
    EXPECT_EQ(a.Add(10), 0);
    EXPECT_EQ(a.Add(11), 1);
    CArray<int> b;
    b.Add(20);
    b.Add(21);
    EXPECT_EQ(a.Append(b), 2);
    EXPECT_EQ(contents(a), (std::vector<int>{10, 11, 20, 21}));
    EXPECT_EQ(a.Append(a), 4);
    EXPECT_EQ(contents(a), (std::vector<int>{10, 11, 20, 21, 10, 11, 20, 21}));
    a.SetAtGrow(10, 5);
    EXPECT_EQ(a.GetSize(), 11);
    EXPECT_EQ(a[8], 0);
    EXPECT_EQ(a[10], 5);
    a.SetAtGrow(0, 1);
    EXPECT_EQ(a[0], 1);
    EXPECT_EQ(a.GetCount(), a.GetSize());
}

TEST(CArray, AccessorsReadAndWriteTheSameElement)
{
    CArray<double, double> a;
    a.SetSize(3);
    a.SetAt(0, 1.5);
    a.ElementAt(1) = 2.5;
    a[2] = 3.5;
    a.GetAt(2) += 1.0;
    const CArray<double, double>& view = a;
    EXPECT_EQ(view.GetAt(0), 1.5);
    EXPECT_EQ(view.ElementAt(1), 2.5);
    EXPECT_EQ(view[2], 4.5);
    EXPECT_EQ(view.GetData()[1], 2.5);
}

TEST(CArray, CopyIsDeepAndMoveEmptiesTheSource)
{
    CArray<std::string> a;
    a.SetSize(0, 7);
    a.Add(longText(1));
    a.Add(longText(2));
    CArray<std::string> copy(a);
    copy[0] = "changed";
    EXPECT_EQ(a[0], longText(1));
    copy.Add("x"); // the copy keeps the grow-by of 7: capacity 7 holds a third element
    EXPECT_EQ(copy.GetAllocSize(), 7);

    CArray<std::string> target;
    target.Add("old");
    target.Copy(a);
    EXPECT_EQ(contents(target), contents(a));
    target.Copy(target);
    EXPECT_EQ(contents(target), contents(a));

    CArray<std::string> moved(std::move(a));
    EXPECT_EQ(moved.GetSize(), 2);
    EXPECT_EQ(a.GetSize(), 0); // NOLINT(bugprone-use-after-move): the documented moved-from state
    EXPECT_EQ(a.GetData(), nullptr);
    target = std::move(moved);
    EXPECT_EQ(target[1], longText(2));
    copy = target;
    EXPECT_EQ(contents(copy), contents(target));
}

TEST(CArray, BadIndexOrSizeThrowsInvalidArgumentAndLeavesTheArrayAlone)
{
    CArray<int> a;
    a.Add(1);
    a.Add(2);
    const CArray<int>& view = a;
    EXPECT_THROW(a.GetAt(2), std::invalid_argument);
    EXPECT_THROW(view.GetAt(-1), std::invalid_argument);
    EXPECT_THROW(a.SetAt(2, 0), std::invalid_argument);
    EXPECT_THROW(a.ElementAt(-1), std::invalid_argument);
    EXPECT_THROW(a[2], std::invalid_argument);
    EXPECT_THROW(view[-1], std::invalid_argument);
    EXPECT_THROW(a.RemoveAt(2), std::invalid_argument);
    EXPECT_THROW(a.RemoveAt(-1), std::invalid_argument);
    EXPECT_THROW(a.RemoveAt(1, 2), std::invalid_argument);
    EXPECT_THROW(a.RemoveAt(0, -1), std::invalid_argument);
    EXPECT_THROW(a.InsertAt(-1, 0), std::invalid_argument);
    EXPECT_THROW(a.InsertAt(0, 0, 0), std::invalid_argument);
    EXPECT_THROW(a.InsertAt(1, 0, PTRDIFF_MAX), std::invalid_argument);
    EXPECT_THROW(a.SetSize(-1), std::invalid_argument);
    EXPECT_THROW(a.SetAtGrow(-1, 0), std::invalid_argument);
    EXPECT_THROW(a.SetAtGrow(PTRDIFF_MAX, 0), std::invalid_argument);
    EXPECT_THROW(CArray<int>().GetAt(0), std::invalid_argument);
    EXPECT_EQ(contents(a), (std::vector<int>{1, 2}));
    try {
        a.GetAt(5);
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "CArray::GetAt: index out of range");
    }
}

TEST(CArray, ImpossibleSizeThrowsBadAllocAndKeepsTheElements)
{
    CArray<double> a;
    a.Add(3.0);
    EXPECT_THROW(a.SetSize(PTRDIFF_MAX / 2), std::bad_alloc);
    EXPECT_EQ(contents(a), (std::vector<double>{3.0}));
}

TEST(CArray, RandomEditsMatchAStdVectorModel)
{
    std::mt19937_64 engine(47110815);
    CArray<std::string> a;
    std::vector<std::string> model;
    for (int step = 0; step < 3000; ++step) {
        const int op = std::uniform_int_distribution<int>(0, 5)(engine);
        const auto size = static_cast<std::ptrdiff_t>(model.size());
        const auto pick = [&](std::ptrdiff_t hi) {
            return std::uniform_int_distribution<std::ptrdiff_t>(0, hi)(engine);
        };
        const std::string value = longText(step);
        switch (op) {
        case 0:
            a.Add(value);
            model.push_back(value);
            break;
        case 1: {
            const std::ptrdiff_t index = pick(size);
            const std::ptrdiff_t count = 1 + pick(3);
            a.InsertAt(index, value, count);
            model.insert(model.begin() + index, static_cast<std::size_t>(count), value);
            break;
        }
        case 2:
            if (size > 0) {
                const std::ptrdiff_t index = pick(size - 1);
                const std::ptrdiff_t count = pick(size - index);
                a.RemoveAt(index, count);
                model.erase(model.begin() + index, model.begin() + index + count);
            }
            break;
        case 3: {
            const std::ptrdiff_t index = pick(size + 2);
            a.SetAtGrow(index, value);
            if (index >= size)
                model.resize(static_cast<std::size_t>(index + 1));
            model[static_cast<std::size_t>(index)] = value;
            break;
        }
        case 4: {
            const std::ptrdiff_t newSize = pick(size + 5);
            a.SetSize(newSize);
            model.resize(static_cast<std::size_t>(newSize));
            break;
        }
        default:
            if (size > 0) {
                const std::ptrdiff_t index = pick(size - 1);
                a.SetAt(index, value);
                model[static_cast<std::size_t>(index)] = value;
            }
            break;
        }
        ASSERT_EQ(contents(a), model) << "after step " << step << ", operation " << op;
        ASSERT_GE(a.GetAllocSize(), a.GetSize());
    }
}
