// Fuzzes the TSPLIB reader with arbitrary bytes; instances it accepts (up to 64 nodes, to keep runs
// fast) go on through both solver modes, whose tours must be permutations.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "datalayer/algorithms/optimisation/ctspsolver.h"
#include "tools/vorn/tsplib/tsplibfile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
    tsplib::Instance instance;
    try {
        instance = tsplib::Read(in);
    } catch (const tsplib::TsplibError&) {
        return 0;
    }
    const int n = instance.Size();
    if (n < 1 || n > 64)
        return 0;
    for (bool exact : {false, true}) {
        const TMatrix<double> distances = tsplib::Distances(instance, exact);
        DataLayer::CTSPSolver solver;
        double length = 0.0;
        for (bool path : {false, true}) {
            const DataLayer::CPMatrix tour =
                path ? solver.SolveHPP(distances, 3, length) : solver.SolveTSP(distances, 3, length);
            std::vector<char> seen(static_cast<std::size_t>(n), 0);
            if (tour.Size() != n)
                std::abort();
            for (int k = 0; k < n; ++k) {
                if (tour[k] < 0 || tour[k] >= n || seen[static_cast<std::size_t>(tour[k])])
                    std::abort();
                seen[static_cast<std::size_t>(tour[k])] = 1;
            }
        }
    }
    return 0;
}
