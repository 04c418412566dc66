#include "calibrate.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "core/imageio/imageio.h"
#include "datalayer/algorithms/calibration/ccalibrationfeaturedetecthough.h"
#include "datalayer/algorithms/calibration/ccalibrationfeaturefindgridpositions.h"
#include "datalayer/algorithms/calibration/ccalibrationfeaturerefinementzhou.h"
#include "datalayer/algorithms/calibration/ccalibrationimage.h"
#include "marksettings.h"
#include "render/overlay.h"

namespace {

struct Options
{
    std::string image;
    double diameter = 0.0;
    double distance = 0.0;
    int downsize = 0; // 0: chosen from the diameter
    int radiusDivisor = MarkDetectionSettings().radiusDivisor;
    bool rings = false;
    bool bright = false;
    std::string pattern;
    std::string origin;
    std::string csv;
    std::string overlay;
};

constexpr const char* kName = "vorn calibrate";

int usage(const std::string& message)
{
    std::fprintf(stderr, "%s: %s\n", kName, message.c_str());
    return 2;
}

/// Reads a reference pattern: one line per grid row, 'x' for a mark and '.' for none. Empty
/// lines at the end are ignored; all rows must have the same length.
bool readPattern(const std::string& path, std::vector<bool>& cells, int& columns, int& rows,
                 std::string& error)
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
    columns = static_cast<int>(lines[0].size());
    rows = static_cast<int>(lines.size());
    cells.clear();
    for (const std::string& l : lines) {
        if (static_cast<int>(l.size()) != columns || l.find_first_not_of("x.") != std::string::npos) {
            error = "the pattern '" + path + "' needs rows of equal length made of 'x' and '.'";
            return false;
        }
        for (char c : l)
            cells.push_back(c == 'x');
    }
    return true;
}

bool parseOrigin(const std::string& text, int& x, int& y)
{
    std::stringstream stream(text);
    char comma = 0;
    if (!(stream >> x >> comma >> y) || comma != ',')
        return false;
    stream >> std::ws;
    return stream.eof();
}

