#pragma once
// DataLayer::detail::CContourTracer: follows the outer boundary of one 8-connected region of a byte
// mask and yields it as a CPixelPolygon in mask coordinates: the chain counterclockwise on the
// screen, the start pixel last, the area (pixels on and inside the boundary, holes included) summed
// from the chain codes of the steps, and the perimeter. The building block of every polygon
// operation; a local of each call.
//
// Ownership: borrows the mask (row-major, no padding), which the caller keeps alive and unchanged
// while the tracer is used. One thread at a time; a tracer holds no state between calls.
//
// A pixel counts as set when it lies inside the mask and satisfies the predicate. The value
// constructor is the fast form of the predicate "byte equal to value".

#include <functional>

#include "datalayer/algorithms/regions/cpixelpolygon.h"

namespace DataLayer::detail {

class CContourTracer
{
public:
    /// Region bytes are those for which `predicate` holds. A negative width or height is taken as
    /// an empty mask.
    CContourTracer(const unsigned char* mask, std::function<bool(const unsigned char&)> predicate, int width,
                   int height);
    /// Region bytes are those equal to `value`.
    CContourTracer(const unsigned char* mask, unsigned char value, int width, int height);

    /// The first set pixel in raster order; false (arguments untouched) when there is none.
    bool FindFirst(int& x, int& y) const;
    /// The boundary through the start pixel; empty when the start is outside the mask or not set.
    /// With the first set pixel in raster order as start, this is the region's outer boundary.
    CPixelPolygon Trace(int x, int y) const;
    /// Trace(FindFirst()), or an empty polygon for a mask without set pixels.
    CPixelPolygon TraceFirst() const;

private:
    template <typename IsSet> CPixelPolygon trace(int x, int y, IsSet isSet) const;

    const unsigned char* m_mask;
    std::function<bool(const unsigned char&)> m_predicate;
    int m_width;
    int m_height;
    bool m_byValue = false;
    unsigned char m_value = 0;
};

} // namespace DataLayer::detail
