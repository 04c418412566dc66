// A client of the installed library: solves a small least-squares system through the umbrella header.
#include <cstdio>

#include "vorn2_algorithms.h"

int main()
{
    TMatrix<double> a(3, 2);
    TVector<double> b(3);
    // Rows (1, 0), (0, 1), (1, 1); right-hand side consistent with x = (1, 2).
    a(0, 0) = 1.0;
    a(1, 1) = 1.0;
    a(2, 0) = 1.0;
    a(2, 1) = 1.0;
    b[0] = 1.0;
    b[1] = 2.0;
    b[2] = 3.0;
    TVector<double> x(2);
    if (!DataLayer::lapack::lssolve(a, b, x, static_cast<double*>(nullptr)))
        return 1;
    std::printf("x = %g %g\n", x[0], x[1]);
    return 0;
}
