#pragma once
// Recommended settings for locating the marks of a calibration target with the Hough detector and
// the grid position finder, as `vorn calibrate` and `vorn demo` use them. The classes
// themselves keep their own defaults (all limits 0.5); these values were chosen on rendered
// targets (blur 1 px, noise 2 grey levels, mark diameter 20 px, spacing 50 px) so that every mark
// is found under moderate tilt, under a tilt where the mark size varies threefold across the
// picture, and under lighting where the weakest mark keeps 60 % of the strongest one's contrast:
// - low peak limits, because near marks vote far more strongly than far or dim ones;
// - a radius divisor of 1, so the radius range reaches from 0 to twice the nominal radius;
// - a downsize factor that brings the nominal diameter to about 10 pixels;
// - a detector distance of 0.6 times the nominal spacing, so that the closest neighbours of a
//   foreshortened target are still further apart than its minimum distance (distance / 1.5);
// - the grid finder gets the nominal spacing, which only sizes its table.
// Without a reference pattern these settings also pick up noise peaks; with the target's pattern
// a picture without the target, with too few marks or of the wrong polarity fails as it should.
#include <algorithm>
#include <cmath>

struct MarkDetectionSettings
{
    double limitFirstPeak = 0.1;
    double limitLastPeak = 0.2;
    double limitNeighbourPeak = 0.2;
    int radiusDivisor = 1;
    double detectionDistanceFactor = 0.6;

    /// Downsize factor for a nominal mark diameter in pixels: the diameter becomes about 10 pixels.
    static int DownSizeFactor(double diameter)
    {
        if (!(diameter > 15.0))
            return 1;
        return static_cast<int>(std::min(64.0, std::round(diameter / 10.0)));
    }
};
