#include "markchain.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <memory>

#include "core/imageio/imageio.h"
#include "datalayer/algorithms/calibration/ccalibrationfeaturedetecthough.h"
#include "datalayer/algorithms/calibration/ccalibrationfeaturefindgridpositions.h"
#include "datalayer/algorithms/calibration/ccalibrationfeaturerefinementzhou.h"
#include "marksettings.h"
#include "render/overlay.h"

namespace {

double secondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

bool FillCalibrationImage(const float* grey, int width, int height, DataLayer::CCalibrationImage& image)
{
    if (!image.SetSize(CSize(width, height)))
        return false;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            image.SetPixel(x, y, grey[static_cast<std::size_t>(y) * width + x]);
    return true;
}

bool RunMarkChain(const DataLayer::CCalibrationImage& image, const MarkChainOptions& options,
                  MarkChainResult& result)
{
    result = MarkChainResult();
    const MarkDetectionSettings settings;
    const int factor =
        options.downsize > 0 ? options.downsize : MarkDetectionSettings::DownSizeFactor(options.diameter);

    auto start = std::chrono::steady_clock::now();
    DataLayer::CCalibrationFeatureDetectHough hough;
    hough.SetDetectionLimits(settings.limitFirstPeak, settings.limitLastPeak, settings.limitNeighbourPeak);
    const bool detected =
        hough.FindFeatures(image, options.diameter, options.distance * settings.detectionDistanceFactor,
                           factor, options.rings, !options.bright, options.radiusDivisor, -1);
    result.houghSeconds = secondsSince(start);
    result.detected = hough.GetFeatures().GetSize();
    if (!detected) {
        result.failure = "no mark found by the Hough detector";
        return false;
    }

    start = std::chrono::steady_clock::now();
    DataLayer::CCalibrationFeatureFindGridPositions grid;
    std::unique_ptr<bool[]> pattern;
    if (!options.pattern.empty()) {
        pattern = std::make_unique<bool[]>(options.pattern.size());
        std::copy(options.pattern.begin(), options.pattern.end(), pattern.get());
        grid.SetReferencePattern(pattern.get(), CSize(options.patternColumns, options.patternRows),
                                 CPoint(options.originX, options.originY));
    }
    const bool gridded = grid.FindGridPositions(hough.GetFeatures(), options.distance, -1, &image);
    result.gridSeconds = secondsSince(start);
    result.gridded = grid.GetFeatures().GetSize();
    if (!gridded) {
        result.failure = "no grid found among the " + std::to_string(result.detected) + " detected marks" +
                         (pattern ? " that matches the pattern" : "");
        return false;
    }

    start = std::chrono::steady_clock::now();
    DataLayer::CCalibrationFeatureRefinementZhou zhou;
    // A ring is a band of a quarter diameter; the default 13-sample edge window would span both of
    // its edges, so let the radius / 3 rule choose the window.
    if (options.rings)
        zhou.SetHalfLineLengthMin(2);
    const bool refined = zhou.RefineFeatures(image, grid.GetFeatures(), options.rings, !options.bright, -1);
    result.refineSeconds = secondsSince(start);
    if (!refined) {
        result.failure = "no mark survived the sub-pixel refinement";
        return false;
    }
    result.marks = zhou.GetFeatures();
    return true;
}

bool ReadMarkPattern(const std::string& path, MarkChainOptions& options, std::string& error)
{
    std::ifstream in(path);
    if (!in) {
        error = "cannot read the pattern '" + path + "'";
        return false;
    }
    std::vector<std::string> lines;
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        lines.push_back(line);
    }
    while (!lines.empty() && lines.back().empty())
        lines.pop_back();
    if (lines.empty()) {
        error = "the pattern '" + path + "' is empty";
        return false;
    }
    const std::size_t columns = lines[0].size();
    std::vector<bool> cells;
    for (const std::string& l : lines) {
        if (l.size() != columns || l.find_first_not_of("x.") != std::string::npos) {
            error = "the pattern '" + path + "' needs rows of equal length made of 'x' and '.'";
            return false;
        }
        for (char c : l)
            cells.push_back(c == 'x');
    }
    options.pattern = std::move(cells);
    options.patternColumns = static_cast<int>(columns);
    options.patternRows = static_cast<int>(lines.size());
    return true;
}

bool WriteMarkCsv(std::FILE* out, const CArray<DataLayer::CCalibrationPointFeatureDetect>& marks)
{
    std::fprintf(out, "gridX,gridY,posX,posY,radius,rating,sigmaTotal,centerOffset\n");
    for (std::ptrdiff_t i = 0; i < marks.GetSize(); ++i) {
        const auto& m = marks[i];
        std::fprintf(out, "%d,%d,%.6f,%.6f,%.4f,%.6g,%.6f,%.6f\n", m.gridX, m.gridY, m.posX, m.posY, m.radius,
                     m.rating, m.sigmaTotal, m.centerOffset);
    }
    return std::ferror(out) == 0;
}

bool WriteMarkOverlay(const std::string& path, const std::uint8_t* grey, int width, int height,
                      const CArray<DataLayer::CCalibrationPointFeatureDetect>& marks, std::string& error)
{
    ImageIO::RgbImage picture = Overlay::FromGrey(grey, width, height, width);
    const Overlay::Colour green{0, 230, 0}, red{255, 0, 0}, yellow{255, 220, 0};
    for (std::ptrdiff_t i = 0; i < marks.GetSize(); ++i) {
        const auto& m = marks[i];
        Overlay::DrawCircle(picture, m.posX, m.posY, m.radius, green);
        Overlay::DrawCross(picture, m.posX, m.posY, std::max(2, static_cast<int>(m.radius / 2)), red);
        Overlay::DrawText(picture, static_cast<int>(m.posX) + 3, static_cast<int>(m.posY) + 3,
                          std::to_string(m.gridX) + "," + std::to_string(m.gridY), yellow);
    }
    std::vector<std::uint32_t> argb(static_cast<std::size_t>(picture.width) * picture.height);
    for (std::size_t i = 0; i < argb.size(); ++i)
        argb[i] = 0xFF000000u | std::uint32_t(picture.rgb[3 * i]) << 16 |
                  std::uint32_t(picture.rgb[3 * i + 1]) << 8 | picture.rgb[3 * i + 2];
    return ImageIO::WriteArgb32Png(path, argb.data(), picture.width, picture.height, picture.width, &error);
}
