#pragma once
// DataLayer::CCalibrationFeatureRefinementZhou: moves each detected circular mark of a
// calibration target from its rough position to a sub-pixel centre, and grades it.
//
// The midpoints of parallel chords of an ellipse (a circle seen in perspective) lie on one line;
// two such lines, one through the midpoints of column chords and one through those of row chords,
// cross at the centre. Each chord end is found by a moment-preserving 1-D edge locator, the two
// lines by a robust (Tukey biweight) fit, and two nested iterations with cycle detection repeat the
// search until the position stops changing or starts to cycle. Ring marks (a ring with a centre of
// the opposite polarity and half the radius) refine their outer and inner circle separately.
//
// Ownership: the object owns its copy of the features. It borrows the image (for one
// RefineFeatures call and until the next) and the centre pixel calculator (until it is replaced);
// the caller keeps both alive. Threads: none inside; one object serves one thread at a time, and
// the image is only read.
//
// Failure: a mark that can't be refined is dropped without a message; RefineFeatures fails only
// when none is left. Choices where the behaviour was open:
// - A mark whose radius is not a finite positive number, or whose position is not finite, is
//   dropped. Pixel ranges and window positions are computed in double and clipped before they
//   become integers, so no input overflows an int.
// - An edge window that holds a pixel equal to the image's invalid value, or a non-finite pixel,
//   fails that edge search (missing data never poses as an edge); that chord is skipped.
// - An edge window needs at least three samples: a half line length below 1 fails every search.
// - The moments of an edge window are taken relative to its first sample (central moments don't
//   change with the shift), which avoids the raw-moment formula's cancellation at large grey
//   levels.
// - SetCenterPixelCalculator(nullptr) restores the default calculator.
// - fitLineRobust fails for non-finite points, for negative or non-finite weights, and when a
//   weighted system is degenerate (det <= 1e-14 * Sw * Swxx); it never throws. A reweighted round
//   whose kept points lie exactly on their line (new variance 0) ends the fit with sigma 0 rather
//   than failing, so that noise-free chords (all midpoints on one pixel row) don't lose a mark.
// - The next edge window is centred on the pixel that holds the edge found, trunc(position + 0.5),
//   the library's rounding to a pixel. Truncating instead would shift every window towards lower
//   coordinates and pull both ends of a chord the same way (several hundredths of a pixel on
//   blurred marks with short windows).
// - Perspective. The chord midpoints meet at the centre of the projected ellipse, which under
//   perspective is not the projection of the mark's centre. When the features carry a lattice
//   (at least six surviving features with pairwise distinct gridX, gridY, not all on one line, and
//   a plane homography from grid to picture that fits them to 1 px RMS), RefineFeatures fits that
//   homography to the refined centres and moves each centre by the difference between the
//   projected circle's ellipse centre and its projected centre (for rings, combined with the same
//   2:1 weights as the two circles). Otherwise, and with SetPerspectiveCorrection(false), the
//   positions are the plain chord-midpoint results.

#include <cstdint>
#include <vector>

#include "core/base/lbarray.h"
#include "core/base/lbvector.h"
#include "core/framework/carray.h"
#include "datalayer/algorithms/calibration/ccalibrationimage.h"
#include "datalayer/algorithms/calibration/ccalibrationpointfeaturedetect.h"
#include "datalayer/algorithms/calibration/icalibrationimage.h"
#include "datalayer/algorithms/calibration/icenterpixelcalculator.h"

namespace DataLayer {

class CCalibrationFeatureRefinementZhou
{
public:
    using ICenterPixelCalculator = DataLayer::ICenterPixelCalculator;

    /// The default centre of a chord: the arithmetic mean (first + second) / 2, per component.
    class NCCenterPixelCalculatorDummy : public ICenterPixelCalculator
    {
    public:
        LbVector2d CalcCenter(const LbVector2d& first, const LbVector2d& second) const override;
    };

