#include "targetrenderer.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <random>
#include <stdexcept>

namespace TargetRender {
namespace {

constexpr double kDegree = std::numbers::pi / 180.0;

void require(bool condition, const char* what)
{
    if (!condition)
        throw std::invalid_argument(std::string("render target: ") + what);
}

using Mat3 = std::array<double, 9>;

Mat3 multiply(const Mat3& a, const Mat3& b)
{
    Mat3 c{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k)
                c[3 * i + j] += a[3 * i + k] * b[3 * k + j];
    return c;
}

double determinant(const Mat3& m)
{
    return m[0] * (m[4] * m[8] - m[5] * m[7]) - m[1] * (m[3] * m[8] - m[5] * m[6]) +
           m[2] * (m[3] * m[7] - m[4] * m[6]);
}

// Inverse up to scale: the adjugate (enough for a homography).
Mat3 adjugate(const Mat3& m)
{
    return {m[4] * m[8] - m[5] * m[7], m[2] * m[7] - m[1] * m[8], m[1] * m[5] - m[2] * m[4],
            m[5] * m[6] - m[3] * m[8], m[0] * m[8] - m[2] * m[6], m[2] * m[3] - m[0] * m[5],
            m[3] * m[7] - m[4] * m[6], m[1] * m[6] - m[0] * m[7], m[0] * m[4] - m[1] * m[3]};
}

Mat3 transpose(const Mat3& m)
{
    return {m[0], m[3], m[6], m[1], m[4], m[7], m[2], m[5], m[8]};
}

// The image of a plane circle: centre (x0, y0) and the map p = L^T (x - x0) that takes the
// ellipse onto the unit circle (L^T upper triangular: l11, l12 / 0, l22), with its bounding box.
struct Ellipse
{
    double x0 = 0, y0 = 0;
    double t11 = 0, t12 = 0, t22 = 0; // L^T
    double halfWidth = 0, halfHeight = 0;
    double area = 0; // pi / det(L^T)

