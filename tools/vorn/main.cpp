// vorn: the Vorn2 algorithms library on the command line.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "calibrate.h"
#include "command.h"
#include "demo.h"
#include "distance.h"
#include "graph.h"
#include "raster.h"
#include "register.h"
#include "rendertarget.h"
#include "roots.h"
#include "tsp.h"

int main(int argc, char** argv)
{
    CLI::App app{"vorn: the Vorn2 algorithms library on the command line"};
    app.set_version_flag("--version", std::string("vorn ") + VORN2_VERSION);
    app.require_subcommand(1);
    // One line per subcommand, in the order of `vorn --help`.
    // clang-format off
    const std::vector<VornCommand> commands = {
        AddDemoCommand(app),
        AddTspCommand(app),
        AddRenderTargetCommand(app),
        AddRootsCommand(app),
        AddRasterCommand(app),
        AddRegisterCommand(app),
        AddDistanceCommand(app),
        AddGraphCommand(app),
        AddCalibrateCommand(app),
    };
    // clang-format on
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // Usage errors exit with 2; --help and --version with 0.
        const int code = app.exit(e);
        return code == 0 ? 0 : 2;
    }
    for (const VornCommand& command : commands) {
        if (!command.subcommand->parsed())
            continue;
        try {
            return command.run();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "vorn %s: %s\n", command.subcommand->get_name().c_str(), e.what());
            return 2;
        }
    }
    return 2;
}
