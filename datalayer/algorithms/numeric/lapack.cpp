#include "datalayer/algorithms/numeric/lapack.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <memory>

// The Fortran symbols of LAPACK, called directly. Hidden string lengths go at the end (gfortran).
extern "C" {
void dgelss_(const int* m, const int* n, const int* nrhs, double* a, const int* lda, double* b,
             const int* ldb, double* s, const double* rcond, int* rank, double* work, const int* lwork,
             int* info);
void sgelss_(const int* m, const int* n, const int* nrhs, float* a, const int* lda, float* b, const int* ldb,
             float* s, const float* rcond, int* rank, float* work, const int* lwork, int* info);
void dgesvd_(const char* jobu, const char* jobvt, const int* m, const int* n, double* a, const int* lda,
             double* s, double* u, const int* ldu, double* vt, const int* ldvt, double* work,
             const int* lwork, int* info, std::size_t jobuLength, std::size_t jobvtLength);
void sgesvd_(const char* jobu, const char* jobvt, const int* m, const int* n, float* a, const int* lda,
             float* s, float* u, const int* ldu, float* vt, const int* ldvt, float* work, const int* lwork,
             int* info, std::size_t jobuLength, std::size_t jobvtLength);
void dgeqp3_(const int* m, const int* n, double* a, const int* lda, int* jpvt, double* tau, double* work,
             const int* lwork, int* info);
void dormqr_(const char* side, const char* trans, const int* m, const int* n, const int* k, const double* a,
             const int* lda, const double* tau, double* c, const int* ldc, double* work, const int* lwork,
             int* info, std::size_t sideLength, std::size_t transLength);
void dpotrf_(const char* uplo, const int* n, double* a, const int* lda, int* info, std::size_t uploLength);
void dpotri_(const char* uplo, const int* n, double* a, const int* lda, int* info, std::size_t uploLength);
}