    void toUnit(double x, double y, double& px, double& py) const
    {
        const double dx = x - x0, dy = y - y0;
        px = t11 * dx + t12 * dy;
        py = t22 * dy;
    }
};

bool imageEllipse(const Mat3& h, double u, double v, double r, Ellipse& e)
{
    const Mat3 circle = {1, 0, -u, 0, 1, -v, -u, -v, u * u + v * v - r * r};
    const Mat3 g = adjugate(h);
    const Mat3 conic = multiply(transpose(g), multiply(circle, g));
    // Scale the conic so that its entries are of order 1 (its sign is what matters).
    double largest = 0;
    for (double c : conic)
        largest = std::max(largest, std::abs(c));
    if (!(largest > 0) || !std::isfinite(largest))
        return false;
    const double a = conic[0] / largest, b = conic[1] / largest, c = conic[4] / largest;
    const double d = conic[2] / largest, f = conic[5] / largest, k0 = conic[8] / largest;
    const double det = a * c - b * b;
    if (!(det > 0) || !(a > 0))
        return false;
    e.x0 = (-d * c + f * b) / det;
    e.y0 = (-a * f + b * d) / det;
    const double k = k0 + d * e.x0 + f * e.y0; // conic value at the centre
    if (!(k < 0))
        return false;
    // Inside: (x - x0)^T Q (x - x0) <= 1 with Q = A / -k = L L^T (Cholesky, L lower).
    const double q11 = a / -k, q12 = b / -k, q22 = c / -k;
    const double l11 = std::sqrt(q11);
    const double l21 = q12 / l11;
    const double l22sq = q22 - l21 * l21;
    if (!(l22sq > 0))
        return false;
    const double l22 = std::sqrt(l22sq);
    e.t11 = l11;
    e.t12 = l21;
    e.t22 = l22;
    const double qdet = q11 * q22 - q12 * q12;
    e.halfWidth = std::sqrt(q22 / qdet);
    e.halfHeight = std::sqrt(q11 / qdet);
    e.area = std::numbers::pi / (l11 * l22);
    return std::isfinite(e.halfWidth) && std::isfinite(e.halfHeight);
}

double cross(double ax, double ay, double bx, double by)
{
    return ax * by - ay * bx;
}

// Signed area of the unit disc intersected with the triangle (origin, a, b).
double discTriangle(double ax, double ay, double bx, double by)
{
    auto sector = [](double px, double py, double qx, double qy) {
        return 0.5 * std::atan2(cross(px, py, qx, qy), px * qx + py * qy);
    };
    const double aa = ax * ax + ay * ay, bb = bx * bx + by * by;
    if (aa <= 1.0 && bb <= 1.0)
        return 0.5 * cross(ax, ay, bx, by);
    const double dx = bx - ax, dy = by - ay;
    const double qa = dx * dx + dy * dy;
    if (qa == 0.0)
        return 0.0;
    const double qb = ax * dx + ay * dy; // half of the linear coefficient
    const double qc = aa - 1.0;
    const double disc = qb * qb - qa * qc;
    if (disc <= 0.0)
        return sector(ax, ay, bx, by);
    const double root = std::sqrt(disc);
    const double t1 = (-qb - root) / qa, t2 = (-qb + root) / qa;
    if (t2 <= 0.0 || t1 >= 1.0)
        return sector(ax, ay, bx, by);
    const double s1 = std::max(t1, 0.0), s2 = std::min(t2, 1.0);
    const double p1x = ax + s1 * dx, p1y = ay + s1 * dy;
    const double p2x = ax + s2 * dx, p2y = ay + s2 * dy;
    double area = 0.5 * cross(p1x, p1y, p2x, p2y);
    if (s1 > 0.0)
        area += sector(ax, ay, p1x, p1y);
    if (s2 < 1.0)
        area += sector(p2x, p2y, bx, by);
    return area;
}

// Exact area of the pixel square centred at (px, py) inside the ellipse.
double coverage(const Ellipse& e, double px, double py)
{
    double cx[4], cy[4];
    const double xs[4] = {px - 0.5, px + 0.5, px + 0.5, px - 0.5};
    const double ys[4] = {py - 0.5, py - 0.5, py + 0.5, py + 0.5};
    int inside = 0;
    for (int i = 0; i < 4; ++i) {
        e.toUnit(xs[i], ys[i], cx[i], cy[i]);
        inside += cx[i] * cx[i] + cy[i] * cy[i] <= 1.0;
    }
    if (inside == 4)
        return 1.0;
    double area = 0;
    for (int i = 0; i < 4; ++i)
        area += discTriangle(cx[i], cy[i], cx[(i + 1) % 4], cy[(i + 1) % 4]);
    // Unit-disc area back to pixels: divide by det(L^T) = pi / e.area.
    const double result = std::abs(area) * e.area / std::numbers::pi;
    return std::clamp(result, 0.0, 1.0);
}

double sampledCoverage(const Ellipse& e, double px, double py, int n)
{
    int hits = 0;
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            double ux, uy;
            e.toUnit(px - 0.5 + (i + 0.5) / n, py - 0.5 + (j + 0.5) / n, ux, uy);
            hits += ux * ux + uy * uy < 1.0;
        }
    return double(hits) / (double(n) * n);
}

void validate(const TargetSettings& s)
{
    require(s.width >= 1 && s.height >= 1 && s.width <= (1 << 15) && s.height <= (1 << 15),
            "width and height must lie in 1..32768");
    require(std::int64_t(s.width) * s.height <= (std::int64_t(1) << 26),
            "the picture may have 64 megapixels at most");
    require(s.columns >= 1 && s.rows >= 1 && s.columns <= 1000 && s.rows <= 1000,
            "columns and rows must lie in 1..1000");
    require(std::isfinite(s.spacing) && s.spacing > 0, "spacing must be positive");
    require(std::isfinite(s.diameter) && s.diameter > 0, "diameter must be positive");
    require(std::isfinite(s.ringRatio) && s.ringRatio > 0 && s.ringRatio < 1,
            "ring ratio must lie in (0, 1)");
    require(std::isfinite(s.darkLevel) && std::isfinite(s.brightLevel), "grey levels must be finite");
    require(std::isfinite(s.blurSigma) && s.blurSigma >= 0 && s.blurSigma <= 100, "blur must lie in 0..100");
    require(std::isfinite(s.noiseSigma) && s.noiseSigma >= 0, "noise must not be negative");
    require(std::isfinite(s.weakestContrast) && s.weakestContrast > 0 && s.weakestContrast <= 1,
            "weakest contrast must lie in (0, 1]");
    require(std::isfinite(s.lightAngle), "light angle must be finite");
    require(s.supersampling >= 0 && s.supersampling <= 64, "supersampling must lie in 0..64");
    require(std::isfinite(s.focal) && s.focal >= 0, "focal length must not be negative");
    require(std::isfinite(s.tiltX) && std::isfinite(s.tiltY) && std::isfinite(s.tiltZ),
            "tilt must be finite");
    for (const auto& [c, r] : s.omitted)
        require(c >= 0 && c < s.columns && r >= 0 && r < s.rows, "an omitted mark lies outside the grid");
}

void gaussianBlur(std::vector<double>& image, int width, int height, double sigma)
{
    const int radius = static_cast<int>(std::ceil(4.0 * sigma));
    std::vector<double> kernel(2 * radius + 1);
    double sum = 0;
    for (int i = -radius; i <= radius; ++i)
        sum += kernel[i + radius] = std::exp(-0.5 * i * i / (sigma * sigma));
    for (double& k : kernel)
        k /= sum;
    std::vector<double> line(std::size_t(std::max(width, height)) + 2 * radius);
    // Rows, then columns, each through a line buffer with replicated ends.
    for (int y = 0; y < height; ++y) {
        double* row = image.data() + std::size_t(y) * width;
        for (int i = 0; i < width + 2 * radius; ++i)
            line[i] = row[std::clamp(i - radius, 0, width - 1)];
        for (int x = 0; x < width; ++x) {
            double acc = 0;
            for (int k = 0; k <= 2 * radius; ++k)
                acc += kernel[k] * line[x + k];
            row[x] = acc;
        }
    }
    for (int x = 0; x < width; ++x) {
        for (int i = 0; i < height + 2 * radius; ++i)
            line[i] = image[std::size_t(std::clamp(i - radius, 0, height - 1)) * width + x];
        for (int y = 0; y < height; ++y) {
            double acc = 0;
            for (int k = 0; k <= 2 * radius; ++k)
                acc += kernel[k] * line[y + k];
            image[std::size_t(y) * width + x] = acc;
        }
    }
}

// Standard normal numbers by Box-Muller from a 64-bit Mersenne Twister: the same sequence on every
// platform, unlike std::normal_distribution.
class NormalSource
{
public:
    explicit NormalSource(std::uint64_t seed) : engine_(seed) {}
    double operator()()
    {
        if (haveSpare_) {
            haveSpare_ = false;
            return spare_;
        }
        const double u1 = (double(engine_() >> 11) + 1.0) * 0x1.0p-53; // (0, 1]
        const double u2 = double(engine_() >> 11) * 0x1.0p-53;         // [0, 1)
        const double radius = std::sqrt(-2.0 * std::log(u1));
        spare_ = radius * std::sin(2.0 * std::numbers::pi * u2);
        haveSpare_ = true;
        return radius * std::cos(2.0 * std::numbers::pi * u2);
    }

private:
    std::mt19937_64 engine_;
    double spare_ = 0;
    bool haveSpare_ = false;
};

} // namespace

