#include "overlay.h"

#include <algorithm>
#include <cmath>

namespace Overlay {
namespace {

bool toPixel(double v, int& out)
{
    if (!std::isfinite(v) || std::abs(v) > 1e9)
        return false;
    out = static_cast<int>(std::floor(v + 0.5));
    return true;
}

// 3 x 5 glyphs, one row per entry, bit 2 the left column.
struct Glyph
{
    char c;
    unsigned char rows[5];
};

constexpr Glyph kGlyphs[] = {
    {'0', {7, 5, 5, 5, 7}}, {'1', {2, 6, 2, 2, 7}}, {'2', {7, 1, 7, 4, 7}}, {'3', {7, 1, 7, 1, 7}},
    {'4', {5, 5, 7, 1, 1}}, {'5', {7, 4, 7, 1, 7}}, {'6', {7, 4, 7, 5, 7}}, {'7', {7, 1, 1, 1, 1}},
    {'8', {7, 5, 7, 5, 7}}, {'9', {7, 5, 7, 1, 7}}, {'-', {0, 0, 7, 0, 0}}, {',', {0, 0, 0, 2, 4}},
    {'.', {0, 0, 0, 0, 2}}, {'(', {1, 2, 2, 2, 1}}, {')', {4, 2, 2, 2, 4}}, {':', {0, 2, 0, 2, 0}},
    {' ', {0, 0, 0, 0, 0}}, {'x', {0, 5, 2, 5, 0}}, {'y', {5, 5, 2, 2, 4}},
};

const unsigned char* glyphRows(char c)
{
    static const unsigned char box[5] = {7, 7, 7, 7, 7};
    for (const Glyph& g : kGlyphs)
        if (g.c == c)
            return g.rows;
    return box;
}

} // namespace

ImageIO::RgbImage FromGrey(const std::uint8_t* grey, int width, int height, std::ptrdiff_t stride)
{
    ImageIO::RgbImage image;
    if (!grey || width < 1 || height < 1)
        return image;
    image.width = width;
    image.height = height;
    image.rgb.resize(std::size_t(width) * height * 3);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const std::uint8_t v = grey[std::ptrdiff_t(y) * stride + x];
            std::uint8_t* p = image.rgb.data() + 3 * (std::size_t(y) * width + x);
            p[0] = p[1] = p[2] = v;
        }
    return image;
}

void SetPixel(ImageIO::RgbImage& image, int x, int y, Colour colour)
{
    if (x < 0 || y < 0 || x >= image.width || y >= image.height ||
        image.rgb.size() < std::size_t(image.width) * image.height * 3)
        return;
    std::uint8_t* p = image.rgb.data() + 3 * (std::size_t(y) * image.width + x);
    p[0] = colour.r;
    p[1] = colour.g;
    p[2] = colour.b;
}

void DrawCross(ImageIO::RgbImage& image, double x, double y, int halfSize, Colour colour)
{
    int cx = 0, cy = 0;
    if (!toPixel(x, cx) || !toPixel(y, cy))
        return;
    halfSize = std::clamp(halfSize, 0, 1 << 16);
    for (int d = -halfSize; d <= halfSize; ++d) {
        SetPixel(image, cx + d, cy, colour);
        SetPixel(image, cx, cy + d, colour);
    }
}

void DrawCircle(ImageIO::RgbImage& image, double x, double y, double radius, Colour colour)
{
    if (!std::isfinite(x) || !std::isfinite(y) || !std::isfinite(radius) || radius <= 0 || radius > 1e6)
        return;
    // Enough steps that neighbouring points are at most half a pixel apart.
    const int steps = std::max(8, static_cast<int>(std::ceil(2.0 * 3.141592653589793 * radius * 2.0)));
    for (int i = 0; i < steps; ++i) {
        const double a = 2.0 * 3.141592653589793 * i / steps;
        int px = 0, py = 0;
        if (toPixel(x + radius * std::cos(a), px) && toPixel(y + radius * std::sin(a), py))
            SetPixel(image, px, py, colour);
    }
}

void DrawText(ImageIO::RgbImage& image, int x, int y, const std::string& text, Colour colour, int scale)
{
    scale = std::clamp(scale, 1, 64);
    long left = x;
    for (char c : text) {
        const unsigned char* rows = glyphRows(c);
        for (int r = 0; r < 5; ++r)
            for (int col = 0; col < 3; ++col)
                if (rows[r] & (4 >> col))
                    for (int sy = 0; sy < scale; ++sy)
                        for (int sx = 0; sx < scale; ++sx) {
                            const long px = left + long(col) * scale + sx;
                            const long py = long(y) + long(r) * scale + sy;
                            if (px >= 0 && py >= 0 && px < image.width && py < image.height)
                                SetPixel(image, int(px), int(py), colour);
                        }
        left += 4L * scale;
        if (left > image.width)
            break;
    }
}

} // namespace Overlay
