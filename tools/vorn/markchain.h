#pragma once
// The calibration chain as the `vorn` tool runs it: Hough detection, grid positions and Zhou
// sub-pixel refinement of one grey picture, with the tool's recommended settings
// (marksettings.h). `vorn calibrate` runs it on a picture file and `vorn demo` on a rendered
// target. Plain functions: nothing is kept between calls, and the caller owns every argument.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "core/framework/carray.h"
#include "datalayer/algorithms/calibration/ccalibrationimage.h"
#include "datalayer/algorithms/calibration/ccalibrationpointfeaturedetect.h"

struct MarkChainOptions
{
    double diameter = 0.0;     ///< nominal mark diameter, pixels
    double distance = 0.0;     ///< nominal distance of neighbouring marks, pixels
    int downsize = 0;          ///< downsize factor of the detection; 0 chooses it from the diameter
    int radiusDivisor = 1;     ///< radius range of the detection: radius / radiusDivisor
    bool rings = false;        ///< ring marks
    bool bright = false;       ///< marks brighter than the ground
    std::vector<bool> pattern; ///< reference pattern row by row ('x' true); empty for none
    int patternColumns = 0;
    int patternRows = 0;
    int originX = 0; ///< grid coordinate of the pattern's top-left cell
    int originY = 0;
};

struct MarkChainResult
{
    CArray<DataLayer::CCalibrationPointFeatureDetect> marks; ///< located marks with grid coordinates
    std::ptrdiff_t detected = 0;                             ///< marks found by the Hough detector
    std::ptrdiff_t gridded = 0;                              ///< marks given grid coordinates
    double houghSeconds = 0.0;
    double gridSeconds = 0.0;
    double refineSeconds = 0.0;
    std::string failure; ///< one-line reason when the chain found nothing
};

/// Copies a row-major grey picture into `image`; false if the size is not supported.
bool FillCalibrationImage(const float* grey, int width, int height, DataLayer::CCalibrationImage& image);

/// Runs the three stages. False, with `result.failure` set, when a stage found nothing.
bool RunMarkChain(const DataLayer::CCalibrationImage& image, const MarkChainOptions& options,
                  MarkChainResult& result);

/// Reads a reference pattern file: one line per grid row, 'x' for a mark and '.' for none; empty
/// lines at the end are ignored and all rows must have the same length. False with a message.
bool ReadMarkPattern(const std::string& path, MarkChainOptions& options, std::string& error);

/// Writes the CSV header `gridX,gridY,posX,posY,radius,rating,sigmaTotal,centerOffset` and one
/// row per mark. False if the stream reports an error.
bool WriteMarkCsv(std::FILE* out, const CArray<DataLayer::CCalibrationPointFeatureDetect>& marks);

/// Writes a colour PNG of the grey picture with each mark's circle, centre and grid coordinates.
bool WriteMarkOverlay(const std::string& path, const std::uint8_t* grey, int width, int height,
                      const CArray<DataLayer::CCalibrationPointFeatureDetect>& marks, std::string& error);