bool ApplyHomography(const std::array<double, 9>& h, double u, double v, double& x, double& y)
{
    const double w = h[6] * u + h[7] * v + h[8];
    if (!(w > 0))
        return false;
    x = (h[0] * u + h[1] * v + h[2]) / w;
    y = (h[3] * u + h[4] * v + h[5]) / w;
    return std::isfinite(x) && std::isfinite(y);
}

std::array<double, 9> TargetHomography(const TargetSettings& s)
{
    validate(s);
    const double cx = (s.width - 1) * 0.5, cy = (s.height - 1) * 0.5;
    Mat3 h;
    if (s.useHomography) {
        h = s.homography;
        for (double e : h)
            require(std::isfinite(e), "homography entries must be finite");
        const double scale = std::abs(determinant(h));
        require(scale > 1e-300 && std::isfinite(scale), "homography is singular");
        // A homography and its negative are the same map; keep the one with w > 0 at the grid.
        if (h[8] < 0)
            for (double& e : h)
                e = -e;
        return h;
    }
    const double f = s.focal > 0 ? s.focal : 1.5 * std::max(s.width, s.height);
    const double ax = s.tiltX * kDegree, ay = s.tiltY * kDegree, az = s.tiltZ * kDegree;
    const Mat3 rx = {1, 0, 0, 0, std::cos(ax), -std::sin(ax), 0, std::sin(ax), std::cos(ax)};
    const Mat3 ry = {std::cos(ay), 0, std::sin(ay), 0, 1, 0, -std::sin(ay), 0, std::cos(ay)};
    const Mat3 rz = {std::cos(az), -std::sin(az), 0, std::sin(az), std::cos(az), 0, 0, 0, 1};
    const Mat3 r = multiply(rz, multiply(ry, rx));
    // x ~ K [r1 r2 t] (u, v, 1) with t = (0, 0, f), divided by f.
    h = {r[0] + cx * r[6] / f,
         r[1] + cx * r[7] / f,
         cx,
         r[3] + cy * r[6] / f,
         r[4] + cy * r[7] / f,
         cy,
         r[6] / f,
         r[7] / f,
         1.0};
    return h;
}

