// Sub-pixel refinement of calibration marks that are already detected: wall time for all marks of a
// picture and the RMS centre error against the projected mark centres.
//
// Scenes (built once, outside the timed loops): 1280 x 1024 rendered pictures of a 14 x 11 grid,
// spacing 60 px, mark diameter 20 px, moderate tilt (15, -10, 5 degrees, focal 1920 px), Gaussian
// blur sigma 1 px and noise sigma 2 grey levels, dark discs or dark rings. Every mark starts from
// its true centre moved by a seeded offset of up to 1 px per axis, with the radius of the
// projected mark and its grid position, as a detector and the grid finder hand them over.
//
// Contenders:
//  - Zhou: CCalibrationFeatureRefinementZhou::RefineFeatures on the whole list (rings with the
//    edge window's lower bound at 2, so that it sees one edge of the 5 px ring).
//  - OpenCV ellipse fit (peer): per mark, a window of 1.5 diameters, Otsu threshold, the largest
//    outer contour and cv::fitEllipse; its centre.
//  - OpenCV moments (peer): per mark, the grey-value centroid of the contrast against the window's
//    ground level through cv::moments.
// OpenCV is limited to one thread, as this library starts none.
#include <algorithm>
#include <benchmark/benchmark.h>
#include <cmath>
#include <cstdint>
#include <map>
#include <random>
#include <vector>

#include "datalayer/algorithms/calibration/ccalibrationfeaturerefinementzhou.h"
#include "datalayer/algorithms/calibration/ccalibrationimage.h"
#include "targetrenderer.h"

#ifdef VORN2_HAVE_PEERS
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

struct RefinementScene
{
    TargetRender::TargetSettings settings;
    TargetRender::RenderedTarget target;
    DataLayer::CCalibrationImage image;
    CArray<DataLayer::CCalibrationPointFeatureDetect> starts;
};

const RefinementScene& refinementScene(bool rings)
{
    static std::map<bool, RefinementScene> scenes;
    auto it = scenes.find(rings);
    if (it != scenes.end())
        return it->second;
    RefinementScene& sc = scenes[rings];
    TargetRender::TargetSettings& s = sc.settings;
    s.width = 1280;
    s.height = 1024;
    s.columns = 14;
    s.rows = 11;
    s.spacing = 60;
    s.diameter = 20;
    s.rings = rings;
    s.tiltX = 15;
    s.tiltY = -10;
    s.tiltZ = 5;
    s.focal = 1920;
    s.blurSigma = 1.0;
    s.noiseSigma = 2.0;
    s.seed = 4711;
    sc.target = TargetRender::RenderTarget(s);
    const auto& t = sc.target;
    sc.image.SetSize(CSize(t.width, t.height));
    for (int y = 0; y < t.height; ++y)
        for (int x = 0; x < t.width; ++x)
            sc.image.SetPixel(x, y, t.grey8[static_cast<std::size_t>(y) * t.width + x]);
    std::mt19937_64 engine(47110815);
    std::uniform_real_distribution<double> unit(-1.0, 1.0);
    for (std::size_t k = 0; k < t.truth.size(); ++k) {
        const double u = (t.truth[k].gridX - (s.columns - 1) / 2.0) * s.spacing;
        const double v = (t.truth[k].gridY - (s.rows - 1) / 2.0) * s.spacing;
        double x0, y0, xu, yu, xv, yv;
        TargetRender::ApplyHomography(t.homography, u, v, x0, y0);
        TargetRender::ApplyHomography(t.homography, u + 1e-3, v, xu, yu);
        TargetRender::ApplyHomography(t.homography, u, v + 1e-3, xv, yv);
        DataLayer::CCalibrationPointFeatureDetect f;
        f.posX = t.truth[k].x + unit(engine);
        f.posY = t.truth[k].y + unit(engine);
        f.radius =
            s.diameter / 2 * std::sqrt(std::fabs((xu - x0) * (yv - y0) - (xv - x0) * (yu - y0)) / 1e-6);
        f.gridX = t.truth[k].gridX;
        f.gridY = t.truth[k].gridY;
        f.rating = static_cast<double>(k); // index of the truth
        sc.starts.Add(f);
    }
    return sc;
}

struct Located
{
    int truth;
    double x;
    double y;
};

void report(benchmark::State& state, const RefinementScene& sc, const std::vector<Located>& located)
{
    double sum2 = 0.0;
    for (const Located& l : located) {
        const auto& t = sc.target.truth[static_cast<std::size_t>(l.truth)];
        sum2 += (l.x - t.x) * (l.x - t.x) + (l.y - t.y) * (l.y - t.y);
    }
    state.counters["marks"] = static_cast<double>(sc.target.truth.size());
    state.counters["found"] = static_cast<double>(located.size());
    state.counters["rms_px"] = located.empty() ? 0.0 : std::sqrt(sum2 / located.size());
}

