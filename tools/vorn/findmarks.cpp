#include "findmarks.h"

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
#include "marksettings.h"

namespace {

struct Options
{
    std::string input;
    double diameter = 0.0;
    double spacing = 0.0;
    bool rings = false;
    bool bright = false;
    std::string patternPath;
    std::string origin;
    bool noGrid = false;
    int factor = 0;
    MarkDetectionSettings settings;
    std::string csvPath;
};

/// Reads a pattern file: one line per grid row, 'x' for a mark and '.' for none, all lines of one
/// length; at least 2 x 2. False with a message otherwise.
bool readPattern(const std::string& path, std::unique_ptr<bool[]>& pattern, int& columns, int& rows,
                 std::string& error)
{
    std::ifstream in(path);
    if (!in) {
        error = "cannot read '" + path + "'";
        return false;
    }
    std::string line;
    columns = 0;
    rows = 0;
    std::vector<char> cells;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.empty())
            continue;
        if (columns == 0)
            columns = static_cast<int>(line.size());
        if (static_cast<int>(line.size()) != columns || line.find_first_not_of("x.") != std::string::npos) {
            error = "pattern '" + path + "': every line must hold the same number of 'x' and '.'";
            return false;
        }
        for (char c : line)
            cells.push_back(c == 'x' ? 1 : 0);
        ++rows;
    }
    if (columns < 2 || rows < 2) {
        error = "pattern '" + path + "' must have at least 2 columns and 2 rows";
        return false;
    }
    pattern.reset(new bool[cells.size()]);
    for (std::size_t k = 0; k < cells.size(); ++k)
        pattern[k] = cells[k] != 0;
    return true;
}

int run(const Options& o)
{
    if (!(o.diameter > 0.0) || !std::isfinite(o.diameter) || !(o.spacing > 0.0) ||
        !std::isfinite(o.spacing)) {
        std::fprintf(stderr, "vorn find-marks: --diameter and --spacing must be positive\n");
        return 2;
    }
    int originX = 0;
    int originY = 0;
    if (!o.origin.empty()) {
        char tail = 0;
        if (std::sscanf(o.origin.c_str(), "%d,%d%c", &originX, &originY, &tail) != 2) {
            std::fprintf(stderr, "vorn find-marks: --origin needs X,Y\n");
            return 2;
        }
    }
    std::unique_ptr<bool[]> pattern;
    int columns = 0;
    int rows = 0;
    std::string error;
    if (!o.patternPath.empty() && !readPattern(o.patternPath, pattern, columns, rows, error)) {
        std::fprintf(stderr, "vorn find-marks: %s\n", error.c_str());
        return 2;
    }
    ImageIO::RgbImage picture;
    if (!ImageIO::ReadImage(o.input, picture, &error)) {
        std::fprintf(stderr, "vorn find-marks: %s: %s\n", o.input.c_str(), error.c_str());
        return 2;
    }
    const std::vector<float> grey = ImageIO::ToGreyFloat(picture, 0.299f, 0.587f, 0.114f);
    DataLayer::CCalibrationImage image;
    if (!image.SetSize(CSize(picture.width, picture.height))) {
        std::fprintf(stderr, "vorn find-marks: %s: picture too large\n", o.input.c_str());
        return 2;
    }
    for (int y = 0; y < picture.height; ++y)
        for (int x = 0; x < picture.width; ++x)
            image.SetPixel(x, y, grey[static_cast<std::size_t>(y) * picture.width + x]);

    const MarkDetectionSettings& s = o.settings;
    const int factor = o.factor > 0 ? o.factor : MarkDetectionSettings::DownSizeFactor(o.diameter);
    DataLayer::CCalibrationFeatureDetectHough hough;
    hough.SetDetectionLimits(s.limitFirstPeak, s.limitLastPeak, s.limitNeighbourPeak);
    if (!hough.FindFeatures(image, o.diameter, s.detectionDistanceFactor * o.spacing, factor, o.rings,
                            !o.bright, s.radiusDivisor, 0)) {
        std::fprintf(stderr, "vorn find-marks: no mark found\n");
        return 1;
    }
    const CArray<DataLayer::CCalibrationPointFeatureDetect>* result = &hough.GetFeatures();
    DataLayer::CCalibrationFeatureFindGridPositions grid;
    if (!o.noGrid) {
        if (pattern)
            grid.SetReferencePattern(pattern.get(), CSize(columns, rows), CPoint(originX, originY));
        if (!grid.FindGridPositions(hough.GetFeatures(), o.spacing, 0, &image)) {
            std::fprintf(stderr, "vorn find-marks: %td marks found, but no grid%s\n",
                         hough.GetFeatures().GetSize(), pattern ? " matching the pattern" : "");
            return 1;
        }
        result = &grid.GetFeatures();
    }
    std::ostringstream csv;
    csv << "gridX,gridY,x,y,radius\n";
    char line[160];
    for (std::ptrdiff_t n = 0; n < result->GetSize(); ++n) {
        const DataLayer::CCalibrationPointFeatureDetect& f = (*result)[n];
        std::snprintf(line, sizeof line, "%d,%d,%.4f,%.4f,%.4f\n", f.gridX, f.gridY, f.posX, f.posY,
                      f.radius);
        csv << line;
    }
    if (o.csvPath.empty()) {
        std::fputs(csv.str().c_str(), stdout);
    } else {
        std::ofstream out(o.csvPath, std::ios::binary);
        out << csv.str();
        out.close();
        if (!out) {
            std::fprintf(stderr, "vorn find-marks: cannot write '%s'\n", o.csvPath.c_str());
            return 2;
        }
        std::printf("%s: %td marks\n", o.input.c_str(), result->GetSize());
    }
    return 0;
}

} // namespace

