#pragma once
// DataLayer::CCalibrationPointFeatureDetect: the record in which the calibration stages pass one
// located mark along. The Hough detector fills posX, posY, radius and rating; the grid position
// finder sets gridX, gridY and overwrites rating with its sort key; the sub-pixel refinement moves
// posX, posY and fills the offset and sigma fields.
//
// Defaults: every field 0 except radius, which holds the most negative finite float widened to
// double (-3.4028234663852886e+38). Copies take every field.
//
// Archive form (little-endian, 88 bytes, nothing between the values, same order for writing and
// reading): radius, rating, posX, posY, centerOffsetX, centerOffsetY, centerOffset, sigmaColumns,
// sigmaRows, sigmaTotal as 8-byte doubles, then gridX and gridY as 4-byte signed integers.
//
// Ownership: a plain value. Threads: one thread at a time per record.

#include <cstdint>
#include <limits>

class CArchive;

namespace DataLayer {

class CCalibrationPointFeatureDetect
{
public:
    CCalibrationPointFeatureDetect() = default;
    CCalibrationPointFeatureDetect(const CCalibrationPointFeatureDetect& other) = default;
    CCalibrationPointFeatureDetect& operator=(const CCalibrationPointFeatureDetect& other) = default;
    virtual ~CCalibrationPointFeatureDetect();

    /// Writes the 88 bytes when the archive is storing, reads them when it is loading. An archive
    /// that ends early raises its own CArchiveException.
    virtual void Serialize(CArchive& archive);

    /// Three-way comparison of two records by rating, in the form that qsort takes: 1 when the
    /// first record's rating is greater, -1 when the second's is, else 0 (NaN ratings compare as
    /// equal to everything). Sorting with it gives ascending rating.
    static int FeatureCmp_temporary(const void* first, const void* second);

    /// Feature centre in pixels of the full-size image.
    double posX = 0.0;
    double posY = 0.0;
    /// Inner circle centre minus outer circle centre of a ring mark; 0 for a disc.
    double centerOffsetX = 0.0;
    double centerOffsetY = 0.0;
    /// Length of that difference.
    double centerOffset = 0.0;
    /// Residuals of the two robust chord-midpoint line fits, and the root of their squares' sum.
    double sigmaColumns = 0.0;
    double sigmaRows = 0.0;
    double sigmaTotal = 0.0;
    /// Integer grid column and row.
    std::int32_t gridX = 0;
    std::int32_t gridY = 0;
    /// Circle radius in pixels.
    double radius = static_cast<double>(std::numeric_limits<float>::lowest());
    /// Hough peak value, or the grid finder's sort key.
    double rating = 0.0;
};

// Implementation details follow: value operations that the calibration stages use internally.
namespace detail {

/// A default record with posX, posY multiplied by s and gridX, gridY set to trunc(grid * s).
/// A product outside the int range saturates at its limit (NaN gives 0).
CCalibrationPointFeatureDetect ScaledFeature(const CCalibrationPointFeatureDetect& a, double s);
/// A default record with posX, posY, gridX, gridY set to a - b (grid differences wrap in two's
/// complement instead of overflowing).
CCalibrationPointFeatureDetect FeatureDifference(const CCalibrationPointFeatureDetect& a,
                                                 const CCalibrationPointFeatureDetect& b);

} // namespace detail

} // namespace DataLayer