void BM_Refinement_Zhou(benchmark::State& state)
{
    const RefinementScene& sc = refinementScene(state.range(0) != 0);
    DataLayer::CCalibrationFeatureRefinementZhou zhou;
    if (sc.settings.rings)
        zhou.SetHalfLineLengthMin(2);
    for (auto _ : state) {
        const bool ok = zhou.RefineFeatures(sc.image, sc.starts, sc.settings.rings, true, -1);
        benchmark::DoNotOptimize(ok);
    }
    std::vector<Located> located;
    for (std::ptrdiff_t i = 0; i < zhou.GetFeatures().GetSize(); ++i)
        located.push_back({static_cast<int>(zhou.GetFeatures()[i].rating), zhou.GetFeatures()[i].posX,
                           zhou.GetFeatures()[i].posY});
    report(state, sc, located);
}

#ifdef VORN2_HAVE_PEERS
const int kOpenCVThreadsRefinement = [] {
    cv::setNumThreads(1);
    return 1;
}();

cv::Rect window(const RefinementScene& sc, const DataLayer::CCalibrationPointFeatureDetect& f)
{
    const int half = static_cast<int>(std::ceil(1.5 * f.radius));
    const int x = static_cast<int>(std::lround(f.posX)), y = static_cast<int>(std::lround(f.posY));
    return cv::Rect(x - half, y - half, 2 * half + 1, 2 * half + 1) &
           cv::Rect(0, 0, sc.target.width, sc.target.height);
}

void BM_Refinement_OpenCVFitEllipse(benchmark::State& state)
{
    const RefinementScene& sc = refinementScene(state.range(0) != 0);
    const cv::Mat img(sc.target.height, sc.target.width, CV_8UC1,
                      const_cast<std::uint8_t*>(sc.target.grey8.data()));
    std::vector<Located> located;
    for (auto _ : state) {
        located.clear();
        cv::Mat bin;
        std::vector<std::vector<cv::Point>> contours;
        for (std::ptrdiff_t i = 0; i < sc.starts.GetSize(); ++i) {
            const auto& f = sc.starts[i];
            const cv::Rect r = window(sc, f);
            cv::threshold(img(r), bin, 0, 255, cv::THRESH_BINARY_INV | cv::THRESH_OTSU);
            cv::findContours(bin, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
            int best = -1;
            double bestArea = 0.0;
            for (int c = 0; c < static_cast<int>(contours.size()); ++c) {
                const double a = cv::contourArea(contours[c]);
                if (a > bestArea && contours[c].size() >= 5)
                    best = c, bestArea = a;
            }
            if (best < 0)
                continue;
            const cv::RotatedRect e = cv::fitEllipse(contours[best]);
            located.push_back({static_cast<int>(f.rating), e.center.x + r.x, e.center.y + r.y});
        }
        benchmark::DoNotOptimize(located.data());
    }
    report(state, sc, located);
}

void BM_Refinement_OpenCVMoments(benchmark::State& state)
{
    const RefinementScene& sc = refinementScene(state.range(0) != 0);
    const cv::Mat img(sc.target.height, sc.target.width, CV_8UC1,
                      const_cast<std::uint8_t*>(sc.target.grey8.data()));
    std::vector<Located> located;
    for (auto _ : state) {
        located.clear();
        cv::Mat contrast;
        for (std::ptrdiff_t i = 0; i < sc.starts.GetSize(); ++i) {
            const auto& f = sc.starts[i];
            const cv::Rect r = window(sc, f);
            double lo = 0.0, hi = 0.0;
            cv::minMaxLoc(img(r), &lo, &hi);
            // Contrast of a dark mark against the ground: hi - I, clipped at 0 by the 8-bit type.
            cv::subtract(cv::Scalar(hi), img(r), contrast);
            const cv::Moments m = cv::moments(contrast, false);
            if (m.m00 <= 0.0)
                continue;
            located.push_back({static_cast<int>(f.rating), m.m10 / m.m00 + r.x, m.m01 / m.m00 + r.y});
        }
        benchmark::DoNotOptimize(located.data());
    }
    report(state, sc, located);
}
#endif

void ringArguments(benchmark::internal::Benchmark* b)
{
    b->ArgName("rings")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
}

} // namespace

BENCHMARK(BM_Refinement_Zhou)->Apply(ringArguments);
#ifdef VORN2_HAVE_PEERS
BENCHMARK(BM_Refinement_OpenCVFitEllipse)->Apply(ringArguments);
BENCHMARK(BM_Refinement_OpenCVMoments)->Apply(ringArguments);
#endif
