#pragma once
// TargetRenderer: renders a synthetic photograph of a calibration target (a regular grid of
// circular marks) with known truth, for the `vorn render-target` command, the tests and the
// benchmarks. Not part of the shared library: a static library beside the tool.
//
// Ownership and threads: RenderTarget is a pure function of its settings; it owns nothing
// between calls and may run on several threads at once.
//
// Geometry and pixel convention. The target lies in a plane with coordinates (u, v) in pixels of
// the untilted picture, u to the right and v down, origin at the centre of the grid: the mark in
// column c and row r sits at u = (c - (columns - 1) / 2) * spacing, v = (r - (rows - 1) / 2) *
// spacing. A 3 x 3 homography H (row-major, H11..H33) maps (u, v, 1) to image pixels. Pixel (x, y)
// covers the square [x - 0.5, x + 0.5] x [y - 0.5, y + 0.5]: integer coordinates are pixel centres,
// the convention of the calibration classes. Without a homography or tilt, H places the grid
// centre at the image centre ((width - 1) / 2, (height - 1) / 2).
//
// Truth. The truth of a mark is H applied to its centre in the plane: the projected centre, which
// under perspective differs from the centre of the projected ellipse. Its grid coordinates are
// (originX + c, originY + r). Only marks whose projected outline lies inside the image with a
// margin of one pixel are listed (others are drawn, clipped, but not listed).
//
// Rendering. Each mark is drawn by its exact area coverage of every pixel: the projected circle is
// an ellipse, and the area of ellipse and pixel square is computed in closed form (circle against
// polygon after an affine map). With `supersampling` N >= 1 an N x N grid of samples per pixel is
// used instead (a check and a comparison). The picture is then lit (illumination that falls off
// linearly across the image), blurred with a Gaussian (replicated border), given Gaussian noise
// from a fixed-seed generator, and rounded to 8 bits.
//
// Failure: invalid settings (sizes below 1, more than 64 megapixels or 1000 marks a side, a mark
// behind the camera or crossing the horizon, a singular homography, ...) throw
// std::invalid_argument naming the setting.
#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace TargetRender {

struct TargetSettings
{
    int width = 1280; ///< picture size in pixels
    int height = 1024;
    int columns = 12; ///< marks per row and per column
    int rows = 9;
    double spacing = 80.0;      ///< distance of neighbouring mark centres, plane pixels
    double diameter = 40.0;     ///< outer diameter of a mark, plane pixels
    bool rings = false;         ///< ring marks: a ring of the mark colour around a centre of ground colour
    double ringRatio = 0.5;     ///< inner radius / outer radius of a ring, in (0, 1)
    bool bright = false;        ///< marks brighter than the ground (dark ground)
    double darkLevel = 40.0;    ///< grey value of dark areas at full light
    double brightLevel = 210.0; ///< grey value of bright areas at full light

    bool useHomography = false;         ///< take `homography` as given
    std::array<double, 9> homography{}; ///< plane (u, v, 1) to image, row-major
    double tiltX = 0.0;                 ///< rotation about the plane's u axis, degrees
    double tiltY = 0.0;                 ///< rotation about the v axis, degrees
    double tiltZ = 0.0;                 ///< rotation about the viewing axis, degrees
    double focal = 0.0;                 ///< focal length in pixels; 0 picks 1.5 * max(width, height)

    double blurSigma = 0.0;  ///< Gaussian blur, pixels; 0 for none
    double noiseSigma = 0.0; ///< additive Gaussian noise, grey levels; 0 for none
    std::uint64_t seed = 1;  ///< seed of the noise

    double weakestContrast = 1.0; ///< light at the darkest side as a fraction of the brightest, (0, 1]
    double lightAngle = 0.0;      ///< direction in which the light grows, degrees from +x towards +y

    std::vector<std::pair<int, int>> omitted; ///< (column, row) of marks left out, 0-based
    int originX = 0;                          ///< grid coordinate of column 0
    int originY = 0;                          ///< grid coordinate of row 0

    int supersampling = 0; ///< 0: exact coverage; N >= 1: N x N samples per pixel
};

/// One listed mark: its grid coordinates and its projected centre in image pixels.
struct MarkTruth
{
    int gridX = 0;
    int gridY = 0;
    double x = 0.0;
    double y = 0.0;
};

struct RenderedTarget
{
    int width = 0;
    int height = 0;
    std::vector<float> grey;            ///< final grey values before rounding, row-major
    std::vector<std::uint8_t> grey8;    ///< rounded and clamped to 0..255
    std::vector<MarkTruth> truth;       ///< listed marks, row by row, column by column
    std::vector<std::string> pattern;   ///< one line per grid row: 'x' mark, '.' left out
    std::array<double, 9> homography{}; ///< the plane-to-image map used
};

/// Renders the target. Throws std::invalid_argument for invalid settings.
RenderedTarget RenderTarget(const TargetSettings& settings);

/// The plane-to-image homography the settings describe (the given one, or the one from the tilt
/// angles: rotation Rz * Ry * Rx, the plane at distance `focal` in front of a pinhole camera with
/// focal length `focal` and its principal point at the image centre). Throws for invalid settings.
std::array<double, 9> TargetHomography(const TargetSettings& settings);

/// Applies a homography to a plane point; false if the point maps to or behind infinity (w <= 0).
bool ApplyHomography(const std::array<double, 9>& h, double u, double v, double& x, double& y);

/// Exact area of the pixel square centred at (px, py) covered by the image of the plane circle
/// with centre (u, v) and radius r under h; 0..1. The conic must be an ellipse in front of the
/// camera (as RenderTarget checks).
double PixelCoverage(const std::array<double, 9>& h, double u, double v, double r, double px, double py);

/// "gridX,gridY,x,y" header and one line per listed mark, coordinates with 6 decimals.
std::string TruthCsv(const RenderedTarget& target);
/// The pattern lines joined by newlines, with a final newline.
std::string PatternText(const RenderedTarget& target);

} // namespace TargetRender
