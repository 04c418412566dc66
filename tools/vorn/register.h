#pragma once
// `vorn register`: the rigid motion that best maps the points of one file onto those of another
// (least squares, CTrafo::LeastSquaresFit). Each file holds one point per line, "x y z".
#include "command.h"

VornCommand AddRegisterCommand(CLI::App& app);
