#include "calibrate.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "core/imageio/imageio.h"
#include "datalayer/algorithms/calibration/ccalibrationimage.h"
#include "markchain.h"
#include "marksettings.h"

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

bool parseOrigin(const std::string& text, int& x, int& y)
{
    std::stringstream stream(text);
    char comma = 0;
    if (!(stream >> x >> comma >> y) || comma != ',')
        return false;
    stream >> std::ws;
    return stream.eof();
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

    MarkChainOptions chain;
    chain.diameter = o.diameter;
    chain.distance = o.distance;
    chain.downsize = o.downsize;
    chain.radiusDivisor = o.radiusDivisor;
    chain.rings = o.rings;
    chain.bright = o.bright;
    std::string error;
    if (!o.pattern.empty()) {
        if (!ReadMarkPattern(o.pattern, chain, error))
            return usage(error);
        if (!parseOrigin(o.origin, chain.originX, chain.originY))
            return usage("--origin needs X,Y (integers)");
    }

    ImageIO::RgbImage picture;
    if (!ImageIO::ReadImage(o.image, picture, &error))
        return usage(error);
    const std::vector<float> grey = ImageIO::ToGreyFloat(picture, 0.299f, 0.587f, 0.114f);
    DataLayer::CCalibrationImage image;
    if (!FillCalibrationImage(grey.data(), picture.width, picture.height, image))
        return usage("the picture '" + o.image + "' is too large");

    MarkChainResult result;
    if (!RunMarkChain(image, chain, result)) {
        std::fprintf(stderr, "%s: %s\n", kName, result.failure.c_str());
        return 1;
    }

    std::FILE* out = stdout;
    if (!o.csv.empty() && (out = std::fopen(o.csv.c_str(), "w")) == nullptr)
        return usage("cannot write '" + o.csv + "'");
    const bool written = WriteMarkCsv(out, result.marks);
    if ((out != stdout && std::fclose(out) != 0) || !written)
        return usage("cannot write '" + (o.csv.empty() ? std::string("standard output") : o.csv) + "'");
    if (!o.overlay.empty()) {
        const std::vector<std::uint8_t> grey8 = ImageIO::ToGrey8(picture);
        if (!WriteMarkOverlay(o.overlay, grey8.data(), picture.width, picture.height, result.marks, error))
            return usage(error);
    }
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
