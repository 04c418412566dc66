// Timing of the pixel regions against OpenCV on the same inputs in the same run: the distance
// transform of a 4096 x 4096 mask (cv::distanceTransform with DIST_L2 / DIST_MASK_PRECISE, DIST_L1,
// DIST_C), the tracing of one large blob (cv::findContours, outer contours, no approximation) and
// the dilation of a region (cv::dilate with the same square). OpenCV runs on one thread
// (cv::setNumThreads(1)), as this library does. Inputs are built once, outside the timed loops.

#include <benchmark/benchmark.h>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "datalayer/algorithms/regions/ccontourtracer.h"
#include "datalayer/algorithms/regions/cpixelpolygon.h"
#include "datalayer/algorithms/regions/zudetail.h"

#ifdef VORN2_HAVE_PEERS
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

constexpr int kSide = 4096;

/// A 4096 x 4096 feature mask: a few hundred scattered discs of features (255) on background (0).
const std::vector<unsigned char>& FeatureMask()
{
    static const std::vector<unsigned char> mask = [] {
        std::vector<unsigned char> m(static_cast<std::size_t>(kSide) * kSide, 0);
        std::mt19937_64 engine(4096);
        std::uniform_int_distribution<int> pos(0, kSide - 1), radius(2, 30);
        for (int k = 0; k < 400; ++k) {
            const int cx = pos(engine), cy = pos(engine), r = radius(engine);
            for (int y = std::max(0, cy - r); y <= std::min(kSide - 1, cy + r); ++y)
                for (int x = std::max(0, cx - r); x <= std::min(kSide - 1, cx + r); ++x)
                    if ((x - cx) * (x - cx) + (y - cy) * (y - cy) <= r * r)
                        m[static_cast<std::size_t>(y) * kSide + x] = 255;
        }
        return m;
    }();
    return mask;
}

/// One large blob with a ragged outline: a disc of radius about 1800 whose radius wobbles with the
/// angle, centred in a 4096 x 4096 mask (255 inside).
const std::vector<unsigned char>& BlobMask()
{
    static const std::vector<unsigned char> mask = [] {
        std::vector<unsigned char> m(static_cast<std::size_t>(kSide) * kSide, 0);
        const double c = kSide / 2.0;
        for (int y = 0; y < kSide; ++y)
            for (int x = 0; x < kSide; ++x) {
                const double dx = x - c, dy = y - c;
                const double a = std::atan2(dy, dx);
                const double r = 1800.0 + 60.0 * std::sin(7.0 * a) + 25.0 * std::sin(31.0 * a);
                if (dx * dx + dy * dy <= r * r)
                    m[static_cast<std::size_t>(y) * kSide + x] = 255;
            }
        return m;
    }();
    return mask;
}

void distanceTransform(benchmark::State& state, char metric)
{
    const std::vector<unsigned char>& mask = FeatureMask();
    std::vector<unsigned short> result(mask.size());
    std::vector<unsigned int> scratch(mask.size());
    unsigned short maximum = 0;
    for (auto _ : state) {
        DataLayer::zudetail::ComputeDistanceTransform(
            [&mask](int x, int y) { return mask[static_cast<std::size_t>(y) * kSide + x] != 0; }, kSide,
            kSide, metric, &maximum, result.data(), scratch.data());
        benchmark::DoNotOptimize(result.data());
    }
    if (maximum == 0)
        state.SkipWithError("no distance");
    state.counters["max"] = maximum;
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(mask.size()));
}

void BM_DistanceTransform_Euclidean(benchmark::State& state)
{
    distanceTransform(state, 'E');
}
void BM_DistanceTransform_Manhattan(benchmark::State& state)
{
    distanceTransform(state, 'M');
}
void BM_DistanceTransform_Chessboard(benchmark::State& state)
{
    distanceTransform(state, 'C');
}
BENCHMARK(BM_DistanceTransform_Euclidean)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DistanceTransform_Manhattan)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DistanceTransform_Chessboard)->Unit(benchmark::kMillisecond);

void BM_TraceBlob(benchmark::State& state)
{
    const std::vector<unsigned char>& mask = BlobMask();
    std::size_t size = 0;
    for (auto _ : state) {
        const DataLayer::CPixelPolygon p =
            DataLayer::detail::CContourTracer(mask.data(), 255, kSide, kSide).TraceFirst();
        size = p.Size();
        benchmark::DoNotOptimize(size);
    }
    state.counters["chain"] = static_cast<double>(size);
}
BENCHMARK(BM_TraceBlob)->Unit(benchmark::kMillisecond);

