#pragma once
// DataLayer::CLineRaster: walks the pixels that a line segment passes through, from the pixel of
// its first end point to the pixel of its second, one 4- or 8-neighbour step at a time.
//
// Pixel (px, py) covers [px, px + 1) x [py, py + 1); a point belongs to the pixel floor(x),
// floor(y). Each step takes the neighbour (in x, in y, or diagonal) that the segment enters first,
// by a slab test on the pixel widened by 1e-9 on every side; a segment through a pixel corner
// steps diagonally. The walk ends on the end pixel (xend, yend): operator bool turns false there,
// so a loop on operator bool, like a range-based for from begin() to end(), visits every pixel but
// the end pixel. If no neighbour touches the segment, operator++ warns on "Vorn2.CLineRaster" and
// jumps to the end pixel, so every walk ends.
// A value: it owns nothing; one object serves one thread at a time. Choices made here: a segment
// with a NaN or infinite coordinate, or one whose pixel lies outside the int range, is empty (it
// starts and ends at pixel (0, 0)); operator== compares the current pixels, which is what a
// range-based for over one segment needs.

namespace DataLayer {

class CLineRaster
{
public:
    struct Vec2
    {
        double x;
        double y;
    };

    /// The segment from (x0, y0) to (x1, y1), positioned at its first pixel.
    CLineRaster(double x0, double y0, double x1, double y1);
    CLineRaster(const CLineRaster&) = default;
    CLineRaster& operator=(const CLineRaster&) = default;
    CLineRaster(CLineRaster&&) = default;
    CLineRaster& operator=(CLineRaster&&) = default;

    /// True while the current pixel is not the end pixel.
    explicit operator bool() const { return x != xend || y != yend; }
    /// Moves to the next pixel; does nothing on the end pixel.
    CLineRaster& operator++();
    /// This object, for access to x and y.
    const CLineRaster& operator*() const { return *this; }
    const CLineRaster* operator->() const { return this; }
    /// A copy at the first pixel.
    CLineRaster begin() const;
    /// A copy at the end pixel.
    CLineRaster end() const;
    /// Equal when the current pixels are equal (the rest is not compared).
    bool operator==(const CLineRaster& other) const { return x == other.x && y == other.y; }

    Vec2 start;
    int stepX;
    int stepY;
    int xend;
    int yend;
    Vec2 origin;
    Vec2 direction;
    int x;
    int y;

private:
    static bool rayIntersectsBox(const Vec2& origin, const Vec2& direction, const Vec2& boxMin,
                                 const Vec2& boxMax, double tNear, double tFar, double* tEnter,
                                 double* tExit);
    static bool rayIntersectsPixel(const Vec2& origin, const Vec2& direction, int px, int py, double* tEnter,
                                   double* tExit);
};

} // namespace DataLayer