bool writeOverlay(const std::string& path, const ImageIO::RgbImage& source,
                  const CArray<DataLayer::CCalibrationPointFeatureDetect>& marks, std::string& error)
{
    const std::vector<std::uint8_t> grey = ImageIO::ToGrey8(source);
    ImageIO::RgbImage picture = Overlay::FromGrey(grey.data(), source.width, source.height, source.width);
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

int run(const Options& o)
{
    if (!(o.diameter > 0.0) || !std::isfinite(o.diameter))
        return usage("--diameter must be a positive number of pixels");
    if (!(o.distance > o.diameter) || !std::isfinite(o.distance))
        return usage("--distance must be a number of pixels larger than the diameter");
    if (o.downsize < 0 || o.radiusDivisor < 1)
        return usage("--downsize and --radius-divisor must be at least 1");
    if (o.origin.empty() != o.pattern.empty())
        return usage("--pattern and --origin go together");

    std::vector<bool> patternCells;
    int patternColumns = 0, patternRows = 0, originX = 0, originY = 0;
    std::string error;
    if (!o.pattern.empty()) {
        if (!readPattern(o.pattern, patternCells, patternColumns, patternRows, error))
            return usage(error);
        if (!parseOrigin(o.origin, originX, originY))
            return usage("--origin needs X,Y (integers)");
    }

    ImageIO::RgbImage picture;
    if (!ImageIO::ReadImage(o.image, picture, &error))
        return usage(error);
    const std::vector<float> grey = ImageIO::ToGreyFloat(picture, 0.299f, 0.587f, 0.114f);
    DataLayer::CCalibrationImage image;
    if (!image.SetSize(CSize(picture.width, picture.height)))
        return usage("the picture '" + o.image + "' is too large");
    for (int y = 0; y < picture.height; ++y)
        for (int x = 0; x < picture.width; ++x)
            image.SetPixel(x, y, grey[static_cast<std::size_t>(y) * picture.width + x]);

    const MarkDetectionSettings settings;
    const int factor = o.downsize > 0 ? o.downsize : MarkDetectionSettings::DownSizeFactor(o.diameter);
    DataLayer::CCalibrationFeatureDetectHough hough;
    hough.SetDetectionLimits(settings.limitFirstPeak, settings.limitLastPeak, settings.limitNeighbourPeak);
    if (!hough.FindFeatures(image, o.diameter, o.distance * settings.detectionDistanceFactor, factor, o.rings,
                            !o.bright, o.radiusDivisor, -1)) {
        std::fprintf(stderr, "%s: no mark found by the Hough detector\n", kName);
        return 1;
    }

    DataLayer::CCalibrationFeatureFindGridPositions grid;
    std::unique_ptr<bool[]> pattern;
    if (!patternCells.empty()) {
        pattern = std::make_unique<bool[]>(patternCells.size());
        std::copy(patternCells.begin(), patternCells.end(), pattern.get());
        grid.SetReferencePattern(pattern.get(), CSize(patternColumns, patternRows), CPoint(originX, originY));
    }
    if (!grid.FindGridPositions(hough.GetFeatures(), o.distance, -1, &image)) {
        std::fprintf(stderr, "%s: no grid found among the %td detected marks%s\n", kName,
                     hough.GetFeatures().GetSize(), pattern ? " that matches the pattern" : "");
        return 1;
    }

    DataLayer::CCalibrationFeatureRefinementZhou zhou;
    // A ring is a band of a quarter diameter; the default 13-sample edge window would span both of
    // its edges, so let the radius / 3 rule choose the window.
    if (o.rings)
        zhou.SetHalfLineLengthMin(2);
    if (!zhou.RefineFeatures(image, grid.GetFeatures(), o.rings, !o.bright, -1)) {
        std::fprintf(stderr, "%s: no mark survived the sub-pixel refinement\n", kName);
        return 1;
    }
    const auto& marks = zhou.GetFeatures();

    std::FILE* out = stdout;
    if (!o.csv.empty() && (out = std::fopen(o.csv.c_str(), "w")) == nullptr)
        return usage("cannot write '" + o.csv + "'");
    std::fprintf(out, "gridX,gridY,posX,posY,radius,rating,sigmaTotal,centerOffset\n");
    for (std::ptrdiff_t i = 0; i < marks.GetSize(); ++i) {
        const auto& m = marks[i];
        std::fprintf(out, "%d,%d,%.6f,%.6f,%.4f,%.6g,%.6f,%.6f\n", m.gridX, m.gridY, m.posX, m.posY, m.radius,
                     m.rating, m.sigmaTotal, m.centerOffset);
    }
    if (out != stdout && std::fclose(out) != 0)
        return usage("cannot write '" + o.csv + "'");
    if (!o.overlay.empty() && !writeOverlay(o.overlay, picture, marks, error))
        return usage(error);
    return 0;
}

} // namespace

VornCommand AddCalibrateCommand(CLI::App& app)
{
    CLI::App* sub =
        app.add_subcommand("calibrate", "Locate the marks of a calibration target to a fraction of a pixel");
    auto options = std::make_shared<Options>();
    sub->add_option("image", options->image, "Picture of the target (.png, .tif, .bmp or .jpg)")->required();
    sub->add_option("--diameter", options->diameter, "Nominal mark diameter, pixels")->required();
    sub->add_option("--distance", options->distance, "Nominal distance of neighbouring marks, pixels")
        ->required();
    sub->add_option("--downsize", options->downsize,
                    "Downsize factor of the detection (default: diameter / 10)");
    sub->add_option("--radius-divisor", options->radiusDivisor, "Radius range of the detection: radius / R")
        ->capture_default_str();
    sub->add_flag("--rings", options->rings, "Marks are rings with a centre of the ground's colour");
    sub->add_flag("--bright", options->bright, "Marks are brighter than the ground");
    sub->add_option("--pattern", options->pattern,
                    "Reference pattern: one line per grid row, 'x' mark, '.' none");
    sub->add_option("--origin", options->origin, "Grid coordinate X,Y of the pattern's top-left cell");
    sub->add_option("--csv", options->csv, "Write the marks to this CSV file instead of standard output");
    sub->add_option("--overlay", options->overlay,
                    "Write a colour PNG with the marks and grid coordinates drawn in");
    return {sub, [options] { return run(*options); }};
}