namespace DataLayer::lapack {
namespace {

void gelss(const int* m, const int* n, const int* nrhs, double* a, const int* lda, double* b, const int* ldb,
           double* s, int* rank, double* work, const int* lwork, int* info)
{
    const double rcond = -1.0;
    dgelss_(m, n, nrhs, a, lda, b, ldb, s, &rcond, rank, work, lwork, info);
}

void gelss(const int* m, const int* n, const int* nrhs, float* a, const int* lda, float* b, const int* ldb,
           float* s, int* rank, float* work, const int* lwork, int* info)
{
    const float rcond = -1.0f;
    sgelss_(m, n, nrhs, a, lda, b, ldb, s, &rcond, rank, work, lwork, info);
}

void gesvd(const int* m, const int* n, double* a, const int* lda, double* s, double* u, const int* ldu,
           double* vt, const int* ldvt, double* work, const int* lwork, int* info)
{
    dgesvd_("A", "A", m, n, a, lda, s, u, ldu, vt, ldvt, work, lwork, info, 1, 1);
}

void gesvd(const int* m, const int* n, float* a, const int* lda, float* s, float* u, const int* ldu,
           float* vt, const int* ldvt, float* work, const int* lwork, int* info)
{
    sgesvd_("A", "A", m, n, a, lda, s, u, ldu, vt, ldvt, work, lwork, info, 1, 1);
}

/// The optimal workspace size that a query returned, truncated to an integer (at least 1).
template <typename T> int workspaceSize(T query)
{
    return std::max(1, static_cast<int>(query));
}

/// xGELSS on A with `nrhs` right-hand sides taken column by column from `rhs` (m rows each);
/// the first n rows of each solution column go to `solution` (n rows each).
template <typename T> bool solveLeastSquares(TMatrix<T>& A, const T* rhs, int nrhs, T* solution, T* cond)
{
    const int m = A.Rows();
    const int n = A.Cols();
    const int lda = std::max(1, m);
    const int ldb = std::max(1, std::max(m, n));
    const int k = std::min(m, n);
    int rank = 0;
    int info = 0;

    // Workspace query first, so that S, the right-hand side buffer and the workspace share one
    // allocation.
    T query = 0;
    T dummy[1] = {0};
    int lwork = -1;
    gelss(&m, &n, &nrhs, A.Data(), &lda, dummy, &ldb, dummy, &rank, &query, &lwork, &info);
    if (info != 0)
        return false;
    lwork = workspaceSize(query);

    const std::size_t bufferSize = static_cast<std::size_t>(ldb) * static_cast<std::size_t>(nrhs);
    // Only S and the right-hand side buffer need zeros; the workspace is scratch that the driver
    // writes before it reads, so it is left uninitialised (zeroing it was a measurable part of a
    // small solve).
    const std::size_t head = static_cast<std::size_t>(k) + bufferSize;
    const std::unique_ptr<T[]> memory(new T[head + static_cast<std::size_t>(lwork)]);
    std::fill_n(memory.get(), head, T(0));
    T* s = memory.get();
    T* buffer = s + k;
    T* work = buffer + bufferSize;
    for (int c = 0; c < nrhs; ++c)
        std::memcpy(buffer + static_cast<std::size_t>(c) * ldb, rhs + static_cast<std::size_t>(c) * m,
                    sizeof(T) * static_cast<std::size_t>(m));

    gelss(&m, &n, &nrhs, A.Data(), &lda, buffer, &ldb, s, &rank, work, &lwork, &info);
    if (info != 0)
        return false;
    for (int c = 0; c < nrhs; ++c)
        std::memcpy(solution + static_cast<std::size_t>(c) * n, buffer + static_cast<std::size_t>(c) * ldb,
                    sizeof(T) * static_cast<std::size_t>(n));
    if (cond)
        *cond = s[0] / s[k - 1];
    return true;
}

template <typename T> bool lssolveVector(TMatrix<T>& A, const TVector<T>& b, TVector<T>& x, T* cond)
{
    if (A.Rows() < 1 || A.Cols() < 1 || b.Size() != A.Rows() || x.Size() != A.Cols())
        return false;
    return solveLeastSquares(A, b.Data(), 1, x.Data(), cond);
}

template <typename T> bool lssolveMatrix(TMatrix<T>& A, const TMatrix<T>& B, TMatrix<T>& X, T* cond)
{
    if (A.Rows() < 1 || A.Cols() < 1 || B.Rows() != A.Rows() || B.Cols() != X.Cols() ||
        X.Rows() != A.Cols() || B.Cols() < 0)
        return false;
    return solveLeastSquares(A, B.Data(), B.Cols(), X.Data(), cond);
}

template <typename T> bool svdImpl(TMatrix<T>& A, TMatrix<T>& U, TVector<T>& S, TMatrix<T>& VT)
{
    const int m = A.Rows();
    const int n = A.Cols();
    if (m < 1 || n < 1 || U.Rows() != m || U.Cols() != m || S.Size() != std::min(m, n) || VT.Rows() != n ||
        VT.Cols() != n)
        return false;
    int info = 0;
    T query = 0;
    int lwork = -1;
    gesvd(&m, &n, A.Data(), &m, S.Data(), U.Data(), &m, VT.Data(), &n, &query, &lwork, &info);
    if (info != 0)
        return false;
    lwork = workspaceSize(query);
    const std::unique_ptr<T[]> work(new T[lwork]);
    gesvd(&m, &n, A.Data(), &m, S.Data(), U.Data(), &m, VT.Data(), &n, work.get(), &lwork, &info);
    return info == 0;
}

} // namespace

bool lssolve(TMatrix<double>& A, const TVector<double>& b, TVector<double>& x, double* cond)
{
    return lssolveVector(A, b, x, cond);
}

bool lssolve(TMatrix<float>& A, const TVector<float>& b, TVector<float>& x, float* cond)
{
    return lssolveVector(A, b, x, cond);
}

bool lssolve(TMatrix<double>& A, const TMatrix<double>& B, TMatrix<double>& X, double* cond)
{
    return lssolveMatrix(A, B, X, cond);
}

bool lssolve(TMatrix<float>& A, const TMatrix<float>& B, TMatrix<float>& X, float* cond)
{
    return lssolveMatrix(A, B, X, cond);
}

bool svd(TMatrix<double>& A, TMatrix<double>& U, TVector<double>& S, TMatrix<double>& VT)
{
    return svdImpl(A, U, S, VT);
}

bool svd(TMatrix<float>& A, TMatrix<float>& U, TVector<float>& S, TMatrix<float>& VT)
{
    return svdImpl(A, U, S, VT);
}

bool qrp(TMatrix<double>& A, TMatrix<double>& Q, TMatrix<double>& R, CPMatrix& P)
{
    const int m = A.Rows();
    const int n = A.Cols();
    if (m < 1 || n < 1 || Q.Rows() != m || Q.Cols() != m || R.Rows() != m || R.Cols() != n || P.Size() != n)
        return false;
    const int k = std::min(m, n);
    int info = 0;

    // DGEQP3 on A into tau.
    double query = 0;
    int lwork = -1;
    const std::unique_ptr<double[]> tau(new double[k]());
    dgeqp3_(&m, &n, A.Data(), &m, P.Data(), tau.get(), &query, &lwork, &info);
    if (info != 0)
        return false;
    lwork = workspaceSize(query);
    {
        const std::unique_ptr<double[]> work(new double[lwork]);
        dgeqp3_(&m, &n, A.Data(), &m, P.Data(), tau.get(), work.get(), &lwork, &info);
    }
    if (info != 0)
        return false;

    // R: the upper triangle of the factored A.
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < m; ++i)
            R(i, j) = i <= j ? A(i, j) : 0.0;

