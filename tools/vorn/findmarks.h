#pragma once
// `vorn find-marks`: locates the circular marks of a calibration target in a picture file with the
// Hough detector and the grid position finder, and prints each mark as CSV gridX,gridY,x,y,radius.
#include "command.h"

VornCommand AddFindMarksCommand(CLI::App& app);
