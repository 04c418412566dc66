#pragma once
// `vorn graph FILE [--dot OUT.dot] [--scc] [--rcm]`: reads a directed graph in its text form, prints
// node, edge and component counts, optionally writes GraphViz and the bandwidth before and after the
// reverse Cuthill-McKee numbering.
#include "command.h"

VornCommand AddGraphCommand(CLI::App& app);
