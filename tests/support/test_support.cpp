#include "test_support.h"

// Sanitizer builds: let an impossible allocation throw std::bad_alloc, as it does without ASan,
// so that the tests of that path run the same either way.
extern "C" const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}

namespace vorn2test {

std::string AnchorsDir()
{
    return VORN2_ANCHORS_DIR;
}

TMatrix<double> RandomMatrix(std::mt19937_64& engine, int rows, int cols)
{
    std::uniform_real_distribution<double> uniform(-1.0, 1.0);
    TMatrix<double> a(rows, cols);
    for (int c = 0; c < cols; ++c)
        for (int r = 0; r < rows; ++r)
            a(r, c) = uniform(engine);
    return a;
}

TVector<double> RandomVector(std::mt19937_64& engine, int n)
{
    std::uniform_real_distribution<double> uniform(-1.0, 1.0);
    TVector<double> v(n);
    for (int i = 0; i < n; ++i)
        v[i] = uniform(engine);
    return v;
}

TVector<double> Vec(std::initializer_list<double> values)
{
    TVector<double> v(static_cast<int>(values.size()));
    int i = 0;
    for (double value : values)
        v[i++] = value;
    return v;
}

TMatrix<double> Mat(std::initializer_list<std::initializer_list<double>> rows)
{
    TMatrix<double> a(static_cast<int>(rows.size()), static_cast<int>(rows.begin()->size()));
    int r = 0;
    for (const auto& row : rows) {
        int c = 0;
        for (double value : row)
            a(r, c++) = value;
        ++r;
    }
    return a;
}

} // namespace vorn2test
