#pragma once
// Shared helpers of the test suite: seeded random inputs and the location of the reference data.
#include <initializer_list>
#include <random>
#include <string>

#include "datalayer/algorithms/numeric/tmatrix.h"
#include "datalayer/algorithms/numeric/tvector.h"

namespace vorn2test {

/// Directory of the public reference data (shared/anchors beside the repository).
std::string AnchorsDir();

/// rows x cols matrix of uniform values in [-1, 1] from the given engine.
TMatrix<double> RandomMatrix(std::mt19937_64& engine, int rows, int cols);
/// n uniform values in [-1, 1].
TVector<double> RandomVector(std::mt19937_64& engine, int n);

/// A vector written out in the test: Vec({1, 2, 3}).
TVector<double> Vec(std::initializer_list<double> values);
/// A matrix written out row by row: Mat({{1, 2}, {3, 4}}).
TMatrix<double> Mat(std::initializer_list<std::initializer_list<double>> rows);

} // namespace vorn2test