    /// A refined position: x, y in pixels and the residuals of the two chord-midpoint line fits.
    struct sFeaturePosition
    {
        double x = 0.0;
        double y = 0.0;
        double sigmaColumns = 0.0;
        double sigmaRows = 0.0;
    };

    /// One chord end: the pixel on which the next edge search is centred and the sub-pixel edge.
    struct sEdgePosition
    {
        int pixelX = 0;
        int pixelY = 0;
        double x = 0.0;
        double y = 0.0;
    };

    CCalibrationFeatureRefinementZhou() = default;
    /// Copies take the settings and features; a copy that used the default calculator uses its
    /// own default, a borrowed calculator stays borrowed.
    CCalibrationFeatureRefinementZhou(const CCalibrationFeatureRefinementZhou& other);
    CCalibrationFeatureRefinementZhou& operator=(const CCalibrationFeatureRefinementZhou& other);
    virtual ~CCalibrationFeatureRefinementZhou() = default;

    /// Marks with centerOffset above maxCenterOffset or sigmaTotal above maxSigma (both in pixels)
    /// are dropped; the defaults (the largest double) drop nothing.
    void SetLimits(double maxCenterOffset, double maxSigma);
    /// Lower bound of the half length of an edge search window, in pixels (default 6).
    void SetHalfLineLengthMin(int halfLineLengthMin);
    /// The chord centre strategy; borrowed, must outlive the refinement. Null restores the default.
    void SetCenterPixelCalculator(const ICenterPixelCalculator* calculator);
    /// Switches the perspective correction of the centres on (default) or off; see the header.
    void SetPerspectiveCorrection(bool enabled) { m_perspectiveCorrection = enabled; }
    bool GetPerspectiveCorrection() const { return m_perspectiveCorrection; }
    /// True if the last RefineFeatures applied the perspective correction.
    bool IsPerspectiveCorrected() const { return m_perspectiveCorrected; }

    /// Refines every feature (posX, posY in full-size image pixels, radius in pixels) on the
    /// image. ringFeatures: marks are rings with a centre of half the radius and the opposite
    /// polarity; darkFeatures: the (outer) mark is darker than its ground. reservedArgument is
    /// stored and has no effect. Replaces the features of an earlier run. Returns true if at least
    /// one feature survives; GetFeatures then holds the survivors in their input order, with
    /// posX, posY, the offsets and sigmas written and radius, gridX, gridY, rating unchanged.
    bool RefineFeatures(const ICalibrationImage& image,
                        const CArray<CCalibrationPointFeatureDetect>& features, bool ringFeatures,
                        bool darkFeatures, int reservedArgument);
    /// The features that survived the last run (empty before the first).
    const CArray<CCalibrationPointFeatureDetect>& GetFeatures() const { return m_features; }

protected:
    /// Iterates calcZhou from start until the position repeats (true, result = the mean over
    /// the cycle), runs away by radius / 4 or more, a step fails, or 100 rounds pass (false).
    bool refineSinglePosition(const sFeaturePosition& start, sFeaturePosition& result, double radius,
                              int halfLine, bool dark);
    /// One step of the chord-midpoint method from position; angle bounds the chords to
    /// radius * sin(angle) either side of the centre. False if too few chords or a fit fails.
    bool calcZhou(sFeaturePosition& position, double radius, int halfLine, double angle, bool dark);
    /// Iterates calcEdgePoint until its window returns to a pixel it was centred on (true, edge
    /// = the mean over the cycle), moves 2 * halfLine or more, a search fails, or 100 rounds pass.
    bool calcEdgePointIter(sEdgePosition& edge, int halfLine, bool horizontal, bool rising);
    /// One edge search in the 2 * halfLine + 1 samples along the row (horizontal) or column
    /// through the edge's pixel; rising says whether the profile rises in the search direction.
    bool calcEdgePoint(sEdgePosition& edge, int halfLine, bool horizontal, bool rising);
    /// Cycle detection for positions: true (and result the cycle mean, sigmas as root mean
    /// squares) if an entry of history lies closer than tolerance; else appends position.
    bool checkPositionHistory(const sFeaturePosition& position, CArray<sFeaturePosition>& history,
                              sFeaturePosition& result, double tolerance);
    /// Cycle detection for edges by pixel: true (result.x, result.y the cycle mean) if an entry of
    /// history has the same pixel; else appends edge.
    bool checkEdgeHistory(const sEdgePosition& edge, CArray<sEdgePosition>& history, sEdgePosition& result);
    /// True if the sub-pixel positions lie closer than tolerance (Euclidean distance).
    bool checkPositionDeviation(const sFeaturePosition& a, const sFeaturePosition& b, double tolerance) const;
    bool checkEdgeDeviation(const sEdgePosition& a, const sEdgePosition& b, double tolerance) const;
    /// Fits y = slope * x + intercept by iteratively reweighted least squares with the Tukey
    /// biweight (constant 4.6851). weights (one per point, may be null) multiply the Tukey weights;
    /// sigma receives the root of the final weighted mean squared residual, meanWeight the mean
    /// weight (either may be null). Fails (false) for fewer than two points, weights of another
    /// length, all x equal, or a degenerate reweighted system; never throws.
    bool fitLineRobust(const LbArray<LbVector2d>& points, const LbArray<double>* weights, double& slope,
                       double& intercept, double* sigma, double* meanWeight);

