#pragma once
// Reading TSPLIB instances of type TSP with EUC_2D coordinates, their distance matrices, and writing
// tours in the TSPLIB TOUR format. Shared by `vorn tsp`, the TSPLIB benchmark and their tests (a
// static helper library, not part of the shared library's interface).
//
// Ownership: plain values; nothing is kept between calls. Threads: any, on distinct arguments.
// Failures throw TsplibError, whose message names the line and what is wrong with it.
//
// Accepted input: header lines "KEY : value" or "KEY: value" (NAME, TYPE, COMMENT, DIMENSION,
// EDGE_WEIGHT_TYPE and other keywords, which are ignored), then NODE_COORD_SECTION with one line
// "id x y" per node (ids 1..DIMENSION, each once, in any order; coordinates in any strtod form),
// ended by EOF or by the end of the file. Blank lines are skipped. TYPE must be TSP,
// EDGE_WEIGHT_TYPE must be EUC_2D, DIMENSION must lie in 1..kMaxDimension; any other section,
// a missing or extra node, an unparsable number or a coordinate that isn't finite is an error.
// FIXED_EDGES_SECTION (linhp318) is refused too: the solver has no way to honour fixed edges.
#include <istream>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "datalayer/algorithms/numeric/cpmatrix.h"
#include "datalayer/algorithms/numeric/tmatrix.h"

namespace tsplib {

class TsplibError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// Largest DIMENSION accepted: a dense distance matrix of this size takes 3.2 GB.
constexpr int kMaxDimension = 20000;

struct Instance
{
    std::string name;
    std::vector<double> x; ///< node i (0-based) is TSPLIB node i + 1
    std::vector<double> y;
    int Size() const { return static_cast<int>(x.size()); }
};

/// Parses a TSPLIB EUC_2D instance; throws TsplibError.
Instance Read(std::istream& in);
/// Reads the file at path; an unreadable file throws TsplibError "cannot open PATH".
Instance ReadFile(const std::string& path);

/// The n x n distance matrix: nint(sqrt(dx^2 + dy^2)) as TSPLIB defines EUC_2D, that is
/// (int)(sqrt(...) + 0.5), or the plain Euclidean distance when exact is true.
TMatrix<double> Distances(const Instance& instance, bool exact);

/// Writes a TOUR file: NAME, COMMENT (when not empty), TYPE : TOUR, DIMENSION, TOUR_SECTION with
/// the 1-based node numbers, -1, EOF.
void WriteTour(std::ostream& out, const std::string& name, const std::string& comment,
               const DataLayer::CPMatrix& tour);

} // namespace tsplib
