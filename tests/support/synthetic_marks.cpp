#include "synthetic_marks.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace vorn2test {

std::vector<SyntheticMark> LatticeMarks(int cols, int rows, double x0, double y0, double spacing,
                                        double radius, const std::vector<bool>* pattern)
{
    std::vector<SyntheticMark> marks;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            if (pattern != nullptr && !(*pattern)[static_cast<std::size_t>(r * cols + c)])
                continue;
            SyntheticMark m;
            m.x = x0 + c * spacing;
            m.y = y0 + r * spacing;
            m.radiusX = radius;
            m.radiusY = radius;
            m.gridX = c;
            m.gridY = r;
            marks.push_back(m);
        }
    return marks;
}

namespace {

void blur(std::vector<double>& pixels, int w, int h, double sigma)
{
    const int k = static_cast<int>(std::ceil(3.0 * sigma));
    std::vector<double> kernel(static_cast<std::size_t>(2 * k + 1));
    double total = 0.0;
    for (int i = -k; i <= k; ++i)
        total += kernel[static_cast<std::size_t>(i + k)] = std::exp(-0.5 * i * i / (sigma * sigma));
    for (double& v : kernel)
        v /= total;
    std::vector<double> tmp(pixels.size());
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            double s = 0.0;
            for (int i = -k; i <= k; ++i)
                s += kernel[static_cast<std::size_t>(i + k)] *
                     pixels[static_cast<std::size_t>(y * w + std::clamp(x + i, 0, w - 1))];
            tmp[static_cast<std::size_t>(y * w + x)] = s;
        }
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            double s = 0.0;
            for (int i = -k; i <= k; ++i)
                s += kernel[static_cast<std::size_t>(i + k)] *
                     tmp[static_cast<std::size_t>(std::clamp(y + i, 0, h - 1) * w + x)];
            pixels[static_cast<std::size_t>(y * w + x)] = s;
        }
}

} // namespace

DataLayer::CCalibrationImage RenderScene(const SyntheticScene& scene)
{
    const int w = scene.width;
    const int h = scene.height;
    std::vector<double> pixels(static_cast<std::size_t>(w) * static_cast<std::size_t>(h), scene.ground);
    constexpr int kSub = 8;
    for (const SyntheticMark& m : scene.marks) {
        const int x0 = std::max(0, static_cast<int>(std::floor(m.x - m.radiusX - 1)));
        const int x1 = std::min(w - 1, static_cast<int>(std::ceil(m.x + m.radiusX + 1)));
        const int y0 = std::max(0, static_cast<int>(std::floor(m.y - m.radiusY - 1)));
        const int y1 = std::min(h - 1, static_cast<int>(std::ceil(m.y + m.radiusY + 1)));
        const double step = (scene.mark - scene.ground) * m.contrast;
        for (int y = y0; y <= y1; ++y)
            for (int x = x0; x <= x1; ++x) {
                int inside = 0;
                for (int sy = 0; sy < kSub; ++sy)
                    for (int sx = 0; sx < kSub; ++sx) {
                        const double u = (x - 0.5 + (sx + 0.5) / kSub - m.x) / m.radiusX;
                        const double v = (y - 0.5 + (sy + 0.5) / kSub - m.y) / m.radiusY;
                        const double q = u * u + v * v;
                        if (q < 1.0 && !(scene.rings && q < 0.25))
                            ++inside;
                    }
                pixels[static_cast<std::size_t>(y * w + x)] += step * inside / (kSub * kSub);
            }
    }
    if (scene.blurSigma > 0.0)
        blur(pixels, w, h, scene.blurSigma);
    if (scene.noiseSigma > 0.0) {
        std::mt19937_64 engine(scene.seed);
        std::normal_distribution<double> noise(0.0, scene.noiseSigma);
        for (double& p : pixels)
            p += noise(engine);
    }
    DataLayer::CCalibrationImage image;
    if (!image.SetSize(CSize(w, h)))
        return image;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            image.SetPixel(x, y, static_cast<float>(pixels[static_cast<std::size_t>(y * w + x)]));
    return image;
}

} // namespace vorn2test
