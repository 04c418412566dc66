// Locating the circular marks of a calibration target in rendered photographs with exact truth:
// detection success, RMS centre error against the projected mark centres, and wall time.
//
// Scenes (built once, outside the timed loops): 1280 x 1024 pictures of a 14 x 11 grid, spacing 60
// px, mark diameter 20 px, moderate tilt (15, -10, 5 degrees, focal 1920 px), Gaussian blur sigma 1
// px and noise sigma 2 grey levels, in four variants (dark or bright, discs or rings); and a
// 2592 x 1944 (5 megapixel) picture of a 20 x 20 grid (400 marks), spacing 80 px, diameter 24 px.
//
// Contenders, each given what it needs to know of the target (grid size, diameter, polarity):
//  - Blob: a plain baseline: Otsu threshold, 4-connected components filtered by area, and the
//    intensity-weighted centroid of each component.
//  - OpenCV findCirclesGrid (symmetric grid, SimpleBlobDetector tuned to the mark size and colour;
//    for rings the detector looks for the centre spots, whose colour is the ground's).
//  - OpenCV HoughCircles (HOUGH_GRADIENT, radius range 0.75 to 1.25 of the nominal radius).
//  OpenCV is limited to one thread (cv::setNumThreads(1)), as this library starts none.
//  - Library: this library's chain, Hough detection (downsize factor diameter / 10, limits 0.2,
//    0.2, 0.5, unit filters, radius divisor 2), grid positions and Zhou refinement (for rings with
//    the edge window's lower bound at 2 so that it sees one edge of the thin ring), built when its
//    headers are present.
// Counters: found (detections within a quarter diameter of a true centre, each truth counted once),
// expected (marks wholly inside the picture), rms_px over the found marks, false_hits (detections
// that match no mark).
#include <algorithm>
#include <benchmark/benchmark.h>
#include <cmath>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "targetrenderer.h"

#if __has_include("datalayer/algorithms/calibration/ccalibrationfeaturedetecthough.h") &&                    \
                  __has_include(                                                                             \
                      "datalayer/algorithms/calibration/ccalibrationfeaturefindgridpositions.h") &&          \
                      __has_include("datalayer/algorithms/calibration/ccalibrationfeaturerefinementzhou.h")
#define VORN2_HAVE_CALIBRATION_CHAIN 1
#include "datalayer/algorithms/calibration/ccalibrationfeaturedetecthough.h"
#include "datalayer/algorithms/calibration/ccalibrationfeaturefindgridpositions.h"
#include "datalayer/algorithms/calibration/ccalibrationfeaturerefinementzhou.h"
#include "datalayer/algorithms/calibration/ccalibrationimage.h"
#endif

#ifdef VORN2_HAVE_PEERS
#include <opencv2/calib3d.hpp>
#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

struct Point
{
    double x = 0;
    double y = 0;
};

struct Scene
{
    TargetRender::TargetSettings settings;
    TargetRender::RenderedTarget target;
};

TargetRender::TargetSettings baseSettings(bool bright, bool rings)
{
    TargetRender::TargetSettings s;
    s.width = 1280;
    s.height = 1024;
    s.columns = 14;
    s.rows = 11;
    s.spacing = 60;
    s.diameter = 20;
    s.rings = rings;
    s.bright = bright;
    s.tiltX = 15;
    s.tiltY = -10;
    s.tiltZ = 5;
    s.blurSigma = 1.0;
    s.noiseSigma = 2.0;
    s.seed = 2024;
    return s;
}

enum SceneId
{
    kDarkDiscs,
    kBrightDiscs,
    kDarkRings,
    kBrightRings,
    kFiveMegapixel,
    kSceneCount
};

