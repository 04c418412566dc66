#pragma once
// `vorn demo`: renders a built-in calibration target with known truth, runs the calibration chain
// on it, prints found and expected marks, the centre error and the time of each stage, and
// writes the overlay and the CSV (by default under build/demo/).
#include "command.h"

VornCommand AddDemoCommand(CLI::App& app);
