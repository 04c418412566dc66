#pragma once
// DataLayer::symsolvers: the small dense solvers of rigid registration, as free functions on raw
// double arrays of the fixed sizes 3, 4 and 6: a cyclic Jacobi eigensolver and its sort, the
// closed-form Procrustes fit through the quaternion eigenproblem, the nearest rotation, one
// linearised point-to-plane step and the covariance of a point-to-plane alignment.
//
// Storage: points and normals are count triples (p[3i], p[3i+1], p[3i+2]); a symmetric n x n
// matrix is packed by its lower triangle, row by row, element (r, c), c <= r, at r(r+1)/2 + c;
// an eigenvector matrix is n x n row-major with eigenvector k in column k. The functions borrow
// the caller's arrays for the call only, allocate nothing, throw nothing and keep no state but
// the "Vorn.PreRegistration" log channel, so they may run concurrently on separate arrays.
// Failures are a false result with the outputs untouched, except where stated.
// Choices made here: every output pointer of Procrustes may be null (that output is skipped);
// non-finite input and a zero or non-finite weight sum are refused with false. The covariance
// uses the true inverse of the Hessian (see PointToPlaneCovariance).

#include <cstddef>

#include "datalayer/algorithms/geometry/kdtreevector.h"

namespace DataLayer::symsolvers {

/// Eigenvalues and eigenvectors of the symmetric n x n matrix a (packed) by the cyclic Jacobi
/// method with threshold, at most maxSweeps sweeps. a is destroyed except for its diagonal;
/// eigenvalues receives n values (unsorted), eigenvectors n * n, workspace needs 2 n doubles.
/// A sweep starts only while sqrt(sum of squared off-diagonal elements) / (4 n) is at least 1e-15,
/// an absolute bound: a matrix whose off-diagonal part is smaller than that is returned as it is.
/// If the sweeps run out, what was reached stands. n below 1 or a null pointer: nothing happens.
void JacobiIteration(double* a, double* eigenvalues, double* eigenvectors, int n, int maxSweeps,
                     double* workspace);

/// Sorts values (n entries) ascending or descending by a quicksort with Hoare partition and the
/// first element as pivot, swapping the columns of the n x n row-major vectors along. vectors may
/// be null; n below 2 or null values: nothing happens. Terminates on NaN, in an arbitrary order.
void SortEigenV(double* values, double* vectors, int n, bool ascending);

/// The rigid motion (R, t) that brings from[i] closest to to[i] (least squares, to ~ R from + t).
/// weights (may be null: all 1) move the centroids only; the cross-covariance gives every pair
/// weight 1. quaternion receives w, x, y, z (unit, w >= 0), rotation the 3 x 3 matrix row-major,
/// translation three doubles; each may be null. Returns false with nothing written when count < 3,
/// from or to is null, the weight sum is zero or not finite, or the input holds NaN or infinity.
/// Returns false with all outputs written when the largest eigenvalue of the quaternion problem
/// is not unique (ambiguous: collinear, duplicate or degenerate points); a trace on
/// "Vorn.PreRegistration" then names the four eigenvalues.
bool Procrustes(const double* from, const double* to, const double* weights, double* const quaternion,
                double (*const rotation)[3], double* const translation, unsigned int count);

/// Replaces the 3 x 3 matrix (row-major) by the rotation that Procrustes fits from the unit axes
/// to its normalised columns. False, matrix untouched, for a null matrix, a zero or non-finite
/// column, or an ambiguous fit.
bool Orthonormalize(double (*const matrix)[3]);

/// One linearised point-to-plane step with weight 1 for every pair: the rotation vector and the
/// translation that minimise sum(((p - q) . n + r . (p x n) + t . n)^2). ignored is never read.
/// False, outputs untouched, when a pointer is null, count < 1 or the 6 x 6 normal matrix is not
/// positive definite (a pivot of its LDL^T factorisation at 0 or below, or NaN).
bool PointToPlaneUpdate(const double* points, const double* targets, const double* normals,
                        const double* ignored, double* rotation, double* translation, int count);

/// The same with weights: 1 for every pair if weights is null, weights[0] for every pair if
/// uniformWeight, weights[i] otherwise.
bool PointToPlaneUpdateLS(const double* points, const double* targets, const double* normals,
                          const double* weights, double* rotation, double* translation, int count,
                          bool uniformWeight);

/// Covariance (21 doubles, packed) of the alignment R = Rz(angles[2]) Ry(angles[1]) Rx(angles[0]),
/// t = translation, of points onto the planes (targets, normals), for unit noise on points and
/// targets: G P G in the variables (t0, t1, t2, angles[2], angles[1], angles[0]), where H is the
/// full Hessian of the squared residual sum, P the sum of B^T B of the mixed second derivatives
/// by the measurements, and G the symmetric inverse of H, formed from H's eigen-decomposition.
/// H counts as singular when it has a non-finite entry or its smallest eigenvalue magnitude is at
/// most 6 * 2.220446049250313e-16 times its largest; then, and for a null pointer or count < 1,
/// the result is false with covariance untouched. The blocks are summed as they are formed, so
/// nothing is allocated.
bool PointToPlaneCovariance(const double* points, const double* targets, const double* normals,
                            const double* angles, const double* translation, int count, double* covariance);

// --- implementation details follow ---------------------------------------------------------------
namespace detail {
/// Procrustes on single-precision points, widened to double as they are read (CTrafo's fit).
/// The same contract as Procrustes, with a count of any size.
bool ProcrustesPoints(const kdtree::Vector<3>* from, const kdtree::Vector<3>* to, const double* weights,
                      std::size_t count, double* quaternion, double (*rotation)[3], double* translation);
} // namespace detail

} // namespace DataLayer::symsolvers
