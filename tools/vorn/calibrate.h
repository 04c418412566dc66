#pragma once
// `vorn calibrate`: locates the marks of a calibration target in a picture (Hough detection, grid
// positions and Zhou sub-pixel refinement) and writes them as CSV, optionally with an overlay.
#include "command.h"

VornCommand AddCalibrateCommand(CLI::App& app);
