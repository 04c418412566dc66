// vorn: command-line access to the Vorn2 algorithms library.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "vorn2_algorithms.h"

int main(int argc, char** argv)
{
    CLI::App app{"vorn: the Vorn2 algorithms library on the command line"};
    app.set_version_flag("--version", std::string("vorn ") + VORN2_VERSION);
    app.require_subcommand(1);
    app.add_subcommand("demo", "Show the numeric core on a small built-in problem");
    CLI11_PARSE(app, argc, argv);
    return 0;
}
