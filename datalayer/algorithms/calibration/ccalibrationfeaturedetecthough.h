#pragma once
// DataLayer::CCalibrationFeatureDetectHough: finds the circular marks of a calibration target in a
// grey image by a gradient-directed circular Hough transform on a downsized copy, and reports for
// each mark a sub-pixel centre, a radius (both in source pixels) and a rating (the peak value of
// the normalised, filtered vote plane, the strongest raw column at 255). Marks are discs or rings
// (inner radius half the outer), darker or brighter than their ground. Records come out in falling
// peak order with gridX = gridY = -1; the other fields keep their defaults.
//
// Ownership: owns the working image, the accumulator (width x height x depth doubles, kept until
// the next run or the destructor), the plane and the features. It borrows the two filter kernels
// given to SetFilters (the caller keeps them alive through every FindFeatures) and reads the image
// only during FindFeatures. Threads: one object serves one thread at a time.
//
// Choices where the behaviour was open:
// - limitNeighbourPeak starts at 0.5, like the other two limits.
// - FindFeatures clears the features first, so a failed run never reports an earlier run's marks.
// - Bad arguments answer false before any work: downSizeFactor or radiusDivisor below 1, a
//   featureDiameter or featureDistance that is not a positive finite number, a distance so small
//   that its square vanishes, or an accumulator whose size overflows or can't be allocated.
// - Pixels with a zero gradient cast votes of 0, which change no cell; they are skipped when both
//   kernels are finite, which leaves every result bit for bit as it is.
// - The peak search gives exactly the scan-order result of repeated full scans, but works from a
//   sorted list of the plane's local maxima and a bucket grid of the accepted features.

#include <cstddef>

#include "core/framework/carray.h"
#include "datalayer/algorithms/calibration/ccalibrationimage.h"
#include "datalayer/algorithms/calibration/ccalibrationpointfeaturedetect.h"

namespace DataLayer {

class CCalibrationFeatureDetectHough
{
public:
    CCalibrationFeatureDetectHough();
    CCalibrationFeatureDetectHough(const CCalibrationFeatureDetectHough&) = delete;
    CCalibrationFeatureDetectHough& operator=(const CCalibrationFeatureDetectHough&) = delete;
    ~CCalibrationFeatureDetectHough();

    /// limitFirstPeak: fraction of the first peak that every later peak must exceed;
    /// limitLastPeak: fraction of the previous peak that the next must exceed; limitNeighbourPeak:
    /// fraction of the rating of an accepted feature within 1.5 grid distances that a peak must
    /// reach. Defaults 0.5, 0.5, 0.5.
    void SetDetectionLimits(double limitFirstPeak, double limitLastPeak, double limitNeighbourPeak);
    /// Kernels of (2k+1) x (2k+1) doubles, row by row, for spreading each vote and for smoothing
    /// the summed plane. A null pointer (or a negative half size) selects the unit kernel with half
    /// size 0. Not copied: the memory must stay valid through each FindFeatures.
    void SetFilters(const double* voteFilter, int voteHalfSize, const double* planeFilter, int planeHalfSize);

    /// The detection. featureDiameter and featureDistance are the nominal mark diameter and grid
    /// spacing in source pixels; the image is reduced by downSizeFactor (block means of the valid
    /// pixels) and radii are searched within centreRadius +- ceil(centreRadius / radiusDivisor)
    /// downsized pixels. reservedArgument is stored and has no effect. Returns true when at least
    /// one mark was found; false for bad arguments (see above), an image smaller than the factor,
    /// no peak, or when refinement removed every peak.
    bool FindFeatures(const ICalibrationImage& image, double featureDiameter, double featureDistance,
                      int downSizeFactor, bool ringFeatures, bool darkFeatures, int radiusDivisor,
                      int reservedArgument);

    /// The records of the last run.
    const CArray<CCalibrationPointFeatureDetect>& GetFeatures() const { return m_features; }

protected:
    /// Releases old arrays and allocates the accumulator and the plane for the current extents.
    bool allocHoughSpace();
    /// Sets every cell of the accumulator and the plane.
    bool initHoughSpace(double value);
    void freeHoughSpace();
    /// Gradients of the working image and the votes of every pixel whose magnitude exceeds
    /// minGradient, spread by the given kernel.
    bool setupHoughSpace(float minGradient, const double* filter, int halfSize);
    /// Spreads one vote bilinearly (and over the kernel) into the given layer.
    void addValueToHoughSpace(double& x, double& y, int& layer, float& value, const double* filter,
                              const int& halfSize);
    /// Sums the layers, normalises the strongest column to 255 and filters the plane.
    bool calcPlanarHough(const double* filter, int halfSize);
    /// Takes peaks in falling order under the three limits (distances in downsized pixels).
    bool findFeaturesInHoughSpace(double minDistance, double maxDistance, double limitLastPeak,
                                  double limitFirstPeak, double limitNeighbourPeak);
    /// Parabola refinement of column, row and radius; removes peaks at the rim of the plane or of
    /// the radius range.
    bool refine2DPositionAndSetRadius();
    /// Positions and radii back to source pixels.
    void upsizeSingleCalibrationFeatures();

    // Accumulator cell of column x, row y, layer l, and plane cell of column x, row y. Both are
    // stored layer by layer and row by row, the column running fastest: a vote and its neighbours
    // of the next pixel then land close together in memory, which keeps the voting cache-friendly.
    // The layout changes no value: every cell receives the same additions in the same order.
    std::size_t accIndex(int x, int y, int layer) const
    {
        return (static_cast<std::size_t>(layer) * static_cast<std::size_t>(m_houghHeight) +
                static_cast<std::size_t>(y)) *
                   static_cast<std::size_t>(m_houghWidth) +
               static_cast<std::size_t>(x);
    }
    std::size_t planeIndex(int x, int y) const
    {
        return static_cast<std::size_t>(y) * static_cast<std::size_t>(m_houghWidth) +
               static_cast<std::size_t>(x);
    }

    double m_unitKernel = 1.0;
    const double* m_voteFilter;
    int m_voteFilterHalfSize = 0;
    const double* m_planeFilter;
    int m_planeFilterHalfSize = 0;
    double m_limitFirstPeak = 0.5;
    double m_limitLastPeak = 0.5;
    double m_limitNeighbourPeak = 0.5;
    CCalibrationImage m_image;
    int m_downSizeFactor = 1;
    int m_sourceWidth = -1;
    int m_sourceHeight = -1;
    int m_downSizedWidth = -1;
    int m_downSizedHeight = -1;
    double m_scaledDiameter = -1.0;
    double m_scaledDistance = -1.0;
    bool m_ringFeatures = false;
    bool m_darkFeatures = true;
    double m_centreRadius = -1.0;
    int m_radiusHalfRange = -1;
    int m_houghWidth = -1;
    int m_houghHeight = -1;
    int m_houghDepth = -1;
    double* m_accumulator = nullptr;
    double* m_plane = nullptr;
    CArray<CCalibrationPointFeatureDetect> m_features;
    int m_reserved = -1;
};

} // namespace DataLayer
