#include "raster.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <memory>

#include "datalayer/algorithms/geometry/clineraster.h"

VornCommand AddRasterCommand(CLI::App& app)
{
    CLI::App* sub =
        app.add_subcommand("raster", "Pixels that the segment from (x0, y0) to (x1, y1) passes through");
    auto ends = std::make_shared<std::array<double, 4>>();
    sub->add_option("x0", (*ends)[0], "first end point, x")->required();
    sub->add_option("y0", (*ends)[1], "first end point, y")->required();
    sub->add_option("x1", (*ends)[2], "second end point, x")->required();
    sub->add_option("y1", (*ends)[3], "second end point, y")->required();
    return {sub, [ends]() {
                for (double v : *ends)
                    if (!std::isfinite(v) || std::abs(v) > 1e9) {
                        std::printf("no pixels: coordinates must be finite and within 1e9\n");
                        return 1;
                    }
                DataLayer::CLineRaster raster((*ends)[0], (*ends)[1], (*ends)[2], (*ends)[3]);
                for (; raster; ++raster)
                    std::printf("%d %d\n", raster.x, raster.y);
                std::printf("%d %d\n", raster.xend, raster.yend);
                return 0;
            }};
}
