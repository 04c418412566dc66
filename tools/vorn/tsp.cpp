#include "tsp.h"

#include <climits>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include "datalayer/algorithms/optimisation/ctspsolver.h"
#include "tools/vorn/tsplib/tsplibfile.h"

namespace {

struct TspOptions
{
    std::string file;
    int starts = 10;
    bool path = false;
    bool exact = false;
    std::string out;
};

int runTsp(const TspOptions& options)
{
    tsplib::Instance instance;
    try {
        instance = tsplib::ReadFile(options.file);
    } catch (const tsplib::TsplibError& e) {
        std::fprintf(stderr, "vorn tsp: %s: %s\n", options.file.c_str(), e.what());
        return 2;
    }
    const TMatrix<double> distances = tsplib::Distances(instance, options.exact);
    DataLayer::CTSPSolver solver;
    double length = 0.0;
    const DataLayer::CPMatrix tour = options.path ? solver.SolveHPP(distances, options.starts, length)
                                                  : solver.SolveTSP(distances, options.starts, length);
    if (tour.Size() == 0) {
        std::fprintf(stderr, "vorn tsp: %s: no tour found\n", options.file.c_str());
        return 1;
    }
    const int starts = options.starts < instance.Size() ? options.starts : instance.Size();
    const char* shape = options.path ? "open path" : "closed tour";
    std::printf("%s: %s through %d nodes, length %.10g (%d starts, %s distances)\n",
                instance.name.empty() ? options.file.c_str() : instance.name.c_str(), shape, instance.Size(),
                length, starts, options.exact ? "exact" : "TSPLIB rounded");
    if (!options.out.empty()) {
        std::ofstream out(options.out);
        char comment[128];
        std::snprintf(comment, sizeof comment, "%s of length %.10g by vorn tsp", shape, length);
        if (out)
            tsplib::WriteTour(out, instance.name.empty() ? "tour" : instance.name + ".tour", comment, tour);
        out.close();
        if (!out) {
            std::fprintf(stderr, "vorn tsp: cannot write %s\n", options.out.c_str());
            return 2;
        }
    }
    return 0;
}

} // namespace

VornCommand AddTspCommand(CLI::App& app)
{
    auto options = std::make_shared<TspOptions>();
    CLI::App* sub = app.add_subcommand(
        "tsp",
        "Short tour through the nodes of a TSPLIB EUC_2D file (nearest neighbour + 2-opt, multistart)");
    sub->add_option("FILE", options->file, "TSPLIB file: TYPE TSP, EDGE_WEIGHT_TYPE EUC_2D")->required();
    sub->add_option("--starts", options->starts,
                    "Random start nodes, each a nearest-neighbour tour improved by 2-opt (at most the node "
                    "count is used)")
        ->check(CLI::Range(1, INT_MAX))
        ->capture_default_str();
    sub->add_flag("--path", options->path, "Open path (Hamiltonian path) instead of a closed tour");
    sub->add_flag("--exact", options->exact, "Plain Euclidean distances instead of TSPLIB's nint rounding");
    sub->add_option("--out", options->out, "Write the tour to this file in TSPLIB TOUR format");
    return {sub, [options] { return runTsp(*options); }};
}