const Scene& scene(int id)
{
    static std::map<int, Scene> scenes;
    auto it = scenes.find(id);
    if (it != scenes.end())
        return it->second;
    TargetRender::TargetSettings s;
    switch (id) {
    case kDarkDiscs:
        s = baseSettings(false, false);
        break;
    case kBrightDiscs:
        s = baseSettings(true, false);
        break;
    case kDarkRings:
        s = baseSettings(false, true);
        break;
    case kBrightRings:
        s = baseSettings(true, true);
        break;
    default:
        s = baseSettings(false, false);
        s.width = 2592;
        s.height = 1944;
        s.columns = 20;
        s.rows = 20;
        s.spacing = 80;
        s.diameter = 24;
        break;
    }
    Scene sc{s, TargetRender::RenderTarget(s)};
    return scenes.emplace(id, std::move(sc)).first->second;
}

// ---- scoring --------------------------------------------------------------------------------------

struct Score
{
    int found = 0;
    int expected = 0;
    int falseHits = 0;
    double rms = 0;
};

Score score(const Scene& sc, const std::vector<Point>& detections)
{
    Score result;
    const auto& truth = sc.target.truth;
    result.expected = static_cast<int>(truth.size());
    std::vector<char> used(truth.size(), 0);
    const double limit = sc.settings.diameter / 4;
    double squares = 0;
    for (const Point& d : detections) {
        int best = -1;
        double bestDistance = limit;
        for (std::size_t i = 0; i < truth.size(); ++i) {
            const double distance = std::hypot(d.x - truth[i].x, d.y - truth[i].y);
            if (distance < bestDistance && !used[i]) {
                best = static_cast<int>(i);
                bestDistance = distance;
            }
        }
        if (best < 0) {
            ++result.falseHits;
            continue;
        }
        used[std::size_t(best)] = 1;
        ++result.found;
        squares += bestDistance * bestDistance;
    }
    result.rms = result.found ? std::sqrt(squares / result.found) : 0.0;
    return result;
}

void report(benchmark::State& state, const Scene& sc, const std::vector<Point>& detections)
{
    const Score s = score(sc, detections);
    state.counters["found"] = s.found;
    state.counters["expected"] = s.expected;
    state.counters["rms_px"] = s.rms;
    state.counters["false_hits"] = s.falseHits;
    state.counters["megapixels"] = sc.settings.width * double(sc.settings.height) / 1e6;
}

// ---- baseline: thresholded blobs and their weighted centroids ----------------------------------------

int otsuThreshold(const std::vector<std::uint8_t>& grey)
{
    double histogram[256] = {};
    for (std::uint8_t v : grey)
        histogram[v] += 1;
    const double total = double(grey.size());
    double sumAll = 0;
    for (int i = 0; i < 256; ++i)
        sumAll += i * histogram[i];
    double weightBelow = 0, sumBelow = 0, bestVariance = -1;
    int best = 128;
    for (int t = 0; t < 256; ++t) {
        weightBelow += histogram[t];
        sumBelow += t * histogram[t];
        const double weightAbove = total - weightBelow;
        if (weightBelow == 0 || weightAbove == 0)
            continue;
        const double meanBelow = sumBelow / weightBelow, meanAbove = (sumAll - sumBelow) / weightAbove;
        const double variance = weightBelow * weightAbove * (meanBelow - meanAbove) * (meanBelow - meanAbove);
        if (variance > bestVariance) {
            bestVariance = variance;
            best = t;
        }
    }
    return best;
}

