// vorn: the Vorn2 algorithms library on the command line.
#include <CLI/CLI.hpp>
#include <string>

#include "demo.h"

int main(int argc, char** argv)
{
    CLI::App app{"vorn: the Vorn2 algorithms library on the command line"};
    app.set_version_flag("--version", std::string("vorn ") + VORN2_VERSION);
    app.require_subcommand(1);
    CLI::App* demo = app.add_subcommand("demo", "Show the library at work on a small built-in problem");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // Usage errors exit with 2; --help and --version with 0.
        const int code = app.exit(e);
        return code == 0 ? 0 : 2;
    }
    if (demo->parsed())
        return RunDemo();
    return 2;
}
