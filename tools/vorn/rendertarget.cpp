#include "rendertarget.h"

#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/imageio/imageio.h"
#include "render/overlay.h"
#include "render/targetrenderer.h"

namespace {

struct Options
{
    std::string output;
    TargetRender::TargetSettings settings;
    std::string homography;
    std::string omit;
    std::string origin;
    std::string truthPath;
    std::string patternPath;
    std::string overlayPath;
};

std::vector<double> parseNumbers(const std::string& text, char separator, const char* what)
{
    std::vector<double> values;
    std::stringstream stream(text);
    std::string item;
    while (std::getline(stream, item, separator)) {
        std::size_t used = 0;
        double v = 0;
        try {
            v = std::stod(item, &used);
        } catch (const std::exception&) {
            used = 0;
        }
        while (used < item.size() && item[used] == ' ')
            ++used;
        if (used == 0 || used != item.size())
            throw CLI::ValidationError(what, "not a number: '" + item + "'");
        values.push_back(v);
    }
    return values;
}

int toInt(double v, const char* what)
{
    if (v != static_cast<int>(v))
        throw CLI::ValidationError(what, "not an integer");
    return static_cast<int>(v);
}

bool writeText(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary);
    out << text;
    out.close();
    return static_cast<bool>(out);
}

int run(Options& o)
{
    TargetRender::TargetSettings& s = o.settings;
    if (!o.homography.empty()) {
        const std::vector<double> h = parseNumbers(o.homography, ',', "--homography");
        if (h.size() != 9)
            throw CLI::ValidationError("--homography", "needs nine numbers H11,...,H33");
        std::copy(h.begin(), h.end(), s.homography.begin());
        s.useHomography = true;
    }
    if (!o.origin.empty()) {
        const std::vector<double> v = parseNumbers(o.origin, ',', "--origin");
        if (v.size() != 2)
            throw CLI::ValidationError("--origin", "needs X,Y");
        s.originX = toInt(v[0], "--origin");
        s.originY = toInt(v[1], "--origin");
    }
    if (!o.omit.empty()) {
        std::stringstream stream(o.omit);
        std::string cell;
        while (std::getline(stream, cell, ';')) {
            if (cell.empty())
                continue;
            const std::vector<double> v = parseNumbers(cell, ',', "--omit");
            if (v.size() != 2)
                throw CLI::ValidationError("--omit", "needs \"C,R;C,R\"");
            s.omitted.emplace_back(toInt(v[0], "--omit"), toInt(v[1], "--omit"));
        }
    }
    TargetRender::RenderedTarget target;
    try {
        target = TargetRender::RenderTarget(s);
    } catch (const std::invalid_argument& e) {
        std::fprintf(stderr, "vorn render-target: %s\n", e.what());
        return 2;
    }
    std::string error;
    if (!ImageIO::WriteGrey8(o.output, target.grey8.data(), target.width, target.height, target.width,
                             &error)) {
        std::fprintf(stderr, "vorn render-target: %s\n", error.c_str());
        return 2;
    }
    if (!o.truthPath.empty() && !writeText(o.truthPath, TargetRender::TruthCsv(target))) {
        std::fprintf(stderr, "vorn render-target: cannot write '%s'\n", o.truthPath.c_str());
        return 2;
    }
    if (!o.patternPath.empty() && !writeText(o.patternPath, TargetRender::PatternText(target))) {
        std::fprintf(stderr, "vorn render-target: cannot write '%s'\n", o.patternPath.c_str());
        return 2;
    }
    if (!o.overlayPath.empty()) {
        ImageIO::RgbImage picture =
            Overlay::FromGrey(target.grey8.data(), target.width, target.height, target.width);
        const Overlay::Colour red{255, 0, 0}, yellow{255, 220, 0};
        const int half = std::max(2, static_cast<int>(s.diameter / 4));
        for (const TargetRender::MarkTruth& m : target.truth) {
            Overlay::DrawCross(picture, m.x, m.y, half, red);
            Overlay::DrawText(picture, static_cast<int>(m.x) + 3, static_cast<int>(m.y) + 3,
                              std::to_string(m.gridX) + "," + std::to_string(m.gridY), yellow);
        }
        std::vector<std::uint32_t> argb(std::size_t(picture.width) * picture.height);
        for (std::size_t i = 0; i < argb.size(); ++i)
            argb[i] = 0xFF000000u | std::uint32_t(picture.rgb[3 * i]) << 16 |
                      std::uint32_t(picture.rgb[3 * i + 1]) << 8 | picture.rgb[3 * i + 2];
        if (!ImageIO::WriteArgb32Png(o.overlayPath, argb.data(), picture.width, picture.height, picture.width,
                                     &error)) {
            std::fprintf(stderr, "vorn render-target: %s\n", error.c_str());
            return 2;
        }
    }
    std::printf("%s: %d x %d, %zu marks inside the picture\n", o.output.c_str(), target.width, target.height,
                target.truth.size());
    if (target.truth.empty()) {
        std::fprintf(stderr, "vorn render-target: no mark lies wholly inside the picture\n");
        return 1;
    }
    return 0;
}

} // namespace