VornCommand AddFindMarksCommand(CLI::App& app)
{
    auto options = std::make_shared<Options>();
    CLI::App* sub = app.add_subcommand(
        "find-marks", "Locate the circular marks of a calibration target and give them grid coordinates");
    MarkDetectionSettings& s = options->settings;
    sub->add_option("input", options->input, "Picture file (.png, .jpg, .bmp or .tif)")->required();
    sub->add_option("--diameter", options->diameter, "Nominal mark diameter, pixels")->required();
    sub->add_option("--spacing", options->spacing, "Nominal distance of neighbouring marks, pixels")
        ->required();
    sub->add_flag("--rings", options->rings, "Ring marks (inner radius half the outer)");
    sub->add_flag("--bright", options->bright, "Marks brighter than the ground");
    sub->add_option("--pattern", options->patternPath,
                    "Reference pattern file: one line per row, 'x' mark, '.' none (as render-target writes)");
    sub->add_option("--origin", options->origin, "Grid coordinate X,Y of the pattern's top-left cell");
    sub->add_flag("--no-grid", options->noGrid, "Detection only: every mark gets grid -1,-1");
    sub->add_option("--factor", options->factor, "Downsize factor (default: diameter / 10, rounded)")
        ->check(CLI::NonNegativeNumber);
    sub->add_option("--radius-divisor", s.radiusDivisor, "Radius range: nominal radius +- radius / divisor")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    sub->add_option("--limit-first", s.limitFirstPeak, "Fraction of the first peak a mark must exceed")
        ->capture_default_str();
    sub->add_option("--limit-last", s.limitLastPeak, "Fraction of the previous peak a mark must exceed")
        ->capture_default_str();
    sub->add_option("--limit-neighbour", s.limitNeighbourPeak, "Fraction of a near neighbour's peak")
        ->capture_default_str();
    sub->add_option("--distance-factor", s.detectionDistanceFactor,
                    "Detector distance as a fraction of the spacing (peaks closer than it / 1.5 merge)")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    sub->add_option("--csv", options->csvPath, "Write the CSV to this file instead of standard output");
    return {sub, [options] { return run(*options); }};
}
