#pragma once
// CPoint: the class framework's integer point, x the column and y the row in pixels. A plain value;
// default construction gives (0, 0).

struct CPoint
{
    int x = 0;
    int y = 0;

    constexpr CPoint() = default;
    constexpr CPoint(int initX, int initY) : x(initX), y(initY) {}

    constexpr bool operator==(const CPoint& other) const = default;
};