/// The traced blob, shrunk to a quarter of the side: the region that the dilations grow.
const DataLayer::CPixelPolygon& DilationInput()
{
    static const DataLayer::CPixelPolygon polygon = [] {
        const std::vector<unsigned char>& big = BlobMask();
        const int side = kSide / 4;
        std::vector<unsigned char> small(static_cast<std::size_t>(side) * side);
        for (int y = 0; y < side; ++y)
            for (int x = 0; x < side; ++x)
                small[static_cast<std::size_t>(y) * side + x] =
                    big[static_cast<std::size_t>(4 * y) * kSide + 4 * x];
        return DataLayer::detail::CContourTracer(small.data(), 255, side, side).TraceFirst();
    }();
    return polygon;
}

void BM_Dilate(benchmark::State& state)
{
    const DataLayer::CPixelPolygon& polygon = DilationInput();
    const unsigned n = static_cast<unsigned>(state.range(0));
    int area = 0;
    for (auto _ : state) {
        const DataLayer::CPixelPolygon grown = polygon.Dilate(n);
        area = grown.GetArea();
        benchmark::DoNotOptimize(area);
    }
    state.counters["area"] = area;
}
BENCHMARK(BM_Dilate)->Arg(1)->Arg(8)->Arg(32)->Unit(benchmark::kMillisecond);

#ifdef VORN2_HAVE_PEERS

void openCvDistance(benchmark::State& state, int type, int maskSize)
{
    cv::setNumThreads(1);
    const std::vector<unsigned char>& mask = FeatureMask();
    // OpenCV measures the distance to the nearest zero pixel: features become 0.
    cv::Mat src(kSide, kSide, CV_8U);
    for (std::size_t i = 0; i < mask.size(); ++i)
        src.data[i] = mask[i] ? 0 : 255;
    cv::Mat dst;
    for (auto _ : state) {
        cv::distanceTransform(src, dst, type, maskSize);
        benchmark::DoNotOptimize(dst.data);
    }
    double maximum = 0.0;
    cv::minMaxLoc(dst, nullptr, &maximum);
    state.counters["max"] = maximum;
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(mask.size()));
}

void BM_OpenCV_DistanceTransform_L2Precise(benchmark::State& state)
{
    openCvDistance(state, cv::DIST_L2, cv::DIST_MASK_PRECISE);
}
void BM_OpenCV_DistanceTransform_L1(benchmark::State& state)
{
    openCvDistance(state, cv::DIST_L1, 3);
}
void BM_OpenCV_DistanceTransform_C(benchmark::State& state)
{
    openCvDistance(state, cv::DIST_C, 3);
}
BENCHMARK(BM_OpenCV_DistanceTransform_L2Precise)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenCV_DistanceTransform_L1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenCV_DistanceTransform_C)->Unit(benchmark::kMillisecond);

void BM_OpenCV_FindContours(benchmark::State& state)
{
    cv::setNumThreads(1);
    const std::vector<unsigned char>& mask = BlobMask();
    const cv::Mat src(kSide, kSide, CV_8U, const_cast<unsigned char*>(mask.data()));
    std::vector<std::vector<cv::Point>> contours;
    for (auto _ : state) {
        cv::findContours(src, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
        benchmark::DoNotOptimize(contours.data());
    }
    state.counters["chain"] = contours.empty() ? 0.0 : static_cast<double>(contours.front().size());
}
BENCHMARK(BM_OpenCV_FindContours)->Unit(benchmark::kMillisecond);

void BM_OpenCV_Dilate(benchmark::State& state)
{
    cv::setNumThreads(1);
    const DataLayer::CPixelPolygon& polygon = DilationInput();
    const int n = static_cast<int>(state.range(0));
    int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
    polygon.GetAABB(&x0, &y0, &x1, &y1);
    // The filled region in its bounding box grown by n, as the library's own mask is.
    cv::Mat src = cv::Mat::zeros(y1 - y0 + 1 + 2 * n, x1 - x0 + 1 + 2 * n, CV_8U);
    for (auto it = polygon.GetAreaAndMarginIterator(); it; ++it)
        src.at<unsigned char>(it->y - y0 + n, it->x - x0 + n) = 255;
    const cv::Mat kernel = cv::getStructuringElement(cv::MORPH_RECT, cv::Size(2 * n + 1, 2 * n + 1));
    cv::Mat dst;
    for (auto _ : state) {
        cv::dilate(src, dst, kernel);
        benchmark::DoNotOptimize(dst.data);
    }
    state.counters["area"] = cv::countNonZero(dst);
}
BENCHMARK(BM_OpenCV_Dilate)->Arg(1)->Arg(8)->Arg(32)->Unit(benchmark::kMillisecond);

#endif

} // namespace
