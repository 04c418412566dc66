#include "demo.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "markchain.h"
#include "render/targetrenderer.h"

namespace {

// The built-in target: 17 x 13 dark discs of 20 px on a 48 px pitch, seen at a tilt, blurred,
// noisy and lit unevenly; three marks near the centre are left out as the reference pattern that
// fixes the grid coordinates.
TargetRender::TargetSettings demoTarget()
{
    TargetRender::TargetSettings t;
    t.width = 1024;
    t.height = 768;
    t.columns = 17;
    t.rows = 13;
    t.spacing = 48.0;
    t.diameter = 20.0;
    t.tiltX = 18.0;
    t.tiltY = -12.0;
    t.tiltZ = 4.0;
    t.blurSigma = 1.0;
    t.noiseSigma = 2.0;
    t.seed = 2026;
    t.weakestContrast = 0.7;
    t.lightAngle = 30.0;
    t.omitted = {{8, 6}, {9, 6}, {8, 7}};
    return t;
}

struct Options
{
    std::string outDir = "build/demo";
};

int runDemo(const Options& o)
{
    const TargetRender::TargetSettings settings = demoTarget();
    std::printf("Vorn2 Algorithms: locating the marks of a calibration target\n\n");
    const auto renderStart = std::chrono::steady_clock::now();
    const TargetRender::RenderedTarget target = TargetRender::RenderTarget(settings);
    const double renderSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - renderStart).count();
    std::printf("  target     %d x %d marks, %zu left out as the reference pattern; %d x %d pixels\n",
                settings.columns, settings.rows, settings.omitted.size(), target.width, target.height);
    std::printf(
        "             discs of %g px on a %g px pitch, tilt %g/%g/%g degrees, blur %g px, noise %g grey "
        "levels, weakest contrast %g%%\n",
        settings.diameter, settings.spacing, settings.tiltX, settings.tiltY, settings.tiltZ,
        settings.blurSigma, settings.noiseSigma, 100.0 * settings.weakestContrast);
    std::printf("             rendered by exact area coverage in %.1f ms\n\n", 1e3 * renderSeconds);

    MarkChainOptions options;
    options.diameter = settings.diameter;
    options.distance = settings.spacing;
    options.patternColumns = settings.columns;
    options.patternRows = settings.rows;
    for (const std::string& row : target.pattern)
        for (char c : row)
            options.pattern.push_back(c == 'x');

    // The chain sees what a camera delivers: the 8-bit picture.
    const std::vector<float> grey(target.grey8.begin(), target.grey8.end());
    DataLayer::CCalibrationImage image;
    if (!FillCalibrationImage(grey.data(), target.width, target.height, image)) {
        std::fprintf(stderr, "vorn demo: the rendered picture does not fit a calibration image\n");
        return 1;
    }
    MarkChainResult result;
    const bool found = RunMarkChain(image, options, result);
    std::printf("  %-18s %5td marks  %8.1f ms\n", "Hough detection", result.detected,
                1e3 * result.houghSeconds);
    std::printf("  %-18s %5td marks  %8.1f ms\n", "grid positions", result.gridded, 1e3 * result.gridSeconds);
    std::printf("  %-18s %5td marks  %8.1f ms\n\n", "Zhou refinement", result.marks.GetSize(),
                1e3 * result.refineSeconds);
    if (!found) {
        std::fprintf(stderr, "vorn demo: %s\n", result.failure.c_str());
        return 1;
    }

    std::map<std::pair<int, int>, std::pair<double, double>> truth;
    for (const TargetRender::MarkTruth& t : target.truth)
        truth[{t.gridX, t.gridY}] = {t.x, t.y};
    int matched = 0, minX = 0, maxX = 0, minY = 0, maxY = 0;
    double sumSquares = 0.0, maxError = 0.0;
    for (std::ptrdiff_t i = 0; i < result.marks.GetSize(); ++i) {
        const auto& m = result.marks[i];
        minX = i == 0 ? m.gridX : std::min(minX, m.gridX);
        maxX = i == 0 ? m.gridX : std::max(maxX, m.gridX);
        minY = i == 0 ? m.gridY : std::min(minY, m.gridY);
        maxY = i == 0 ? m.gridY : std::max(maxY, m.gridY);
        const auto it = truth.find({m.gridX, m.gridY});
        if (it == truth.end())
            continue;
        const double error = std::hypot(m.posX - it->second.first, m.posY - it->second.second);
        ++matched;
        sumSquares += error * error;
        maxError = std::max(maxError, error);
    }
    std::printf("  found %td of %zu marks; grid %d..%d x %d..%d; %d with the grid coordinates of the truth\n",
                result.marks.GetSize(), truth.size(), minX, maxX, minY, maxY, matched);
    if (matched > 0)
        std::printf("  centre error against the truth: RMS %.4f px, maximum %.4f px\n",
                    std::sqrt(sumSquares / matched), maxError);

    std::error_code ec;
    std::filesystem::create_directories(o.outDir, ec);
    const std::string csvPath = o.outDir + "/marks.csv", overlayPath = o.outDir + "/overlay.png";
    std::string error;
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> csv(std::fopen(csvPath.c_str(), "w"), &std::fclose);
    if (!csv || !WriteMarkCsv(csv.get(), result.marks) ||
        !WriteMarkOverlay(overlayPath, target.grey8.data(), target.width, target.height, result.marks,
                          error)) {
        std::fprintf(stderr, "vorn demo: cannot write under '%s' %s\n", o.outDir.c_str(), error.c_str());
        return 2;
    }
    std::printf("  wrote %s and %s\n", csvPath.c_str(), overlayPath.c_str());
    return matched == static_cast<int>(truth.size()) ? 0 : 1;
}

} // namespace

VornCommand AddDemoCommand(CLI::App& app)
{
    CLI::App* sub = app.add_subcommand(
        "demo", "Render a calibration target, locate its marks and compare them with the truth");
    auto options = std::make_shared<Options>();
    sub->add_option("--out-dir", options->outDir, "Directory for the overlay and the CSV")
        ->capture_default_str();
    return {sub, [options] { return runDemo(*options); }};
}
