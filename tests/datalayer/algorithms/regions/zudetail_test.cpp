// The distance transform: worked single-feature images, the limits, the buffers, and an exact
// comparison with an exhaustive nearest-feature search for all three metrics.
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "datalayer/algorithms/regions/zudetail.h"
#include "region_support.h"

using DataLayer::zudetail::ComputeDistanceTransform;

namespace {

std::vector<unsigned short> Transform(const std::vector<unsigned char>& features, int w, int h, char metric,
                                      unsigned short* maximum = nullptr)
{
    std::unique_ptr<unsigned short[]> out(ComputeDistanceTransform(
        [&](int x, int y) { return features[static_cast<std::size_t>(y) * w + x] != 0; },
        static_cast<unsigned short>(w), static_cast<unsigned short>(h), metric, maximum, nullptr, nullptr));
    if (!out)
        return {};
    return std::vector<unsigned short>(out.get(), out.get() + static_cast<std::size_t>(w) * h);
}

std::vector<unsigned char> SingleFeature(int w, int h, int x, int y)
{
    std::vector<unsigned char> f(static_cast<std::size_t>(w) * h, 0);
    f[static_cast<std::size_t>(y) * w + x] = 1;
    return f;
}

} // namespace

TEST(ComputeDistanceTransform, SingleFeatureInFiveByFive)
{
    const auto f = SingleFeature(5, 5, 2, 2);
    unsigned short maximum = 0;
    // clang-format off
    const std::vector<unsigned short> chessboard = {2, 2, 2, 2, 2,
                                                    2, 1, 1, 1, 2,
                                                    2, 1, 0, 1, 2,
                                                    2, 1, 1, 1, 2,
                                                    2, 2, 2, 2, 2};
    const std::vector<unsigned short> manhattan = {4, 3, 2, 3, 4,
                                                   3, 2, 1, 2, 3,
                                                   2, 1, 0, 1, 2,
                                                   3, 2, 1, 2, 3,
                                                   4, 3, 2, 3, 4};
    // Rounded: sqrt 2 -> 1, 2, sqrt 5 -> 2, sqrt 8 -> 3.
    const std::vector<unsigned short> euclidean = {3, 2, 2, 2, 3,
                                                   2, 1, 1, 1, 2,
                                                   2, 1, 0, 1, 2,
                                                   2, 1, 1, 1, 2,
                                                   3, 2, 2, 2, 3};
    // clang-format on
    EXPECT_EQ(Transform(f, 5, 5, 'C', &maximum), chessboard);
    EXPECT_EQ(maximum, 2);
    EXPECT_EQ(Transform(f, 5, 5, 'M', &maximum), manhattan);
    EXPECT_EQ(maximum, 4);
    EXPECT_EQ(Transform(f, 5, 5, 'E', &maximum), euclidean);
    EXPECT_EQ(maximum, 3);
}

TEST(ComputeDistanceTransform, AllFeaturesAndNoFeatures)
{
    for (char metric : {'E', 'M', 'C'}) {
        unsigned short maximum = 99;
        const auto zero = Transform(std::vector<unsigned char>(12, 1), 4, 3, metric, &maximum);
        EXPECT_EQ(zero, std::vector<unsigned short>(12, 0));
        EXPECT_EQ(maximum, 0);

        // Without features every pixel of row y holds width + height + y, cut to 16 bits.
        const int w = 65535, h = 2;
        const auto none =
            Transform(std::vector<unsigned char>(static_cast<std::size_t>(w) * h, 0), w, h, metric, &maximum);
        ASSERT_EQ(none.size(), static_cast<std::size_t>(w) * h);
        EXPECT_EQ(none[0], 1) << metric;     // 65537 & 0xFFFF
        EXPECT_EQ(none[w - 1], 1) << metric; // the same along the row
        EXPECT_EQ(none[w + 7], 2) << metric; // 65538 & 0xFFFF
        EXPECT_EQ(maximum, 2) << metric;
        const auto small = Transform(std::vector<unsigned char>(6, 0), 3, 2, metric, &maximum);
        EXPECT_EQ(small, (std::vector<unsigned short>{5, 5, 5, 6, 6, 6})) << metric;
        EXPECT_EQ(maximum, 6);
    }
}

