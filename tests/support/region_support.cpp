#include "region_support.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace vorn2test {

std::vector<unsigned char> RandomMask(std::mt19937_64& engine, int width, int height, double density,
                                      unsigned char value)
{
    std::bernoulli_distribution draw(density);
    std::vector<unsigned char> mask(static_cast<std::size_t>(width) * height, 0);
    for (unsigned char& b : mask)
        b = draw(engine) ? value : 0;
    return mask;
}

std::vector<unsigned char> Component8(const std::vector<unsigned char>& mask, int width, int height, int x,
                                      int y, unsigned char value)
{
    std::vector<unsigned char> out(mask.size(), 0);
    std::vector<std::pair<int, int>> stack{{x, y}};
    out[static_cast<std::size_t>(y) * width + x] = 1;
    while (!stack.empty()) {
        const auto [cx, cy] = stack.back();
        stack.pop_back();
        for (int dy = -1; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx) {
                const int nx = cx + dx, ny = cy + dy;
                if (nx < 0 || ny < 0 || nx >= width || ny >= height)
                    continue;
                const std::size_t i = static_cast<std::size_t>(ny) * width + nx;
                if (mask[i] == value && !out[i]) {
                    out[i] = 1;
                    stack.emplace_back(nx, ny);
                }
            }
    }
    return out;
}

std::vector<unsigned char> FillHoles(const std::vector<unsigned char>& component, int width, int height)
{
    // Flood from a frame one pixel beyond the mask.
    const int w = width + 2, h = height + 2;
    std::vector<unsigned char> outside(static_cast<std::size_t>(w) * h, 0);
    auto blocked = [&](int x, int y) {
        if (x < 1 || y < 1 || x > width || y > height)
            return false;
        return component[static_cast<std::size_t>(y - 1) * width + (x - 1)] != 0;
    };
    std::vector<std::pair<int, int>> stack{{0, 0}};
    outside[0] = 1;
    while (!stack.empty()) {
        const auto [cx, cy] = stack.back();
        stack.pop_back();
        const int nx[4] = {cx + 1, cx - 1, cx, cx};
        const int ny[4] = {cy, cy, cy + 1, cy - 1};
        for (int k = 0; k < 4; ++k) {
            if (nx[k] < 0 || ny[k] < 0 || nx[k] >= w || ny[k] >= h)
                continue;
            const std::size_t i = static_cast<std::size_t>(ny[k]) * w + nx[k];
            if (!outside[i] && !blocked(nx[k], ny[k])) {
                outside[i] = 1;
                stack.emplace_back(nx[k], ny[k]);
            }
        }
    }
    std::vector<unsigned char> filled(component.size(), 0);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            filled[static_cast<std::size_t>(y) * width + x] =
                outside[static_cast<std::size_t>(y + 1) * w + (x + 1)] ? 0 : 1;
    return filled;
}

std::vector<unsigned char> Dilate3x3(const std::vector<unsigned char>& mask, int width, int height)
{
    std::vector<unsigned char> out(mask.size(), 0);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            bool any = false;
            for (int dy = -1; dy <= 1 && !any; ++dy)
                for (int dx = -1; dx <= 1 && !any; ++dx) {
                    const int nx = x + dx, ny = y + dy;
                    if (nx >= 0 && ny >= 0 && nx < width && ny < height)
                        any = mask[static_cast<std::size_t>(ny) * width + nx] != 0;
                }
            out[static_cast<std::size_t>(y) * width + x] = any ? 1 : 0;
        }
    return out;
}

std::vector<unsigned short> BruteForceDistance(const std::vector<unsigned char>& features, int width,
                                               int height, char metric)
{
    std::vector<std::pair<int, int>> points;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            if (features[static_cast<std::size_t>(y) * width + x])
                points.emplace_back(x, y);
    std::vector<unsigned short> out(static_cast<std::size_t>(width) * height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            long long best = std::numeric_limits<long long>::max();
            for (const auto& [fx, fy] : points) {
                const long long dx = std::llabs(static_cast<long long>(x - fx));
                const long long dy = std::llabs(static_cast<long long>(y - fy));
                const long long d = metric == 'E'   ? dx * dx + dy * dy
                                    : metric == 'M' ? dx + dy
                                                    : std::max(dx, dy);
                best = std::min(best, d);
            }
            long long value = 0;
            if (points.empty())
                value = static_cast<long long>(width) + height + y;
            else if (metric == 'E')
                value = static_cast<long long>(std::trunc(std::sqrt(static_cast<float>(best)) + 0.5f));
            else
                value = best;
            out[static_cast<std::size_t>(y) * width + x] = static_cast<unsigned short>(value);
        }
    return out;
}

} // namespace vorn2test
