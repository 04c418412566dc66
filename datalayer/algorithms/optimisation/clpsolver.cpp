#include "datalayer/algorithms/optimisation/clpsolver.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <unordered_set>

namespace DataLayer {

namespace {

constexpr double kMachineEpsilon = 2.220446049250313e-16;
constexpr double kUniqueTolerance = 1e-6;
constexpr double kInfinity = std::numeric_limits<double>::infinity();

/// Identity of a basis state (basic and nonbasic arrays in order) by two independent 64-bit hashes;
/// two different states share both only with a chance of about 2^-128.
struct StateKey
{
    std::uint64_t first;
    std::uint64_t second;
    bool operator==(const StateKey& other) const = default;
};

struct StateKeyHash
{
    std::size_t operator()(const StateKey& key) const { return static_cast<std::size_t>(key.first); }
};

std::uint64_t mix64(std::uint64_t z)
{
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

StateKey stateKey(const int* basic, int m, const int* nonbasic, int n)
{
    std::uint64_t fnv = 0xcbf29ce484222325ULL;
    std::uint64_t poly = 0x243f6a8885a308d3ULL;
    auto add = [&](int value) {
        const auto v = static_cast<std::uint32_t>(value);
        for (int shift = 0; shift < 32; shift += 8) {
            fnv ^= (v >> shift) & 0xffU;
            fnv *= 0x100000001b3ULL;
        }
        poly = poly * 0x9e3779b97f4a7c15ULL + mix64(v + 0x632be59bd9b4e019ULL);
    };
    for (int i = 0; i < m; ++i)
        add(basic[i]);
    add(-1); // separates the two arrays
    for (int k = 0; k < n; ++k)
        add(nonbasic[k]);
    return {fnv, mix64(poly)};
}

/// col[i] -= trj * fac[i] / p for i in [begin, end), in exactly this evaluation order.
void updateColumn(double* __restrict col, const double* __restrict fac, double trj, double p, int begin,
                  int end)
{
    for (int i = begin; i < end; ++i)
        col[i] -= trj * fac[i] / p;
}

bool allFinite(const double* data, long long count)
{
    for (long long i = 0; i < count; ++i)
        if (!std::isfinite(data[i]))
            return false;
    return true;
}

} // namespace

CLPSolver::CLPSolver(const TMatrix<double>& A, const TVector<double>& b_, const TVector<double>& c_)
    : m(A.Rows() > 0 ? A.Rows() : 0), n(A.Cols() > 0 ? A.Cols() : 0), nonbasic(nullptr), basic(nullptr),
      tableau(m, n + m), b(m), c(n + m), status(LPNotRun), nonbasicCapacity(n + 1), wellFormed(false)
{
    wellFormed = A.Rows() >= 0 && A.Cols() >= 0 && b_.Size() == m && c_.Size() == n &&
                 allFinite(A.Data(), static_cast<long long>(m) * n) && allFinite(b_.Data(), m) &&
                 allFinite(c_.Data(), n);
    basic = new int[m > 0 ? m : 1]();
    nonbasic = new int[nonbasicCapacity]();
    if (m > 0 && n > 0 && A.Data())
        std::memcpy(tableau.Data(), A.Data(), sizeof(double) * static_cast<std::size_t>(m) * n);
    for (int i = 0; i < m; ++i)
        tableau(i, n + i) = 1.0;
    if (b_.Size() == m)
        for (int i = 0; i < m; ++i)
            b[i] = b_[i];
    if (c_.Size() == n)
        for (int j = 0; j < n; ++j)
            c[j] = c_[j];
}

CLPSolver::CLPSolver(const CLPSolver& other)
    : m(other.m), n(other.n), nonbasic(nullptr), basic(nullptr), tableau(other.tableau), b(other.b),
      c(other.c), status(other.status), nonbasicCapacity(other.nonbasicCapacity), wellFormed(other.wellFormed)
{
    basic = new int[m > 0 ? m : 1]();
    nonbasic = new int[nonbasicCapacity]();
    std::memcpy(basic, other.basic, sizeof(int) * static_cast<std::size_t>(m));
    std::memcpy(nonbasic, other.nonbasic, sizeof(int) * static_cast<std::size_t>(nonbasicCapacity));
}

CLPSolver& CLPSolver::operator=(const CLPSolver& other)
{
    if (this == &other)
        return *this;
    int* newBasic = new int[other.m > 0 ? other.m : 1]();
    int* newNonbasic = nullptr;
    try {
        newNonbasic = new int[other.nonbasicCapacity]();
        tableau = other.tableau;
        b = other.b;
        c = other.c;
    } catch (...) {
        delete[] newBasic;
        delete[] newNonbasic;
        throw;
    }
    std::memcpy(newBasic, other.basic, sizeof(int) * static_cast<std::size_t>(other.m));
    std::memcpy(newNonbasic, other.nonbasic, sizeof(int) * static_cast<std::size_t>(other.nonbasicCapacity));
    delete[] basic;
    delete[] nonbasic;
    basic = newBasic;
    nonbasic = newNonbasic;
    m = other.m;
    n = other.n;
    status = other.status;
    nonbasicCapacity = other.nonbasicCapacity;
    wellFormed = other.wellFormed;
    return *this;
}

CLPSolver::~CLPSolver()
{
    delete[] basic;
    delete[] nonbasic;
}

bool CLPSolver::Run()
{
    if (!wellFormed)
        return false;
    // A finished run is not repeated: the tableau is in its final form.
    if (status == LPNotRun)
        simplex(true);
    return status == LPOptimal || status == LPUnbounded;
}

TVector<double> CLPSolver::GetSolution(bool* unique) const
{
    if (unique)
        *unique = true;
    if (status == LPUnbounded) {
        TVector<double> x(n);
        for (int j = 0; j < n; ++j)
            x[j] = kInfinity;
        return x;
    }
    if (status != LPOptimal)
        return TVector<double>();
    if (unique)
        for (int k = 0; k < n; ++k)
            if (std::fabs(c[nonbasic[k]]) < kUniqueTolerance)
                *unique = false;
    const TVector<double> all = getBasicSolution();
    TVector<double> x(n);
    for (int j = 0; j < n; ++j)
        x[j] = all[j];
    return x;
}

TVector<double> CLPSolver::GetSlack() const
{
    if (status == LPUnbounded) {
        TVector<double> s(m);
        for (int i = 0; i < m; ++i)
            s[i] = kInfinity;
        return s;
    }
    if (status != LPOptimal)
        return TVector<double>();
    const TVector<double> all = getBasicSolution();
    TVector<double> s(m);
    for (int i = 0; i < m; ++i)
        s[i] = all[n + i];
    return s;
}

TVector<double> CLPSolver::getBasicSolution() const
{
    TVector<double> x(n + m);
    for (int i = 0; i < m; ++i)
        x[basic[i]] = b[i] + 0.0; // a zero comes out as +0.0
    return x;
}

bool CLPSolver::initializeSimplex()
{
    // 1. The row of the smallest b, the first among equals.
    int k = 0;
    for (int i = 1; i < m; ++i)
        if (b[i] < b[k])
            k = i;

    // 2. All b positive (or no rows at all): the slack basis is feasible.
    if (m == 0 || b[k] > 0.0) {
        for (int j = 0; j < n; ++j)
            nonbasic[j] = j;
        for (int i = 0; i < m; ++i)
            basic[i] = n + i;
        return true;
    }

    // 3. The auxiliary variable becomes column n, the slacks move one column to the right.
    const TVector<double> savedC = c;
    {
        TMatrix<double> grown(m, n + 1 + m);
        if (n > 0)
            std::memcpy(grown.Data(), tableau.Data(), sizeof(double) * static_cast<std::size_t>(m) * n);
        for (int i = 0; i < m; ++i) {
            grown(i, n) = -1.0;
            grown(i, n + 1 + i) = 1.0;
        }
        tableau = std::move(grown);
    }
    c = TVector<double>(n + 1 + m);
    c[n] = -1.0;
    ++n;
    for (int j = 0; j < n; ++j)
        nonbasic[j] = j;
    for (int i = 0; i < m; ++i)
        basic[i] = n + i;

    // 4. The auxiliary variable enters in the row of the most negative b; all of b is then >= 0.
    pivot(basic[k], n - 1);

    // 5. Minimise the auxiliary variable.
    simplex(false);
    if (status == LPPivoting) { // the pivot cap was reached
        --n;
        return false;
    }
    const int auxiliary = n - 1;
    const TVector<double> x = getBasicSolution();

    // 6. A positive minimum means there is no feasible point. The tableau keeps its phase one form.
    if (!(std::fabs(x[auxiliary]) < kMachineEpsilon)) {
        --n;
        return false;
    }

    // Left basic at value 0: pivot it out of its row by a degenerate pivot.
    for (int i = 0; i < m; ++i) {
        if (basic[i] == auxiliary) {
            if (!driveOutAuxiliary()) {
                --n;
                return false;
            }
            break;
        }
    }
    --n;

    // 7. Drop column n (the auxiliary variable), renumber the slacks back.
    {
        TMatrix<double> shrunk(m, n + m);
        const std::size_t column = static_cast<std::size_t>(m);
        if (n > 0)
            std::memcpy(shrunk.Data(), tableau.Data(), sizeof(double) * column * n);
        if (m > 0)
            std::memcpy(shrunk.Data() + column * n, tableau.Data() + column * (n + 1),
                        sizeof(double) * column * m);
        tableau = std::move(shrunk);
    }
    int position = 0;
    while (nonbasic[position] != n)
        ++position;
    for (int k2 = position; k2 < n; ++k2)
        nonbasic[k2] = nonbasic[k2 + 1];
    nonbasic[n] = n;
    for (int k2 = 0; k2 <= n; ++k2)
        if (nonbasic[k2] > n)
            --nonbasic[k2];
    for (int i = 0; i < m; ++i)
        if (basic[i] > n)
            --basic[i];

    // 8. The original objective, with each basic variable replaced by the right-hand side of its row.
    c = savedC;
    for (int i = 0; i < m; ++i) {
        const int v = basic[i];
        if (std::fabs(c[v]) >= kMachineEpsilon) {
            for (int k2 = 0; k2 < n; ++k2) {
                const int j = nonbasic[k2];
                c[j] -= tableau(i, j) * c[v];
            }
            c[v] = 0.0;
        }
    }
    return true;
}

bool CLPSolver::driveOutAuxiliary()
{
    // Called with n still counting the auxiliary variable (number n - 1), which is basic.
    const int auxiliary = n - 1;
    int row = 0;
    while (basic[row] != auxiliary)
        ++row;
    int entering = -1;
    double largest = 0.0;
    for (int k = 0; k < n; ++k) {
        const int j = nonbasic[k];
        const double magnitude = std::fabs(tableau(row, j));
        if (magnitude > largest) {
            largest = magnitude;
            entering = j;
        }
    }
    if (entering < 0)
        return false; // an all-zero row: only reachable through rounding
    pivot(auxiliary, entering);
    return true;
}

void CLPSolver::pivot(int leaving, int entering)
{
    int r = 0;
    while (basic[r] != leaving)
        ++r;
    const int cols = tableau.Cols();
    double* const data = tableau.Data();
    const std::size_t rows = static_cast<std::size_t>(m);
    double* const factor = data + rows * static_cast<std::size_t>(entering);
    const double p = factor[r];

    // 1. and 2. Eliminate the entering column from every other row and from c. A column whose
    // pivot-row entry is exactly 0 would only have (0 * y) / p subtracted, which leaves each finite
    // entry at its value, so it is skipped.
    const double cEntering = c[entering];
    for (int j = 0; j < cols; ++j) {
        if (j == entering)
            continue;
        double* const column = data + rows * static_cast<std::size_t>(j);
        const double trj = column[r];
        if (trj == 0.0)
            continue;
        updateColumn(column, factor, trj, p, 0, r);
        updateColumn(column, factor, trj, p, r + 1, m);
        c[j] -= trj * cEntering / p;
    }
    for (int i = 0; i < m; ++i)
        if (i != r)
            b[i] -= factor[i] * b[r] / p;

    // 3. Scale the pivot row.
    for (int j = 0; j < cols; ++j)
        data[rows * static_cast<std::size_t>(j) + r] /= p;
    b[r] /= p;

    // 4. The entering column becomes a unit column.
    for (int i = 0; i < m; ++i)
        if (i != r)
            factor[i] = 0.0;
    c[entering] = 0.0;

    // 5. Swap the two variables between the index arrays.
    basic[r] = entering;
    for (int k = 0; k < n; ++k) {
        if (nonbasic[k] == entering) {
            nonbasic[k] = leaving;
            break;
        }
    }
}

CLPSolver::LPStatusType CLPSolver::selectPivot(int& leaving, int& entering, TVector<double>& ratios)
{
    entering = -1;
    for (int k = 0; k < n; ++k) {
        if (c[nonbasic[k]] > 0.0) {
            entering = nonbasic[k];
            break;
        }
    }
    if (entering < 0)
        return LPOptimal;

    int row = -1;
    double best = kInfinity;
    for (int i = 0; i < m; ++i) {
        const double t = tableau(i, entering);
        ratios[i] = t > 0.0 ? b[i] / t : kInfinity;
        if (ratios[i] < best) {
            best = ratios[i];
            row = i;
        }
    }
    if (row < 0)
        return LPUnbounded;
    leaving = basic[row];
    return LPPivoting;
}

CLPSolver::LPStatusType CLPSolver::selectPivotBland(int& leaving, int& entering, TVector<double>& ratios)
{
    entering = -1;
    for (int k = 0; k < n; ++k) {
        const int j = nonbasic[k];
        if (c[j] > 0.0 && (entering < 0 || j < entering))
            entering = j;
    }
    if (entering < 0)
        return LPOptimal;

    double best = kInfinity;
    for (int i = 0; i < m; ++i) {
        const double t = tableau(i, entering);
        ratios[i] = t > 0.0 ? b[i] / t : kInfinity;
        if (ratios[i] < best)
            best = ratios[i];
    }
    if (!(best < kInfinity))
        return LPUnbounded;
    int row = -1;
    for (int i = 0; i < m; ++i)
        if (ratios[i] == best && (row < 0 || basic[i] < basic[row]))
            row = i;
    leaving = basic[row];
    return LPPivoting;
}

void CLPSolver::simplex(bool initialize)
{
    if (initialize && !initializeSimplex()) {
        if (status != LPPivoting) // LPPivoting: phase one reached the pivot cap
            status = LPInfeasible;
        return;
    }
    TVector<double> ratios(m);
    std::unordered_set<StateKey, StateKeyHash> visited;
    visited.insert(stateKey(basic, m, nonbasic, n));
    bool bland = false;
    long long blandPivots = 0;
    const long long blandCap = 50LL * (m + n) + 1000;
    for (;;) {
        int leaving = -1;
        int entering = -1;
        const LPStatusType selected =
            bland ? selectPivotBland(leaving, entering, ratios) : selectPivot(leaving, entering, ratios);
        if (selected == LPOptimal || selected == LPUnbounded) {
            status = selected;
            return;
        }
        status = LPPivoting;
        if (bland && blandPivots >= blandCap)
            return;
        pivot(leaving, entering);
        if (bland) {
            ++blandPivots;
        } else if (!visited.insert(stateKey(basic, m, nonbasic, n)).second) {
            bland = true; // the first rule would repeat this cycle forever
            visited = {};
        }
    }
}

} // namespace DataLayer