std::vector<Point> blobCentroids(const Scene& sc)
{
    const auto& s = sc.settings;
    const auto& grey = sc.target.grey8;
    const int w = sc.target.width, h = sc.target.height;
    const int threshold = otsuThreshold(grey);
    const bool dark = !s.bright;
    std::vector<std::int32_t> label(grey.size(), 0);
    auto isMark = [&](std::size_t i) { return dark ? grey[i] <= threshold : grey[i] > threshold; };
    const double r = s.diameter / 2;
    const double markArea = 3.14159265358979 * r * r * (s.rings ? 1 - s.ringRatio * s.ringRatio : 1.0);
    std::vector<Point> result;
    std::vector<std::int32_t> stack;
    std::vector<std::int32_t> members;
    int next = 0;
    for (int start = 0; start < w * h; ++start) {
        if (label[std::size_t(start)] || !isMark(std::size_t(start)))
            continue;
        ++next;
        members.clear();
        stack.push_back(start);
        label[std::size_t(start)] = next;
        while (!stack.empty()) {
            const std::int32_t p = stack.back();
            stack.pop_back();
            members.push_back(p);
            const int x = p % w, y = p / w;
            const std::int32_t neighbours[4] = {x > 0 ? p - 1 : -1, x + 1 < w ? p + 1 : -1,
                                                y > 0 ? p - w : -1, y + 1 < h ? p + w : -1};
            for (std::int32_t q : neighbours)
                if (q >= 0 && !label[std::size_t(q)] && isMark(std::size_t(q))) {
                    label[std::size_t(q)] = next;
                    stack.push_back(q);
                }
        }
        const double area = double(members.size());
        if (area < 0.25 * markArea || area > 4 * markArea)
            continue;
        double sw = 0, sx = 0, sy = 0;
        for (std::int32_t p : members) {
            const double weight = std::abs(double(grey[std::size_t(p)]) - threshold) + 1.0;
            sw += weight;
            sx += weight * (p % w);
            sy += weight * (p / w);
        }
        result.push_back({sx / sw, sy / sw});
    }
    return result;
}

void BM_Calibration_Blob(benchmark::State& state)
{
    const Scene& sc = scene(static_cast<int>(state.range(0)));
    std::vector<Point> detections;
    for (auto _ : state) {
        detections = blobCentroids(sc);
        benchmark::DoNotOptimize(detections.data());
    }
    report(state, sc, detections);
}

// ---- this library's chain ---------------------------------------------------------------------------

#ifdef VORN2_HAVE_CALIBRATION_CHAIN
std::vector<Point> libraryChain(const Scene& sc, const DataLayer::CCalibrationImage& image)
{
    const auto& s = sc.settings;
    // Downsize so that a mark keeps a radius of about 5 pixels in the accumulator.
    const int factor = std::max(1, static_cast<int>(s.diameter / 10));
    DataLayer::CCalibrationFeatureDetectHough hough;
    hough.SetDetectionLimits(0.2, 0.2, 0.5);
    hough.SetFilters(nullptr, 0, nullptr, 0);
    std::vector<Point> result;
    if (!hough.FindFeatures(image, s.diameter, s.spacing, factor, s.rings, !s.bright, 2, -1))
        return result;
    DataLayer::CCalibrationFeatureFindGridPositions grid;
    if (!grid.FindGridPositions(hough.GetFeatures(), s.spacing, -1, &image))
        return result;
    DataLayer::CCalibrationFeatureRefinementZhou zhou;
    // The default edge window (13 samples) spans both edges of a ring this thin (5 px); let the
    // radius / 3 rule choose it (7 samples at diameter 20).
    if (s.rings)
        zhou.SetHalfLineLengthMin(2);
    if (!zhou.RefineFeatures(image, grid.GetFeatures(), s.rings, !s.bright, -1))
        return result;
    const auto& refined = zhou.GetFeatures();
    for (int i = 0; i < static_cast<int>(refined.GetSize()); ++i)
        result.push_back({refined[i].posX, refined[i].posY});
    return result;
}

void BM_Calibration_Library(benchmark::State& state)
{
    const Scene& sc = scene(static_cast<int>(state.range(0)));
    DataLayer::CCalibrationImage image;
    image.SetSize(CSize(sc.target.width, sc.target.height));
    for (int y = 0; y < sc.target.height; ++y)
        for (int x = 0; x < sc.target.width; ++x)
            image.SetPixel(x, y, float(sc.target.grey8[std::size_t(y) * sc.target.width + x]));
    std::vector<Point> detections;
    for (auto _ : state) {
        detections = libraryChain(sc, image);
        benchmark::DoNotOptimize(detections.data());
    }
    report(state, sc, detections);
}
#endif

