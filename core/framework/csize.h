#pragma once
// CSize: the class framework's extent, a width cx and a height cy in pixels. A plain value;
// default construction gives 0 x 0. Negative extents are stored as given.

struct CSize
{
    int cx = 0;
    int cy = 0;

    constexpr CSize() = default;
    constexpr CSize(int initCX, int initCY) : cx(initCX), cy(initCY) {}

    constexpr bool operator==(const CSize& other) const = default;
};
