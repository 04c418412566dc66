#pragma once
// DataLayer::CCalibrationFeatureFindGridPositions: turns an unordered cloud of detected marks into
// a lattice. It gives every mark that fits the lattice integer coordinates gridX, gridY and drops
// the marks that don't fit, working from image positions alone: a seed of four marks forming one
// lattice cell, then breadth-first growth that predicts each next mark from its immediate
// neighbours. An optional reference pattern then fixes origin and orientation on the physical
// target, so that the same mark gets the same grid coordinates in every image. Without a pattern
// the lattice may come out mirrored or turned: the finder has no sense of handedness.
//
// Ownership: owns the ID table and its copy of the features. It borrows the reference pattern
// given to SetReferencePattern (the caller keeps it alive through every FindGridPositions).
// Threads: one object serves one thread at a time.
//
// Choices where the behaviour was open:
// - Growth stops at the edge of the ID table: a predicted position outside the table takes no
//   mark, so a featureDistance far above the true spacing gives a smaller lattice, never an error.
// - Features whose posX or posY is not finite are dropped before anything else.
// - featureDistance must be a positive finite number, and the table, sized from the bounding box
//   and featureDistance, may hold at most m_ciMaxTableCells entries; otherwise false.
// - Equal sort keys keep their input order (a stable sort).
// - Of several candidates equally near a predicted position, the first in the search order wins.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/framework/carray.h"
#include "core/framework/cpoint.h"
#include "core/framework/csize.h"
#include "datalayer/algorithms/calibration/ccalibrationimage.h"
#include "datalayer/algorithms/calibration/ccalibrationpointfeaturedetect.h"

namespace DataLayer {

namespace detail {
struct GridDrawingAccess;
}

class CCalibrationFeatureFindGridPositions
{
public:
    /// Largest ID table, in entries (256 MiB of ints).
    static constexpr std::int64_t m_ciMaxTableCells = std::int64_t(1) << 26;

    /// The search area around a predicted position: the ellipse spanned by the half axes
    /// a = (ax, ay) and b = (bx, by) around (centerX, centerY). A point lies inside when
    /// u * u + v * v < 1 with u = m0 * dx + m1 * dy, v = m3 * dx + m2 * dy, (dx, dy) its offset
    /// from the centre. valid is false when |ax * by - ay * bx| < 1.1920928955078125e-7 (or not a
    /// number); the bounding box then stays 0.
    struct NCRhomboidRoi
    {
        NCRhomboidRoi() = default;
        NCRhomboidRoi(double centerX, double centerY, double ax, double ay, double bx, double by);
        /// u * u + v * v of the point (x, y).
        double Distance2(double x, double y) const
        {
            const double dx = x - centerX;
            const double dy = y - centerY;
            const double u = m0 * dx + m1 * dy;
            const double v = m3 * dx + m2 * dy;
            return u * u + v * v;
        }

        bool valid = false;
        double centerX = 0.0;
        double centerY = 0.0;
        double m0 = 0.0;
        double m1 = 0.0;
        double m2 = 0.0;
        double m3 = 0.0;
        /// Bounding box in whole pixels, one pixel wider on each side (saturated to the int range).
        int xMax = 0;
        int xMin = 0;
        int yMax = 0;
        int yMin = 0;
    };

    CCalibrationFeatureFindGridPositions();
    CCalibrationFeatureFindGridPositions(const CCalibrationFeatureFindGridPositions&) = delete;
    CCalibrationFeatureFindGridPositions& operator=(const CCalibrationFeatureFindGridPositions&) = delete;
    ~CCalibrationFeatureFindGridPositions();

    /// pattern: cx * cy bools, row by row (pattern[y * cx + x]), true where the target carries a
    /// mark; origin: the grid coordinate that the pattern's cell (0, 0) receives. A null pattern
    /// or an extent below 2 resets all three, and no pattern is in force.
    void SetReferencePattern(const bool* pattern, const CSize& size, const CPoint& origin);

    /// The whole stage on a copy of features; featureDistance is the nominal spacing in pixels.
    /// reservedArgument and image have no effect. Returns true with the located features; false,
    /// with an empty list, for fewer than 10 features, a bad featureDistance or table, no seed
    /// cell, or a reference pattern without exactly one match.
    bool FindGridPositions(const CArray<CCalibrationPointFeatureDetect>& features, double featureDistance,
                           int reservedArgument, const ICalibrationImage* image);

    /// The located features: rating holds the squared distance to the eighth nearest neighbour.
    const CArray<CCalibrationPointFeatureDetect>& GetFeatures() const { return m_features; }

protected:
    /// Sorts by the squared distance to the eighth nearest neighbour (written to rating),
    /// ascending; false with 9 features or fewer.
    bool sortCalibrationFeatures();
    /// Sizes the table from the bounding box and featureDistance and fills it with -1.
    bool allocFeatureIDs();
    bool findGridPositions();
    bool findInitialFourGridPositions(CArray<CCalibrationPointFeatureDetect>& remaining,
                                      CArray<CCalibrationPointFeatureDetect>& located);
    bool findRemainingGridPositions(CArray<CCalibrationPointFeatureDetect>& remaining,
                                    CArray<CCalibrationPointFeatureDetect>& located);
    bool findReferencePatterndAdaptPositions(const bool* pattern, const CSize& size, const CPoint& origin);
    void freeFeatureIDs();
    void initFeatureIDs();

    /// Table entry of a grid position, -1 outside the table.
    int getFeatureIDFromGridPosition(int gridX, int gridY) const;
    /// Stores id; false when the position is outside the table or taken.
    bool setFeatureIDForGridPosition(int gridX, int gridY, int id);

    int* m_ids = nullptr;
    int m_tableSizeX = 0;
    int m_tableSizeY = 0;
    int m_tableOffsetX = 0;
    int m_tableOffsetY = 0;
    CArray<CCalibrationPointFeatureDetect> m_features;
    double m_featureDistance = 0.0;
    int m_reserved = -1;
    const bool* m_pattern = nullptr;
    CSize m_patternSize;
    CPoint m_patternOrigin;

private:
    friend struct detail::GridDrawingAccess;

    /// Index of the candidate in remaining nearest to the area's centre among those inside it
    /// (first in order among equals), or -1.
    static std::ptrdiff_t nearestInside(const CArray<CCalibrationPointFeatureDetect>& remaining,
                                        const NCRhomboidRoi& roi);
    /// Debugging overlay: a Bresenham line from (x0, y0) to (x1, y1) in value, with an optional
    /// '+' of half size 3 at the start and an optional arrow head (two strokes of length 10 at 30
    /// degrees to the line) at the end. Pixels outside the image are left out.
    static void drawLineBresenham(CCalibrationImage& image, int x0, int y0, int x1, int y1, float value,
                                  bool cross, bool arrow);
    /// Debugging overlay: replaces each pixel inside the area by 255 minus its value; with
    /// outlineOnly only those with u * u + v * v > 0.64.
    static void drawRhomboidRoi(CCalibrationImage& image, const NCRhomboidRoi& roi, bool outlineOnly);
};

} // namespace DataLayer
