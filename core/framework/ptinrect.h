#pragma once
// RECT and PtInRect: the platform's rectangle test. A rectangle covers the pixels with
// left <= x < right and top <= y < bottom: the left and top edges belong to it, the right and
// bottom edges don't, so an empty or inverted rectangle contains no point.

#include "core/framework/cpoint.h"

struct RECT
{
    long left = 0;
    long top = 0;
    long right = 0;
    long bottom = 0;
};

/// True when point lies inside rect by the rule above; false for a null rect.
constexpr bool PtInRect(const RECT* rect, const CPoint& point)
{
    return rect != nullptr && rect->left <= point.x && point.x < rect->right && rect->top <= point.y &&
           point.y < rect->bottom;
}
