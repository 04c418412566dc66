#include "datalayer/algorithms/geometry/clineraster.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <limits>

#include "core/logging/clogger.h"

namespace DataLayer {

namespace {
constexpr double kPixelMargin = 1e-9;

Logging::CLogger& rasterLog()
{
    static Logging::CLogger& logger = Logging::CLogger::Get(L"Vorn2.CLineRaster");
    return logger;
}

/// floor(v) as an int when it lies strictly inside the int range (so that a step never
/// overflows); false otherwise, NaN and infinities included.
bool pixelOf(double v, int& pixel)
{
    const double f = std::floor(v);
    if (!(f > static_cast<double>(INT_MIN) && f < static_cast<double>(INT_MAX)))
        return false;
    pixel = static_cast<int>(f);
    return true;
}

int sign(double v)
{
    return v > 0 ? 1 : v < 0 ? -1 : 0;
}
} // namespace

CLineRaster::CLineRaster(double x0, double y0, double x1, double y1)
    : start{x0, y0}, stepX(sign(x1 - x0)), stepY(sign(y1 - y0)), xend(0),
      yend(0), origin{x0, y0}, direction{x1 - x0, y1 - y0}, x(0), y(0)
{
    int px = 0, py = 0, ex = 0, ey = 0;
    if (pixelOf(x0, px) && pixelOf(y0, py) && pixelOf(x1, ex) && pixelOf(y1, ey)) {
        x = px;
        y = py;
        xend = ex;
        yend = ey;
    } else {
        stepX = stepY = 0;
    }
}

CLineRaster CLineRaster::begin() const
{
    CLineRaster copy(*this);
    if (!pixelOf(start.x, copy.x) || !pixelOf(start.y, copy.y))
        copy.x = copy.xend, copy.y = copy.yend;
    return copy;
}

CLineRaster CLineRaster::end() const
{
    CLineRaster copy(*this);
    copy.x = xend;
    copy.y = yend;
    return copy;
}

CLineRaster& CLineRaster::operator++()
{
    if (x == xend && y == yend)
        return *this;
    const double inf = std::numeric_limits<double>::infinity();
    const int nx = x + stepX, ny = y + stepY;
    double tA = inf, tB = inf, tC = inf;
    bool hitA = false, hitB = false, hitC = false;
    if (stepX != 0)
        hitA = rayIntersectsPixel(origin, direction, nx, y, &tA, nullptr);
    if (stepY != 0)
        hitB = rayIntersectsPixel(origin, direction, x, ny, &tB, nullptr);
    if (stepX != 0 && stepY != 0)
        hitC = rayIntersectsPixel(origin, direction, nx, ny, &tC, nullptr);
    if (!hitA)
        tA = inf;
    if (!hitB)
        tB = inf;
    if (!hitC)
        tC = inf;
    if (hitA && tA < tB && tA < tC) {
        x = nx;
    } else if (hitB && tB < tA && tB < tC) {
        y = ny;
    } else if (hitC) {
        x = nx;
        y = ny;
    } else {
        VORN2_LOG_WARN(rasterLog(), L"CLineRaster: aborting at (x,y)=(%i,%i) (xend,yend)=(%i,%i)", x, y, xend,
                       yend);
        x = xend;
        y = yend;
    }
    return *this;
}

bool CLineRaster::rayIntersectsBox(const Vec2& origin, const Vec2& direction, const Vec2& boxMin,
                                   const Vec2& boxMax, double tNear, double tFar, double* tEnter,
                                   double* tExit)
{
    const double inf = std::numeric_limits<double>::infinity();
    auto slab = [inf](double o, double d, double lo, double hi, double& tMin, double& tMax) {
        if (d == 0) {
            // Parallel to the slab: inside it the whole line counts, outside it none.
            if (o >= lo && o <= hi) {
                tMin = -inf;
                tMax = inf;
            } else {
                tMin = inf;
                tMax = -inf;
            }
            return;
        }
        const double inv = 1.0 / d;
        const double near = (inv < 0 ? hi : lo), far = (inv < 0 ? lo : hi);
        tMin = (near - o) * inv;
        tMax = (far - o) * inv;
    };
    double txMin, txMax, tyMin, tyMax;
    slab(origin.x, direction.x, boxMin.x, boxMax.x, txMin, txMax);
    slab(origin.y, direction.y, boxMin.y, boxMax.y, tyMin, tyMax);
    if (tEnter)
        *tEnter = inf;
    if (tExit)
        *tExit = inf;
    const double enter = std::max(txMin, tyMin), exit = std::min(txMax, tyMax);
    if (txMin > tyMax || tyMin > txMax || !(tFar > enter && exit > tNear))
        return false;
    if (tEnter)
        *tEnter = enter;
    if (tExit)
        *tExit = exit;
    return true;
}

bool CLineRaster::rayIntersectsPixel(const Vec2& origin, const Vec2& direction, int px, int py,
                                     double* tEnter, double* tExit)
{
    const Vec2 lo{px - kPixelMargin, py - kPixelMargin};
    const Vec2 hi{px + 1.0 + kPixelMargin, py + 1.0 + kPixelMargin};
    return rayIntersectsBox(origin, direction, lo, hi, 0.0, 1.0, tEnter, tExit);
}

} // namespace DataLayer
