#pragma once
// `vorn demo`: shows the library at work on a small built-in problem and prints the results.
#include "command.h"

VornCommand AddDemoCommand(CLI::App& app);
