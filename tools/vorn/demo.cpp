#include "demo.h"

#include <cmath>
#include <cstdio>

#include "datalayer/algorithms/numeric/lapack.h"
#include "datalayer/algorithms/optimisation/clpsolver.h"

namespace {

const char* statusName(DataLayer::CLPSolver::LPStatusType status)
{
    switch (status) {
    case DataLayer::CLPSolver::LPNotRun:
        return "not run";
    case DataLayer::CLPSolver::LPInfeasible:
        return "infeasible";
    case DataLayer::CLPSolver::LPPivoting:
        return "pivoting";
    case DataLayer::CLPSolver::LPOptimal:
        return "optimal";
    case DataLayer::CLPSolver::LPUnbounded:
        return "unbounded";
    }
    return "?";
}

// A product-mix program: maximise 3 x0 + 5 x1 under three capacity rows, x >= 0.
bool linearProgramDemo()
{
    TMatrix<double> A(3, 2);
    A(0, 0) = 1.0;
    A(1, 1) = 2.0;
    A(2, 0) = 3.0;
    A(2, 1) = 2.0;
    TVector<double> b(3);
    b[0] = 4.0;
    b[1] = 12.0;
    b[2] = 18.0;
    TVector<double> c(2);
    c[0] = 3.0;
    c[1] = 5.0;

    std::printf("Linear program (simplex on a full tableau)\n");
    std::printf("  maximise 3 x0 + 5 x1  subject to  x0 <= 4,  2 x1 <= 12,  3 x0 + 2 x1 <= 18,  x >= 0\n");
    DataLayer::CLPSolver solver(A, b, c);
    const bool ran = solver.Run();
    bool unique = false;
    const TVector<double> x = solver.GetSolution(&unique);
    const TVector<double> slack = solver.GetSlack();
    std::printf("  status: %s%s\n", statusName(solver.GetStatus()), ran && unique ? " (unique optimum)" : "");
    if (!ran || x.Size() != 2 || slack.Size() != 3)
        return false;
    std::printf("  x = (%g, %g)   objective = %g   slack = (%g, %g, %g)\n\n", x[0], x[1], Dot(c, x), slack[0],
                slack[1], slack[2]);
    return true;
}

// Fits y = a + b t + c t^2 to eight samples of 1 + 2 t - 0.5 t^2 with a fixed small disturbance.
bool leastSquaresDemo()
{
    constexpr int samples = 8;
    const double disturbance[samples] = {0.02, -0.01, 0.015, -0.03, 0.0, 0.025, -0.02, 0.01};
    TMatrix<double> A(samples, 3);
    TVector<double> y(samples);
    for (int i = 0; i < samples; ++i) {
        const double t = 0.5 * i;
        A(i, 0) = 1.0;
        A(i, 1) = t;
        A(i, 2) = t * t;
        y[i] = 1.0 + 2.0 * t - 0.5 * t * t + disturbance[i];
    }
    const TMatrix<double> design(A); // lssolve works in the caller's array
    TVector<double> coefficients(3);
    double cond = 0.0;

    std::printf("Least squares (minimum-norm solution through the SVD)\n");
    std::printf("  fit y = a + b t + c t^2 to %d samples of 1 + 2 t - 0.5 t^2 with a small disturbance\n",
                samples);
    if (!DataLayer::lapack::lssolve(A, y, coefficients, &cond)) {
        std::printf("  the solve failed\n");
        return false;
    }
    const TVector<double> residual = design * coefficients - y;
    std::printf("  a = %.6f   b = %.6f   c = %.6f\n", coefficients[0], coefficients[1], coefficients[2]);
    std::printf("  residual norm = %.3g   condition number = %.4g\n\n", residual.Norm(), cond);
    return true;
}

int runDemo()
{
    std::printf("Vorn2 Algorithms: the numeric core on two small problems\n\n");
    const bool lp = linearProgramDemo();
    const bool ls = leastSquaresDemo();
    return lp && ls ? 0 : 1;
}

} // namespace

VornCommand AddDemoCommand(CLI::App& app)
{
    CLI::App* sub = app.add_subcommand("demo", "Show the library at work on a small built-in problem");
    return {sub, runDemo};
}
