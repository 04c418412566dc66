#pragma once
// `vorn tsp FILE.tsp [--starts N] [--path] [--exact] [--out TOUR]`: a short closed tour (or, with
// --path, an open path) through the nodes of a TSPLIB EUC_2D file. Prints the length; --out writes the
// tour in TSPLIB TOUR format. Distances are rounded as TSPLIB defines them unless --exact is given.
// Exit codes: 0 success, 2 bad usage, an unreadable or malformed file, or an unwritable output.
#include "command.h"

VornCommand AddTspCommand(CLI::App& app);