// ---- OpenCV ---------------------------------------------------------------------------------------------

#ifdef VORN2_HAVE_PEERS
// OpenCV runs single-threaded, as this library does.
const int kOpenCVThreads = [] {
    cv::setNumThreads(1);
    return 1;
}();

cv::Mat asMat(const Scene& sc)
{
    return cv::Mat(sc.target.height, sc.target.width, CV_8UC1,
                   const_cast<std::uint8_t*>(sc.target.grey8.data()));
}

void BM_Calibration_OpenCVFindCirclesGrid(benchmark::State& state)
{
    const Scene& sc = scene(static_cast<int>(state.range(0)));
    const auto& s = sc.settings;
    const cv::Mat image = asMat(sc);
    cv::SimpleBlobDetector::Params params;
    params.filterByColor = true;
    // Discs: the marks themselves. Rings: their centre spots, which have the ground's colour.
    const bool lookForDark = s.rings ? s.bright : !s.bright;
    params.blobColor = lookForDark ? 0 : 255;
    const double r = s.diameter / 2 * (s.rings ? s.ringRatio : 1.0);
    params.minArea = static_cast<float>(0.25 * 3.14159265 * r * r);
    params.maxArea = static_cast<float>(4.0 * 3.14159265 * r * r);
    params.minDistBetweenBlobs = static_cast<float>(s.spacing / 3);
    const cv::Ptr<cv::FeatureDetector> detector = cv::SimpleBlobDetector::create(params);
    std::vector<cv::Point2f> centres;
    bool ok = false;
    for (auto _ : state) {
        centres.clear();
        ok = cv::findCirclesGrid(image, cv::Size(s.columns, s.rows), centres, cv::CALIB_CB_SYMMETRIC_GRID,
                                 detector);
        benchmark::DoNotOptimize(centres.data());
    }
    std::vector<Point> detections;
    if (ok)
        for (const cv::Point2f& c : centres)
            detections.push_back({c.x, c.y});
    report(state, sc, detections);
}

void BM_Calibration_OpenCVHoughCircles(benchmark::State& state)
{
    const Scene& sc = scene(static_cast<int>(state.range(0)));
    const auto& s = sc.settings;
    const cv::Mat image = asMat(sc);
    const double r = s.diameter / 2;
    std::vector<cv::Vec3f> circles;
    for (auto _ : state) {
        circles.clear();
        cv::HoughCircles(image, circles, cv::HOUGH_GRADIENT, 1, s.spacing * 0.6, 100, 15,
                         static_cast<int>(std::floor(0.75 * r)), static_cast<int>(std::ceil(1.25 * r)));
        benchmark::DoNotOptimize(circles.data());
    }
    std::vector<Point> detections;
    for (const cv::Vec3f& c : circles)
        detections.push_back({c[0], c[1]});
    report(state, sc, detections);
}
#endif

void sceneArguments(benchmark::internal::Benchmark* b)
{
    b->ArgName("scene");
    for (int id = 0; id < kSceneCount; ++id)
        b->Arg(id);
    b->Unit(benchmark::kMillisecond)->UseRealTime();
}

} // namespace

// scene: 0 dark discs, 1 bright discs, 2 dark rings, 3 bright rings, 4 five megapixels (dark discs)
BENCHMARK(BM_Calibration_Blob)->Apply(sceneArguments);
#ifdef VORN2_HAVE_CALIBRATION_CHAIN
BENCHMARK(BM_Calibration_Library)->Apply(sceneArguments);
#endif
#ifdef VORN2_HAVE_PEERS
BENCHMARK(BM_Calibration_OpenCVFindCirclesGrid)->Apply(sceneArguments);
BENCHMARK(BM_Calibration_OpenCVHoughCircles)->Apply(sceneArguments);
#endif
