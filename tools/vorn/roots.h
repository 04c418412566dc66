#pragma once
// `vorn roots`: the complex roots of a polynomial of degree 2, 3 or 4 given by its coefficients,
// highest power first.
#include "command.h"

VornCommand AddRootsCommand(CLI::App& app);