double PixelCoverage(const std::array<double, 9>& h, double u, double v, double r, double px, double py)
{
    Ellipse e;
    if (!imageEllipse(h, u, v, r, e))
        return 0.0;
    return coverage(e, px, py);
}

RenderedTarget RenderTarget(const TargetSettings& s)
{
    const Mat3 h = TargetHomography(s);
    const int w = s.width, ht = s.height;
    RenderedTarget out;
    out.width = w;
    out.height = ht;
    out.homography = h;

    std::vector<char> present(std::size_t(s.columns) * s.rows, 1);
    for (const auto& [c, r] : s.omitted)
        present[std::size_t(r) * s.columns + c] = 0;
    for (int r = 0; r < s.rows; ++r) {
        std::string line(std::size_t(s.columns), '.');
        for (int c = 0; c < s.columns; ++c)
            if (present[std::size_t(r) * s.columns + c])
                line[std::size_t(c)] = 'x';
        out.pattern.push_back(line);
    }

    // Fraction of mark colour in every pixel.
    std::vector<double> fraction(std::size_t(w) * ht, 0.0);
    const double radius = 0.5 * s.diameter;
    auto paint = [&](const Ellipse& e, double sign) {
        const int x0 = std::max(0, static_cast<int>(std::floor(e.x0 - e.halfWidth - 0.5)));
        const int x1 = std::min(w - 1, static_cast<int>(std::ceil(e.x0 + e.halfWidth + 0.5)));
        const int y0 = std::max(0, static_cast<int>(std::floor(e.y0 - e.halfHeight - 0.5)));
        const int y1 = std::min(ht - 1, static_cast<int>(std::ceil(e.y0 + e.halfHeight + 0.5)));
        for (int y = y0; y <= y1; ++y)
            for (int x = x0; x <= x1; ++x) {
                const double a =
                    s.supersampling > 0 ? sampledCoverage(e, x, y, s.supersampling) : coverage(e, x, y);
                fraction[std::size_t(y) * w + x] += sign * a;
            }
    };
    for (int r = 0; r < s.rows; ++r)
        for (int c = 0; c < s.columns; ++c) {
            if (!present[std::size_t(r) * s.columns + c])
                continue;
            const double u = (c - (s.columns - 1) * 0.5) * s.spacing;
            const double v = (r - (s.rows - 1) * 0.5) * s.spacing;
            double tx = 0, ty = 0;
            Ellipse outer, inner;
            require(ApplyHomography(h, u, v, tx, ty) && imageEllipse(h, u, v, radius, outer),
                    "a mark lies behind the camera or crosses the horizon");
            if (s.rings)
                require(imageEllipse(h, u, v, radius * s.ringRatio, inner),
                        "a mark lies behind the camera or crosses the horizon");
            // Marks far outside the picture are skipped (and their boxes never overflow an int).
            if (outer.x0 + outer.halfWidth < -1 || outer.x0 - outer.halfWidth > w ||
                outer.y0 + outer.halfHeight < -1 || outer.y0 - outer.halfHeight > ht)
                continue;
            paint(outer, 1.0);
            if (s.rings)
                paint(inner, -1.0);
            if (outer.x0 - outer.halfWidth >= 0.5 && outer.x0 + outer.halfWidth <= w - 1.5 &&
                outer.y0 - outer.halfHeight >= 0.5 && outer.y0 + outer.halfHeight <= ht - 1.5)
                out.truth.push_back(MarkTruth{s.originX + c, s.originY + r, tx, ty});
        }

    // Light, marks, blur, noise.
    const double ground = s.bright ? s.darkLevel : s.brightLevel;
    const double mark = s.bright ? s.brightLevel : s.darkLevel;
    const double dirX = std::cos(s.lightAngle * kDegree), dirY = std::sin(s.lightAngle * kDegree);
    double pMin = 0, pMax = 0;
    for (double cxn : {0.0, double(w - 1)})
        for (double cyn : {0.0, double(ht - 1)}) {
            const double p = cxn * dirX + cyn * dirY;
            pMin = std::min(pMin, p);
            pMax = std::max(pMax, p);
        }
    std::vector<double> image(fraction.size());
    for (int y = 0; y < ht; ++y)
        for (int x = 0; x < w; ++x) {
            const double t = pMax > pMin ? (x * dirX + y * dirY - pMin) / (pMax - pMin) : 1.0;
            const double light = s.weakestContrast + (1.0 - s.weakestContrast) * t;
            const double m = std::clamp(fraction[std::size_t(y) * w + x], 0.0, 1.0);
            image[std::size_t(y) * w + x] = light * (ground + (mark - ground) * m);
        }
    if (s.blurSigma > 0)
        gaussianBlur(image, w, ht, s.blurSigma);
    if (s.noiseSigma > 0) {
        NormalSource normal(s.seed);
        for (double& p : image)
            p += s.noiseSigma * normal();
    }
    out.grey.resize(image.size());
    out.grey8.resize(image.size());
    for (std::size_t i = 0; i < image.size(); ++i) {
        out.grey[i] = static_cast<float>(image[i]);
        out.grey8[i] = static_cast<std::uint8_t>(std::clamp(std::floor(image[i] + 0.5), 0.0, 255.0));
    }
    return out;
}

std::string TruthCsv(const RenderedTarget& target)
{
    std::string text = "gridX,gridY,x,y\n";
    char line[128];
    for (const MarkTruth& m : target.truth) {
        std::snprintf(line, sizeof line, "%d,%d,%.6f,%.6f\n", m.gridX, m.gridY, m.x, m.y);
        text += line;
    }
    return text;
}

std::string PatternText(const RenderedTarget& target)
{
    std::string text;
    for (const std::string& line : target.pattern)
        text += line + "\n";
    return text;
}

} // namespace TargetRender
