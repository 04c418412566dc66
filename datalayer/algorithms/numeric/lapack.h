#pragma once
// DataLayer::lapack: the thin facade over LAPACK that every solver of the library uses, with the
// free functions DataLayer::cholesky and DataLayer::choleskyInverse.
//
// Each function calls one LAPACK driver on the caller's column-major array, with the workspace
// protocol: a query with LWORK = -1, then exactly the optimal workspace, allocated per call and
// freed before returning (nothing is cached, so every function is re-entrant on distinct objects).
// A is destroyed by lssolve, svd, qrp and qrp_kernel: the caller copies first if it needs A again.
// Failures are a false result (qrp_kernel: an empty matrix); nothing throws but new[], and nothing
// logs. Shapes are checked where stated below; a mismatch returns false before LAPACK is called
// and leaves every argument as it was. lssolve, svd, qrp and qrp_kernel refuse an empty problem
// (m or n of 0) with false; cholesky of a 0 x 0 matrix succeeds with nothing to factor.

#include "datalayer/algorithms/numeric/cpmatrix.h"
#include "datalayer/algorithms/numeric/tmatrix.h"
#include "datalayer/algorithms/numeric/tvector.h"

namespace DataLayer::lapack {

/// Minimum-norm least-squares solution of A x = b through the SVD (xGELSS, RCOND -1: singular
/// values up to eps * S[0] count as zero, so a rank-deficient A is no failure; a deficiency that
/// rounding lifts just above that cut is solved as full rank). A is m x n, b has m entries, x must
/// already have n entries. If cond is not null it receives S[0] / S[min(m, n) - 1] (infinite or
/// very large for a singular A, NaN for an all-zero A, whose solution is zero). Returns false (x
/// and cond untouched) on a size mismatch or LAPACK failure.
bool lssolve(TMatrix<double>& A, const TVector<double>& b, TVector<double>& x, double* cond);
bool lssolve(TMatrix<float>& A, const TVector<float>& b, TVector<float>& x, float* cond);

/// The same for several right-hand sides: B is m x k, X must be n x k.
bool lssolve(TMatrix<double>& A, const TMatrix<double>& B, TMatrix<double>& X, double* cond);
bool lssolve(TMatrix<float>& A, const TMatrix<float>& B, TMatrix<float>& X, float* cond);

/// A = U diag(S) VT with S descending (xGESVD, JOBU = JOBVT = 'A'). The caller allocates U (m x m),
/// S (min(m, n)) and VT (n x n); other shapes return false.
bool svd(TMatrix<double>& A, TMatrix<double>& U, TVector<double>& S, TMatrix<double>& VT);
bool svd(TMatrix<float>& A, TMatrix<float>& U, TVector<float>& S, TMatrix<float>& VT);

/// QR with column pivoting, A P = Q R (DGEQP3, then DORMQR on an identity for the explicit Q).
/// On entry P[j] != 0 fixes column j among the leading columns, 0 leaves it free (a fresh
/// CPMatrix 0, 1, 2, ... frees only column 0). On return P is the 0-based column permutation.
/// Q must be m x m, R m x n and P hold n entries; otherwise false.
bool qrp(TMatrix<double>& A, TMatrix<double>& Q, TMatrix<double>& R, CPMatrix& P);

/// All solutions of A x = b as x = K(:, 0) + K(:, 1..) z: column 0 a particular solution, the
/// other n - r columns a basis of the null space (r the numerical rank, tolerance
/// max(m, n) * 10 * eps on R's trailing rows). P[j] == 0 on entry forces column j into the
/// dependent group; on return P holds qrp's permutation. Returns a matrix with no rows when the
/// factorisation fails or b does not hold m entries.
TMatrix<double> qrp_kernel(TMatrix<double>& A, TVector<double>& b, CPMatrix& P);

} // namespace DataLayer::lapack

namespace DataLayer {

/// Factors A = R^T R in place (DPOTRF, upper) and zeroes the strict lower triangle. False when A
/// isn't square or not positive definite; A's contents are then undefined. det of the factored
/// matrix = (product of R's diagonal)^2.
template <typename T> bool cholesky(TMatrix<T>& A);

/// The full symmetric inverse of R^T R from an upper factor R of cholesky (DPOTRI, mirrored).
/// R must be square and non-singular; there is no failure report. A non-square R leaves inverse
/// as an unchanged copy of R.
template <typename T> void choleskyInverse(const TMatrix<T>& R, TMatrix<T>& inverse);

template <> bool cholesky<double>(TMatrix<double>& A);
template <> void choleskyInverse<double>(const TMatrix<double>& R, TMatrix<double>& inverse);

} // namespace DataLayer
