#pragma once
// `vorn distance MASK --metric E|M|C [--out DIST.png] [--threshold T]`: the distance of every pixel
// of a picture to the nearest feature pixel (grey value at or above the threshold), printed as its
// maximum and optionally written as a 16-bit grey PNG. Exits 1 when the picture has no feature
// pixel (nothing is written then), 2 for bad usage, an unreadable picture or a failed write.
#include "command.h"

VornCommand AddDistanceCommand(CLI::App& app);