    /// Fits the grid-to-picture homography to the refined features and removes the perspective
    /// offset of each centre; false (features unchanged) when the features carry no usable lattice.
    bool correctPerspective();

    /// The moment-preserving edge locator (Tabatabai and Mitchell) on n samples of a rising step:
    /// position receives the edge in sample indices (sample i covers i - 0.5 .. i + 0.5). False
    /// for a flat or degenerate window (no variance, or a NaN on the way).
    static bool locateMomentEdge(const float* samples, int n, double& position);

private:
    /// Reads the window samples, false if one is invalid or not finite.
    bool readWindow(int fixed, int start, int n, bool horizontal, float sign, float* samples) const;

    CArray<CCalibrationPointFeatureDetect> m_features;
    const ICalibrationImage* m_image = nullptr;
    bool m_ringFeatures = false;
    bool m_darkFeatures = true;
    int m_imageWidth = -1;
    int m_imageHeight = -1;
    double m_maxCenterOffset = 1.7976931348623157e+308;
    double m_maxSigma = 1.7976931348623157e+308;
    int m_halfLineLengthMin = 6;
    int m_reserved = -1;
    NCCenterPixelCalculatorDummy m_defaultCalculator;
    const ICenterPixelCalculator* m_calculator = &m_defaultCalculator;
    bool m_perspectiveCorrection = true;
    bool m_perspectiveCorrected = false;
    // The image again when it is exactly a CCalibrationImage, whose GetPixel is then called
    // without the virtual dispatch (same values); null otherwise.
    const CCalibrationImage* m_concreteImage = nullptr;
    float m_invalidValue = 0.0f;
    // Working storage of the edge and chord searches, kept between calls so that the inner loops
    // don't allocate; never copied, never part of the results. The edge cache holds the results
    // of calcEdgePoint for the circle that refineSinglePosition is working on (entries of other
    // generations are stale); generation 0 means no cache.
    struct SEdgeCacheEntry
    {
        int pixelX;
        int pixelY;
        unsigned flags;
        unsigned generation;
        bool found;
        double position;
    };
    static void applyEdge(sEdgePosition& edge, double position, bool horizontal);
    CArray<sEdgePosition> m_edgeHistory;
    LbArray<LbVector2d> m_points;
    std::vector<SEdgeCacheEntry> m_edgeCache;
    unsigned m_cacheGeneration = 0;
    unsigned m_cacheCounter = 0;
};

} // namespace DataLayer