VornCommand AddRenderTargetCommand(CLI::App& app)
{
    auto options = std::make_shared<Options>();
    CLI::App* sub = app.add_subcommand(
        "render-target", "Render a synthetic calibration-target picture with known mark centres");
    TargetRender::TargetSettings& s = options->settings;
    sub->add_option("output", options->output, "Picture to write (.png, .tif, .bmp or .jpg)")->required();
    sub->add_option("--width", s.width, "Picture width in pixels")->capture_default_str();
    sub->add_option("--height", s.height, "Picture height in pixels")->capture_default_str();
    sub->add_option("--columns", s.columns, "Marks per row")->capture_default_str();
    sub->add_option("--rows", s.rows, "Marks per column")->capture_default_str();
    sub->add_option("--spacing", s.spacing, "Distance of neighbouring marks, pixels")->capture_default_str();
    sub->add_option("--diameter", s.diameter, "Mark diameter, pixels")->capture_default_str();
    sub->add_flag("--rings", s.rings, "Ring marks (a ring around a centre of ground colour)");
    sub->add_option("--ring-ratio", s.ringRatio, "Inner / outer radius of a ring")->capture_default_str();
    sub->add_flag("--bright", s.bright, "Bright marks on a dark ground");
    sub->add_option("--homography", options->homography, "Plane-to-image homography H11,...,H33 (row-major)");
    sub->add_option("--tilt-x", s.tiltX, "Rotation about the target's x axis, degrees");
    sub->add_option("--tilt-y", s.tiltY, "Rotation about the target's y axis, degrees");
    sub->add_option("--tilt-z", s.tiltZ, "Rotation about the viewing axis, degrees");
    sub->add_option("--focal", s.focal, "Focal length in pixels (default 1.5 x the larger side)");
    sub->add_option("--blur", s.blurSigma, "Gaussian blur sigma, pixels");
    sub->add_option("--noise", s.noiseSigma, "Gaussian noise sigma, grey levels");
    sub->add_option("--seed", s.seed, "Seed of the noise")->capture_default_str();
    sub->add_option("--weakest-contrast", s.weakestContrast,
                    "Light at the dark side / light at the bright side");
    sub->add_option("--light-angle", s.lightAngle, "Direction in which the light grows, degrees");
    sub->add_option("--omit", options->omit, "Marks left out, \"C,R;C,R\" (0-based column, row)");
    sub->add_option("--origin", options->origin, "Grid coordinate X,Y of the top-left mark");
    sub->add_option("--supersampling", s.supersampling, "0: exact area coverage; N: N x N samples per pixel")
        ->capture_default_str();
    sub->add_option("--truth", options->truthPath, "Write the true centres as CSV gridX,gridY,x,y");
    sub->add_option("--pattern-out", options->patternPath,
                    "Write the reference pattern ('x' mark, '.' none)");
    sub->add_option("--overlay", options->overlayPath, "Write a colour PNG with the true centres drawn in");
    return {sub, [options] { return run(*options); }};
}