TEST(ComputeDistanceTransform, UnknownMetricAndEmptySizes)
{
    int calls = 0;
    unsigned short maximum = 77;
    auto count = [&](int, int) {
        ++calls;
        return false;
    };
    EXPECT_EQ(ComputeDistanceTransform(count, 4, 4, 'X', &maximum, nullptr, nullptr), nullptr);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(maximum, 77);

    unsigned short untouched[4] = {9, 9, 9, 9};
    EXPECT_EQ(ComputeDistanceTransform(count, 4, 0, 'E', &maximum, untouched, nullptr), untouched);
    EXPECT_EQ(maximum, 0);
    maximum = 77;
    EXPECT_EQ(ComputeDistanceTransform(count, 0, 4, 'M', &maximum, untouched, nullptr), untouched);
    EXPECT_EQ(maximum, 0);
    EXPECT_EQ(untouched[0], 9);
    EXPECT_EQ(calls, 0);
    // A null result with no pixels is still an array for delete[].
    unsigned short* empty = ComputeDistanceTransform(count, 0, 3, 'C', nullptr, nullptr, nullptr);
    EXPECT_NE(empty, nullptr);
    delete[] empty;
}

TEST(ComputeDistanceTransform, CallsIsFeatureOncePerPixelColumnByColumn)
{
    std::vector<std::pair<int, int>> calls;
    const int w = 37, h = 5; // more than one group of columns
    unsigned short* out = ComputeDistanceTransform(
        [&](int x, int y) {
            calls.emplace_back(x, y);
            return x == 3 && y == 1;
        },
        w, h, 'M', nullptr, nullptr, nullptr);
    ASSERT_NE(out, nullptr);
    ASSERT_EQ(calls.size(), static_cast<std::size_t>(w) * h);
    for (std::size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(calls[i].first, static_cast<int>(i) / h);
        EXPECT_EQ(calls[i].second, static_cast<int>(i) % h);
    }
    EXPECT_EQ(out[0], 4);
    EXPECT_EQ(out[4 * w + 36], 36);
    delete[] out;
}

TEST(ComputeDistanceTransform, CallerBuffersAreUsedAndExceptionsPropagate)
{
    const auto f = SingleFeature(9, 7, 6, 1);
    std::vector<unsigned short> result(63, 0xFFFF);
    std::vector<unsigned int> scratch(63, 0xDEADBEEF);
    unsigned short maximum = 0;
    unsigned short* out = ComputeDistanceTransform([&](int x, int y) { return f[y * 9 + x] != 0; }, 9, 7, 'E',
                                                   &maximum, result.data(), scratch.data());
    EXPECT_EQ(out, result.data());
    EXPECT_EQ(result, Transform(f, 9, 7, 'E'));
    EXPECT_EQ(maximum, 8); // at (0, 6): sqrt(36 + 25) = 7.81 rounds to 8
    EXPECT_THROW(
        ComputeDistanceTransform(std::function<bool(int, int)>(), 3, 3, 'E', nullptr, nullptr, nullptr),
        std::bad_function_call);
    EXPECT_THROW(ComputeDistanceTransform(
                     [](int x, int) -> bool {
                         if (x == 2)
                             throw std::runtime_error("stop");
                         return false;
                     },
                     5, 5, 'C', nullptr, nullptr, nullptr),
                 std::runtime_error);
}

class DistanceTransformMetric : public ::testing::TestWithParam<char>
{
};

TEST_P(DistanceTransformMetric, AgreesExactlyWithExhaustiveSearch)
{
    const char metric = GetParam();
    std::mt19937_64 engine(1234 + metric);
    for (int trial = 0; trial < 60; ++trial) {
        const int w = 1 + static_cast<int>(engine() % 64);
        const int h = 1 + static_cast<int>(engine() % 64);
        const double density = trial % 3 == 0 ? 0.002 : (trial % 3 == 1 ? 0.05 : 0.4);
        const auto features = vorn2test::RandomMask(engine, w, h, density);
        unsigned short maximum = 0;
        const auto ours = Transform(features, w, h, metric, &maximum);
        const auto expected = vorn2test::BruteForceDistance(features, w, h, metric);
        ASSERT_EQ(ours, expected) << "metric " << metric << " trial " << trial << " size " << w << "x" << h;
        unsigned short expectedMax = 0;
        for (unsigned short v : expected)
            expectedMax = std::max(expectedMax, v);
        EXPECT_EQ(maximum, expectedMax);
    }
}

INSTANTIATE_TEST_SUITE_P(AllMetrics, DistanceTransformMetric, ::testing::Values('E', 'M', 'C'),
                         [](const ::testing::TestParamInfo<char>& info) {
                             return info.param == 'E'   ? std::string("Euclidean")
                                    : info.param == 'M' ? std::string("Manhattan")
                                                        : std::string("Chessboard");
                         });
