// The two mark-locating stages on one large picture: Hough detection and grid positions, alone and
// together, with the recommended settings of the vorn tool (tools/vorn/marksettings.h).
//
// Scene (rendered once, outside the timed loops): 2592 x 1944 pixels (5 megapixels), a 20 x 20 grid
// of dark discs (400 marks), spacing 80 px, diameter 24 px, moderate tilt (15, -10, 5 degrees),
// Gaussian blur sigma 1 px and noise sigma 2 grey levels.
// Peer: OpenCV HoughCircles (HOUGH_GRADIENT, single thread) on the same picture, radius 0.5 to 1.5
// of the nominal radius, accumulator at full (dp 1) and half (dp 2) resolution; the library's
// detector runs at downsize factor 2.
// Counters: found (detections within a quarter diameter of a true centre, each truth once),
// expected, rms_px over the found ones, located (grid positions given).
#include <benchmark/benchmark.h>
#include <cmath>
#include <vector>

#include "datalayer/algorithms/calibration/ccalibrationfeaturedetecthough.h"
#include "datalayer/algorithms/calibration/ccalibrationfeaturefindgridpositions.h"
#include "targetrenderer.h"
#include "tools/vorn/marksettings.h"

#ifdef VORN2_HAVE_PEERS
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

struct SMarkScene
{
    TargetRender::TargetSettings settings;
    TargetRender::RenderedTarget target;
    DataLayer::CCalibrationImage image;
};

const SMarkScene& markScene()
{
    static const SMarkScene scene = [] {
        SMarkScene s;
        s.settings.width = 2592;
        s.settings.height = 1944;
        s.settings.columns = 20;
        s.settings.rows = 20;
        s.settings.spacing = 80.0;
        s.settings.diameter = 24.0;
        s.settings.tiltX = 15.0;
        s.settings.tiltY = -10.0;
        s.settings.tiltZ = 5.0;
        s.settings.blurSigma = 1.0;
        s.settings.noiseSigma = 2.0;
        s.settings.seed = 2024;
        s.target = TargetRender::RenderTarget(s.settings);
        s.image.SetSize(CSize(s.target.width, s.target.height));
        for (int y = 0; y < s.target.height; ++y)
            for (int x = 0; x < s.target.width; ++x)
                s.image.SetPixel(x, y, s.target.grey8[static_cast<std::size_t>(y) * s.target.width + x]);
        return s;
    }();
    return scene;
}

struct SPoint
{
    double x;
    double y;
};

void report(benchmark::State& state, const std::vector<SPoint>& detections)
{
    const SMarkScene& scene = markScene();
    const auto& truth = scene.target.truth;
    std::vector<char> used(truth.size(), 0);
    int found = 0;
    double squares = 0.0;
    for (const SPoint& d : detections) {
        int best = -1;
        double bestDistance = scene.settings.diameter / 4;
        for (std::size_t i = 0; i < truth.size(); ++i) {
            const double distance = std::hypot(d.x - truth[i].x, d.y - truth[i].y);
            if (!used[i] && distance < bestDistance) {
                best = static_cast<int>(i);
                bestDistance = distance;
            }
        }
        if (best >= 0) {
            used[static_cast<std::size_t>(best)] = 1;
            ++found;
            squares += bestDistance * bestDistance;
        }
    }
    state.counters["found"] = found;
    state.counters["expected"] = static_cast<double>(truth.size());
    state.counters["rms_px"] = found > 0 ? std::sqrt(squares / found) : 0.0;
}

bool detect(const SMarkScene& scene, DataLayer::CCalibrationFeatureDetectHough& hough)
{
    const MarkDetectionSettings settings;
    const auto& s = scene.settings;
    hough.SetDetectionLimits(settings.limitFirstPeak, settings.limitLastPeak, settings.limitNeighbourPeak);
    return hough.FindFeatures(scene.image, s.diameter, settings.detectionDistanceFactor * s.spacing,
                              MarkDetectionSettings::DownSizeFactor(s.diameter), s.rings, !s.bright,
                              settings.radiusDivisor, 0);
}

std::vector<SPoint> points(const CArray<DataLayer::CCalibrationPointFeatureDetect>& features)
{
    std::vector<SPoint> out;
    for (std::ptrdiff_t n = 0; n < features.GetSize(); ++n)
        out.push_back({features[n].posX, features[n].posY});
    return out;
}

void BM_MarkDetection_Hough(benchmark::State& state)
{
    const SMarkScene& scene = markScene();
    DataLayer::CCalibrationFeatureDetectHough hough;
    for (auto _ : state)
        benchmark::DoNotOptimize(detect(scene, hough));
    report(state, points(hough.GetFeatures()));
}

void BM_MarkDetection_GridPositions(benchmark::State& state)
{
    const SMarkScene& scene = markScene();
    DataLayer::CCalibrationFeatureDetectHough hough;
    detect(scene, hough);
    DataLayer::CCalibrationFeatureFindGridPositions grid;
    bool ok = false;
    for (auto _ : state) {
        ok = grid.FindGridPositions(hough.GetFeatures(), scene.settings.spacing, 0, nullptr);
        benchmark::DoNotOptimize(ok);
    }
    report(state, points(grid.GetFeatures()));
    state.counters["located"] = static_cast<double>(grid.GetFeatures().GetSize());
}

void BM_MarkDetection_HoughAndGrid(benchmark::State& state)
{
    const SMarkScene& scene = markScene();
    DataLayer::CCalibrationFeatureDetectHough hough;
    DataLayer::CCalibrationFeatureFindGridPositions grid;
    for (auto _ : state) {
        const bool ok = detect(scene, hough) &&
                        grid.FindGridPositions(hough.GetFeatures(), scene.settings.spacing, 0, nullptr);
        benchmark::DoNotOptimize(ok);
    }
    report(state, points(grid.GetFeatures()));
    state.counters["located"] = static_cast<double>(grid.GetFeatures().GetSize());
}

#ifdef VORN2_HAVE_PEERS
void BM_MarkDetection_OpenCVHoughCircles(benchmark::State& state)
{
    cv::setNumThreads(1);
    const SMarkScene& scene = markScene();
    const auto& s = scene.settings;
    const cv::Mat image(scene.target.height, scene.target.width, CV_8UC1,
                        const_cast<std::uint8_t*>(scene.target.grey8.data()));
    const double r = s.diameter / 2;
    const double dp = static_cast<double>(state.range(0));
    std::vector<cv::Vec3f> circles;
    for (auto _ : state) {
        circles.clear();
        cv::HoughCircles(image, circles, cv::HOUGH_GRADIENT, dp, 0.6 * s.spacing, 100, 15,
                         static_cast<int>(std::floor(0.5 * r)), static_cast<int>(std::ceil(1.5 * r)));
        benchmark::DoNotOptimize(circles.data());
    }
    std::vector<SPoint> detections;
    for (const cv::Vec3f& c : circles)
        detections.push_back({c[0], c[1]});
    report(state, detections);
}
#endif

} // namespace

BENCHMARK(BM_MarkDetection_Hough)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MarkDetection_GridPositions)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MarkDetection_HoughAndGrid)->Unit(benchmark::kMillisecond);
#ifdef VORN2_HAVE_PEERS
BENCHMARK(BM_MarkDetection_OpenCVHoughCircles)->Arg(1)->Arg(2)->ArgName("dp")->Unit(benchmark::kMillisecond);
#endif
