#pragma once
// `vorn render-target`: renders a synthetic calibration-target photograph with known truth and
// writes the picture, the truth as CSV and the reference pattern.
#include "command.h"

VornCommand AddRenderTargetCommand(CLI::App& app);