    // Q: the reflectors applied to the identity.
    for (int j = 0; j < m; ++j)
        for (int i = 0; i < m; ++i)
            Q(i, j) = i == j ? 1.0 : 0.0;
    lwork = -1;
    dormqr_("L", "N", &m, &m, &k, A.Data(), &m, tau.get(), Q.Data(), &m, &query, &lwork, &info, 1, 1);
    if (info != 0)
        return false;
    lwork = workspaceSize(query);
    {
        const std::unique_ptr<double[]> work(new double[lwork]);
        dormqr_("L", "N", &m, &m, &k, A.Data(), &m, tau.get(), Q.Data(), &m, work.get(), &lwork, &info, 1, 1);
    }
    if (info != 0)
        return false;

    for (int j = 0; j < n; ++j)
        P[j] -= 1;
    return true;
}

TMatrix<double> qrp_kernel(TMatrix<double>& A, TVector<double>& b, CPMatrix& P)
{
    const int m = A.Rows();
    const int n = A.Cols();
    if (b.Size() != m || P.Size() != n)
        return TMatrix<double>();
    for (int j = 0; j < n; ++j)
        P[j] = P[j] == 0 ? 1 : 0;

    TMatrix<double> Q(m, m);
    TMatrix<double> R(m, n);
    if (!qrp(A, Q, R, P))
        return TMatrix<double>();

    // Numerical rank: trailing rows of R whose entries from the diagonal on are all negligible.
    const double tol = std::max(m, n) * 10 * 2.220446049250313e-16;
    int r = std::min(m, n);
    while (r > 0) {
        bool negligible = true;
        for (int j = r - 1; j < n && negligible; ++j)
            negligible = std::abs(R(r - 1, j)) <= tol;
        if (!negligible)
            break;
        --r;
    }

    TVector<double> y(r);
    for (int i = 0; i < r; ++i) {
        double sum = 0;
        for (int k = 0; k < m; ++k)
            sum += Q(k, i) * b[k];
        y[i] = sum;
    }

    // Back-substitution on the leading r x r triangle, carrying columns r..n-1 along.
    for (int c = r - 1; c >= 0; --c) {
        const double d = 1.0 / R(c, c);
        for (int i = c - 1; i >= 0; --i) {
            const double f = -d * R(i, c);
            y[i] += f * y[c];
            for (int j = r; j < n; ++j)
                R(i, j) += f * R(c, j);
        }
        for (int j = r; j < n; ++j)
            R(c, j) *= d;
        y[c] *= d;
    }

    TMatrix<double> K(n, n - r + 1);
    for (int i = 0; i < r; ++i) {
        K(P[i], 0) = y[i];
        for (int j = 0; j < n - r; ++j)
            K(P[i], 1 + j) = -R(i, r + j);
    }
    for (int j = 0; j < n - r; ++j)
        K(P[r + j], 1 + j) = 1.0;
    return K;
}

} // namespace DataLayer::lapack

namespace DataLayer {

template <> bool cholesky<double>(TMatrix<double>& A)
{
    const int n = A.Rows();
    if (n != A.Cols())
        return false;
    const int lda = std::max(1, n);
    int info = 0;
    dpotrf_("U", &n, A.Data(), &lda, &info, 1);
    if (info != 0)
        return false;
    for (int c = 0; c < n; ++c)
        for (int r = c + 1; r < n; ++r)
            A(r, c) = 0.0;
    return true;
}

template <> void choleskyInverse<double>(const TMatrix<double>& R, TMatrix<double>& inverse)
{
    inverse = R;
    const int n = R.Rows();
    if (n != R.Cols() || n < 1)
        return;
    int info = 0;
    dpotri_("U", &n, inverse.Data(), &n, &info, 1);
    for (int c = 0; c < n; ++c)
        for (int r = c + 1; r < n; ++r)
            inverse(r, c) = inverse(c, r);
}

} // namespace DataLayer
