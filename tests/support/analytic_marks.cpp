#include "analytic_marks.h"

#include <cmath>
#include <numbers>
#include <random>

namespace vorn2test {

namespace {

/// Inverse of a 3 x 3 row-major matrix by the adjugate.
Homography invert(const Homography& m)
{
    const double a = m[0], b = m[1], c = m[2], d = m[3], e = m[4], f = m[5], g = m[6], h = m[7], i = m[8];
    const double A = e * i - f * h, B = -(d * i - f * g), C = d * h - e * g;
    const double det = a * A + b * B + c * C;
    return {A / det, -(b * i - c * h) / det, (b * f - c * e) / det,
            B / det, (a * i - c * g) / det,  -(a * f - c * d) / det,
            C / det, -(a * h - b * g) / det, (a * e - b * d) / det};
}

/// 1 inside a mark (dark part), 0 outside.
double inside(const Homography& inv, const std::vector<SMark>& marks, double x, double y)
{
    const std::array<double, 2> p = Project(inv, x, y);
    for (const SMark& m : marks) {
        const double du = p[0] - m.u, dv = p[1] - m.v;
        const double r2 = du * du + dv * dv;
        if (r2 <= m.radius * m.radius)
            return (m.ring && r2 < 0.25 * m.radius * m.radius) ? 0.0 : 1.0;
    }
    return 0.0;
}

} // namespace

Homography IdentityHomography()
{
    return {1, 0, 0, 0, 1, 0, 0, 0, 1};
}

std::array<double, 2> Project(const Homography& h, double u, double v)
{
    const double w = h[6] * u + h[7] * v + h[8];
    return {(h[0] * u + h[1] * v + h[2]) / w, (h[3] * u + h[4] * v + h[5]) / w};
}

Homography TiltedPlane(double tiltDegrees, double turnDegrees, double focal, double distance, double x0,
                       double y0)
{
    const double t = tiltDegrees * std::numbers::pi / 180.0;
    const double s = turnDegrees * std::numbers::pi / 180.0;
    // Plane axes in camera coordinates: turned about z, then tilted about x.
    const double ux = std::cos(s), uy = std::sin(s) * std::cos(t), uz = std::sin(s) * std::sin(t);
    const double vx = -std::sin(s), vy = std::cos(s) * std::cos(t), vz = std::cos(s) * std::sin(t);
    // Camera point of (u, v): u * U + v * V + (0, 0, distance); picture = focal * (X / Z, Y / Z) + origin.
    Homography h{focal * ux, focal * vx, 0.0, focal * uy, focal * vy, 0.0, uz, vz, distance};
    // Add the principal point: x' = x + x0 * w.
    for (int c = 0; c < 3; ++c) {
        h[c] += x0 * h[6 + c];
        h[3 + c] += y0 * h[6 + c];
    }
    return h;
}

DataLayer::CCalibrationImage RenderMarks(const SRenderSettings& settings, const Homography& h,
                                         const std::vector<SMark>& marks)
{
    const int w = settings.width, ht = settings.height;
    const Homography inv = invert(h);
    std::vector<double> coverage(static_cast<std::size_t>(w) * ht, 0.0);
    constexpr int kCoarse = 4;
    constexpr int kFine = 24;
    for (int y = 0; y < ht; ++y) {
        for (int x = 0; x < w; ++x) {
            // Coarse probe over the pixel and a margin; uniform probes mean no edge passes here.
            double first = inside(inv, marks, x - 0.6, y - 0.6);
            bool uniform = true;
            for (int j = 0; j <= kCoarse && uniform; ++j)
                for (int i = 0; i <= kCoarse && uniform; ++i)
                    uniform =
                        inside(inv, marks, x - 0.6 + 1.2 * i / kCoarse, y - 0.6 + 1.2 * j / kCoarse) == first;
            double c = first;
            if (!uniform) {
                double sum = 0.0;
                for (int j = 0; j < kFine; ++j)
                    for (int i = 0; i < kFine; ++i)
                        sum += inside(inv, marks, x - 0.5 + (i + 0.5) / kFine, y - 0.5 + (j + 0.5) / kFine);
                c = sum / (kFine * kFine);
            }
            coverage[static_cast<std::size_t>(y) * w + x] = c;
        }
    }
    std::vector<double> grey(coverage.size());
    for (std::size_t k = 0; k < grey.size(); ++k)
        grey[k] = settings.ground + coverage[k] * (settings.mark - settings.ground);

    if (settings.blurSigma > 0.0) {
        const int r = static_cast<int>(std::ceil(4.0 * settings.blurSigma));
        std::vector<double> kernel(2 * r + 1);
        double ks = 0.0;
        for (int k = -r; k <= r; ++k)
            ks += kernel[k + r] = std::exp(-0.5 * k * k / (settings.blurSigma * settings.blurSigma));
        for (double& k : kernel)
            k /= ks;
        std::vector<double> tmp(grey.size());
        auto clampi = [](int v, int lo, int hi) { return v < lo ? lo : v > hi ? hi : v; };
        for (int y = 0; y < ht; ++y)
            for (int x = 0; x < w; ++x) {
                double s = 0.0;
                for (int k = -r; k <= r; ++k)
                    s += kernel[k + r] * grey[static_cast<std::size_t>(y) * w + clampi(x + k, 0, w - 1)];
                tmp[static_cast<std::size_t>(y) * w + x] = s;
            }
        for (int y = 0; y < ht; ++y)
            for (int x = 0; x < w; ++x) {
                double s = 0.0;
                for (int k = -r; k <= r; ++k)
                    s += kernel[k + r] * tmp[static_cast<std::size_t>(clampi(y + k, 0, ht - 1)) * w + x];
                grey[static_cast<std::size_t>(y) * w + x] = s;
            }
    }

    std::mt19937 engine(settings.seed);
    std::normal_distribution<double> noise(0.0, settings.noiseSigma > 0.0 ? settings.noiseSigma : 1.0);
    DataLayer::CCalibrationImage image;
    image.SetSize(CSize(w, ht));
    for (int y = 0; y < ht; ++y)
        for (int x = 0; x < w; ++x) {
            double v = grey[static_cast<std::size_t>(y) * w + x];
            if (settings.noiseSigma > 0.0)
                v += noise(engine);
            image.SetPixel(x, y, static_cast<float>(v));
        }
    return image;
}

} // namespace vorn2test
