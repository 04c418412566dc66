#include "register.h"

#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "datalayer/algorithms/geometry/ctrafo.h"

namespace {

/// The points of a file, one "x y z" per line; blank lines and lines starting with '#' are
/// skipped. Throws std::runtime_error naming the file and line on anything else.
std::vector<kdtree::Vector<3>> readPoints(const std::string& path)
{
    std::ifstream in(path);
    if (!in)
        throw std::runtime_error("cannot read " + path);
    std::vector<kdtree::Vector<3>> points;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        const size_t first = line.find_first_not_of(" \t\r");
        if (first == std::string::npos || line[first] == '#')
            continue;
        std::istringstream fields(line);
        float x, y, z;
        std::string rest;
        if (!(fields >> x >> y >> z) || (fields >> rest))
            throw std::runtime_error(path + ":" + std::to_string(number) + ": expected \"x y z\"");
        points.emplace_back(x, y, z);
    }
    return points;
}

} // namespace

VornCommand AddRegisterCommand(CLI::App& app)
{
    CLI::App* sub =
        app.add_subcommand("register", "Least-squares rigid motion from the points of one file onto another");
    auto files = std::make_shared<std::pair<std::string, std::string>>();
    sub->add_option("from", files->first, "points to move, one \"x y z\" per line")->required();
    sub->add_option("to", files->second, "their partners, in the same order")->required();
    return {sub, [files]() {
                const std::vector<kdtree::Vector<3>> from = readPoints(files->first);
                const std::vector<kdtree::Vector<3>> to = readPoints(files->second);
                if (from.size() != to.size())
                    throw std::runtime_error("the files hold " + std::to_string(from.size()) + " and " +
                                             std::to_string(to.size()) + " points");
                const DataLayer::CTrafo t =
                    DataLayer::CTrafo::LeastSquaresFit(from.data(), to.data(), from.size(), nullptr);
                if (!t) {
                    std::printf(
                        "no unique motion: fewer than three points, or collinear or repeated points\n");
                    return 1;
                }
                double worst = 0;
                for (size_t i = 0; i < from.size(); ++i) {
                    const kdtree::Vector<3> d = t * from[i] - to[i];
                    worst = std::max(worst, static_cast<double>(d.Length()));
                }
                std::printf("rigid motion (4 x 4, to = R from + t):\n");
                t.Dump();
                const kdtree::Vector<3> angles = t.GetEulerAngles();
                std::printf("roll %.6f  pitch %.6f  yaw %.6f (radians)\n", angles[0], angles[1], angles[2]);
                std::printf("largest residual %.6g over %zu points\n", worst, from.size());
                return 0;
            }};
}
