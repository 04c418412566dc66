#include "tsplibfile.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace tsplib {

namespace {

std::string trim(const std::string& s)
{
    const char* space = " \t\r\n\f\v";
    const std::size_t first = s.find_first_not_of(space);
    if (first == std::string::npos)
        return std::string();
    return s.substr(first, s.find_last_not_of(space) - first + 1);
}

[[noreturn]] void fail(int line, const std::string& what)
{
    throw TsplibError("line " + std::to_string(line) + ": " + what);
}

bool parseDouble(const std::string& token, double& value)
{
    if (token.empty())
        return false;
    char* end = nullptr;
    errno = 0;
    value = std::strtod(token.c_str(), &end);
    return end == token.c_str() + token.size() && errno != ERANGE && std::isfinite(value);
}

bool parseInt(const std::string& token, long long& value)
{
    if (token.empty())
        return false;
    char* end = nullptr;
    errno = 0;
    value = std::strtoll(token.c_str(), &end, 10);
    return end == token.c_str() + token.size() && errno != ERANGE;
}

} // namespace

Instance Read(std::istream& in)
{
    Instance instance;
    int dimension = 0;
    std::string type;
    std::string weightType;
    std::string raw;
    int line = 0;
    bool inNodes = false;
    int nodesRead = 0;
    std::vector<char> seen;
    while (std::getline(in, raw)) {
        ++line;
        const std::string text = trim(raw);
        if (text.empty())
            continue;
        if (text == "EOF")
            break;
        if (inNodes) {
            std::istringstream tokens(text);
            std::string idText, xText, yText, extra;
            tokens >> idText >> xText >> yText;
            long long id = 0;
            double x = 0.0;
            double y = 0.0;
            if (!parseInt(idText, id) || !parseDouble(xText, x) || !parseDouble(yText, y) ||
                (tokens >> extra))
                fail(line, "expected \"id x y\" with finite coordinates, got \"" + text + "\"");
            if (id < 1 || id > dimension)
                fail(line, "node " + idText + " outside 1.." + std::to_string(dimension));
            if (seen[static_cast<std::size_t>(id - 1)])
                fail(line, "node " + idText + " given twice");
            seen[static_cast<std::size_t>(id - 1)] = 1;
            instance.x[static_cast<std::size_t>(id - 1)] = x;
            instance.y[static_cast<std::size_t>(id - 1)] = y;
            ++nodesRead;
            continue;
        }
        const std::size_t colon = text.find(':');
        const std::string key = trim(text.substr(0, colon));
        const std::string value = colon == std::string::npos ? std::string() : trim(text.substr(colon + 1));
        if (key == "NAME") {
            instance.name = value;
        } else if (key == "TYPE") {
            type = value;
            if (type != "TSP")
                fail(line, "TYPE " + value + " is not supported (only TSP)");
        } else if (key == "DIMENSION") {
            long long n = 0;
            if (!parseInt(value, n) || n < 1 || n > kMaxDimension)
                fail(line, "DIMENSION must be a whole number from 1 to " + std::to_string(kMaxDimension) +
                               ", got \"" + value + "\"");
            dimension = static_cast<int>(n);
        } else if (key == "EDGE_WEIGHT_TYPE") {
            weightType = value;
            if (weightType != "EUC_2D")
                fail(line, "EDGE_WEIGHT_TYPE " + value + " is not supported (only EUC_2D)");
        } else if (key == "NODE_COORD_SECTION") {
            if (dimension == 0)
                fail(line, "NODE_COORD_SECTION before DIMENSION");
            if (weightType.empty())
                fail(line, "NODE_COORD_SECTION before EDGE_WEIGHT_TYPE");
            inNodes = true;
            instance.x.assign(static_cast<std::size_t>(dimension), 0.0);
            instance.y.assign(static_cast<std::size_t>(dimension), 0.0);
            seen.assign(static_cast<std::size_t>(dimension), 0);
        } else if (key.size() > 8 && key.compare(key.size() - 8, 8, "_SECTION") == 0) {
            fail(line, key + " is not supported");
        } else if (colon == std::string::npos || key.empty() ||
                   key.find_first_of(" \t") != std::string::npos) {
            fail(line, "expected \"KEY : value\", got \"" + text + "\"");
        }
        // Other keywords (COMMENT, CAPACITY, DISPLAY_DATA_TYPE, ...) don't matter here.
    }
    if (in.bad())
        throw TsplibError("read error after line " + std::to_string(line));
    if (!inNodes)
        throw TsplibError("no NODE_COORD_SECTION");
    if (nodesRead != dimension)
        throw TsplibError("NODE_COORD_SECTION has " + std::to_string(nodesRead) + " of " +
                          std::to_string(dimension) + " nodes");
    return instance;
}

Instance ReadFile(const std::string& path)
{
    std::ifstream file(path);
    if (!file)
        throw TsplibError("cannot open " + path);
    return Read(file);
}

TMatrix<double> Distances(const Instance& instance, bool exact)
{
    const int n = instance.Size();
    TMatrix<double> D(n, n);
    for (int j = 0; j < n; ++j)
        for (int i = j + 1; i < n; ++i) {
            const double dx =
                instance.x[static_cast<std::size_t>(i)] - instance.x[static_cast<std::size_t>(j)];
            const double dy =
                instance.y[static_cast<std::size_t>(i)] - instance.y[static_cast<std::size_t>(j)];
            const double distance = std::sqrt(dx * dx + dy * dy);
            D(i, j) = D(j, i) =
                exact ? distance : static_cast<double>(static_cast<long long>(distance + 0.5));
        }
    return D;
}

void WriteTour(std::ostream& out, const std::string& name, const std::string& comment,
               const DataLayer::CPMatrix& tour)
{
    out << "NAME : " << name << "\n";
    if (!comment.empty())
        out << "COMMENT : " << comment << "\n";
    out << "TYPE : TOUR\n";
    out << "DIMENSION : " << tour.Size() << "\n";
    out << "TOUR_SECTION\n";
    for (int k = 0; k < tour.Size(); ++k)
        out << tour[k] + 1 << "\n";
    out << "-1\nEOF\n";
}

} // namespace tsplib
