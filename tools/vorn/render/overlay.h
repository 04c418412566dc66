#pragma once
// Overlay: draws marks (crosses, circles) and short labels over an RGB picture, to show detected or
// true mark positions on a rendered or photographed target. Part of the renderer's static library.
//
// Ownership and threads: every function draws into the caller's image and keeps nothing; one
// image serves one thread at a time. Drawing is clipped at the image border, so any position,
// however far outside or non-finite, is safe (non-finite positions draw nothing).
//
// Positions are pixel coordinates with pixel centres at integers (the calibration convention) and
// are rounded with floor(v + 0.5).
#include <cstdint>
#include <string>

#include "core/imageio/imageio.h"

namespace Overlay {

struct Colour
{
    std::uint8_t r = 0;
    std::uint8_t g = 0;
    std::uint8_t b = 0;
};

/// An RGB copy of an 8-bit grey picture (row y at grey + y * stride).
ImageIO::RgbImage FromGrey(const std::uint8_t* grey, int width, int height, std::ptrdiff_t stride);

/// Sets one pixel if it lies inside the image.
void SetPixel(ImageIO::RgbImage& image, int x, int y, Colour colour);

/// An upright cross with arms of `halfSize` pixels either side of (x, y).
void DrawCross(ImageIO::RgbImage& image, double x, double y, int halfSize, Colour colour);

/// A circle outline of the given radius (pixels) around (x, y); radius <= 0 draws nothing.
void DrawCircle(ImageIO::RgbImage& image, double x, double y, double radius, Colour colour);

/// Text in a 3 x 5 pixel font scaled by `scale` (>= 1), top-left corner at (x, y), 1 pixel (times
/// scale) between characters. Known characters: digits, '-', ',', '.', '(', ')', ':', ' ', 'x',
/// 'y'; others draw as a filled box.
void DrawText(ImageIO::RgbImage& image, int x, int y, const std::string& text, Colour colour, int scale = 1);

} // namespace Overlay
