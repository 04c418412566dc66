#pragma once
// `vorn raster`: the pixels a line segment passes through, one "x y" line each, end pixel included.
#include "command.h"

VornCommand AddRasterCommand(CLI::App& app);
