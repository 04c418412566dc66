#include "datalayer/algorithms/geometry/symsolvers.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "core/logging/clogger.h"

namespace DataLayer::symsolvers {

namespace {

inline int packed(int r, int c)
{
    return r >= c ? r * (r + 1) / 2 + c : c * (c + 1) / 2 + r;
}

Logging::CLogger& registrationLog()
{
    static Logging::CLogger& logger = Logging::CLogger::Get(L"Vorn.PreRegistration");
    return logger;
}

/// Rotation matrix of a quaternion (w, x, y, z), row-major, with no normalising.
void quaternionToMatrix(const double* q, double (*m)[3])
{
    const double w = q[0], x = q[1], y = q[2], z = q[3];
    m[0][0] = w * w + x * x - y * y - z * z;
    m[0][1] = 2 * (x * y - w * z);
    m[0][2] = 2 * (w * y + x * z);
    m[1][0] = 2 * (w * z + x * y);
    m[1][1] = w * w - x * x + y * y - z * z;
    m[1][2] = 2 * (y * z - w * x);
    m[2][0] = 2 * (x * z - w * y);
    m[2][1] = 2 * (w * x + y * z);
    m[2][2] = w * w - x * x - y * y + z * z;
}

/// The Procrustes fit over any point source; point(list, k, c) gives coordinate c of point k.
template <typename Points>
bool procrustes(const Points& from, const Points& to, const double* weights, std::size_t count,
                double* quaternion, double (*rotation)[3], double* translation)
{
    if (count < 3 || !from || !to)
        return false;
    double a[3] = {0, 0, 0}, b[3] = {0, 0, 0}, sumW = 0;
    if (weights) {
        for (std::size_t k = 0; k < count; ++k) {
            const double w = weights[k];
            sumW += w;
            for (int c = 0; c < 3; ++c) {
                a[c] += w * from(k, c);
                b[c] += w * to(k, c);
            }
        }
    } else {
        for (std::size_t k = 0; k < count; ++k)
            for (int c = 0; c < 3; ++c) {
                a[c] += from(k, c);
                b[c] += to(k, c);
            }
        sumW = static_cast<double>(count);
    }
    if (!(sumW != 0) || !std::isfinite(sumW))
        return false;
    for (int c = 0; c < 3; ++c) {
        a[c] /= sumW;
        b[c] /= sumW;
    }

    double s[3][3] = {};
    for (std::size_t k = 0; k < count; ++k) {
        const double f0 = from(k, 0) - a[0], f1 = from(k, 1) - a[1], f2 = from(k, 2) - a[2];
        const double t0 = to(k, 0) - b[0], t1 = to(k, 1) - b[1], t2 = to(k, 2) - b[2];
        s[0][0] += f0 * t0;
        s[0][1] += f0 * t1;
        s[0][2] += f0 * t2;
        s[1][0] += f1 * t0;
        s[1][1] += f1 * t1;
        s[1][2] += f1 * t2;
        s[2][0] += f2 * t0;
        s[2][1] += f2 * t1;
        s[2][2] += f2 * t2;
    }
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            if (!std::isfinite(s[i][j]))
                return false;
    for (int c = 0; c < 3; ++c)
        if (!std::isfinite(a[c]) || !std::isfinite(b[c]))
            return false;

    double n[10];
    n[0] = s[0][0] + s[1][1] + s[2][2];
    n[1] = s[1][2] - s[2][1];
    n[2] = s[0][0] - s[1][1] - s[2][2];
    n[3] = s[2][0] - s[0][2];
    n[4] = s[0][1] + s[1][0];
    n[5] = -s[0][0] + s[1][1] - s[2][2];
    n[6] = s[0][1] - s[1][0];
    n[7] = s[2][0] + s[0][2];
    n[8] = s[1][2] + s[2][1];
    n[9] = -s[0][0] - s[1][1] + s[2][2];

    double lambda[4], v[16], work[8];
    JacobiIteration(n, lambda, v, 4, 20, work);

    int best = 0;
    for (int i = 1; i < 4; ++i)
        if (lambda[i] > lambda[best])
            best = i;
    bool unique = true;
    for (int i = 0; i < 4; ++i)
        if (i != best && lambda[i] == lambda[best])
            unique = false;
    if (!unique) {
        const unsigned shown = count > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<unsigned>(count);
        VORN2_LOG_TRACE(
            registrationLog(),
            L"Ambiguous Procrustes result; M=%u, lambda = [%g,%g,%g,%g]; duplicate or degenerate points",
            shown, lambda[0], lambda[1], lambda[2], lambda[3]);
    }

    double q[4] = {v[best], v[4 + best], v[8 + best], v[12 + best]};
    double norm = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
    if (q[0] < 0)
        norm = -norm;
    for (double& c : q)
        c /= norm;

    double r[3][3];
    quaternionToMatrix(q, r);
    if (quaternion)
        std::copy(q, q + 4, quaternion);
    if (rotation)
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                rotation[i][j] = r[i][j];
    if (translation)
        for (int i = 0; i < 3; ++i)
            translation[i] = b[i] - (r[i][0] * a[0] + r[i][1] * a[1] + r[i][2] * a[2]);
    return unique;
}

struct TripleArray
{
    const double* p;
    double operator()(std::size_t k, int c) const { return p[3 * k + c]; }
    explicit operator bool() const { return p != nullptr; }
};

struct VectorArray
{
    const kdtree::Vector<3>* p;
    double operator()(std::size_t k, int c) const { return p[k].Data()[c]; }
    explicit operator bool() const { return p != nullptr; }
};

/// Factors the packed 6 x 6 matrix as L D L^T in place (L below the diagonal, D on it) and
/// solves for rhs in place. False when a pivot is not greater than 0.
bool ldltSolve6(double* m, double* rhs)
{
    constexpr int n = 6;
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < i; ++j) {
            double s = m[packed(i, j)];
            for (int k = 0; k < j; ++k)
                s -= m[packed(i, k)] * m[packed(k, k)] * m[packed(j, k)];
            m[packed(i, j)] = s / m[packed(j, j)];
        }
        double d = m[packed(i, i)];
        for (int k = 0; k < i; ++k)
            d -= m[packed(i, k)] * m[packed(i, k)] * m[packed(k, k)];
        if (!(d > 0))
            return false;
        m[packed(i, i)] = d;
    }
    for (int i = 0; i < n; ++i)
        for (int k = 0; k < i; ++k)
            rhs[i] -= m[packed(i, k)] * rhs[k];
    for (int i = 0; i < n; ++i)
        rhs[i] /= m[packed(i, i)];
    for (int i = n - 1; i >= 0; --i)
        for (int k = i + 1; k < n; ++k)
            rhs[i] -= m[packed(k, i)] * rhs[k];
    return true;
}

bool pointToPlane(const double* points, const double* targets, const double* normals, const double* weights,
                  bool uniformWeight, double* rotation, double* translation, int count)
{
    if (!points || !targets || !normals || !rotation || !translation || count < 1)
        return false;
    double m[21] = {}, rhs[6] = {};
    for (int i = 0; i < count; ++i) {
        const double* p = points + 3 * i;
        const double* q = targets + 3 * i;
        const double* nv = normals + 3 * i;
        const double w = weights == nullptr ? 1.0 : uniformWeight ? weights[0] : weights[i];
        const double av[6] = {p[1] * nv[2] - p[2] * nv[1],
                              p[2] * nv[0] - p[0] * nv[2],
                              p[0] * nv[1] - p[1] * nv[0],
                              nv[0],
                              nv[1],
                              nv[2]};
        const double r = (q[0] - p[0]) * nv[0] + (q[1] - p[1]) * nv[1] + (q[2] - p[2]) * nv[2];
        int k = 0;
        for (int row = 0; row < 6; ++row) {
            const double wa = w * av[row];
            for (int col = 0; col <= row; ++col)
                m[k++] += wa * av[col];
            rhs[row] += wa * r;
        }
    }
    if (!ldltSolve6(m, rhs))
        return false;
    std::copy(rhs, rhs + 3, rotation);
    std::copy(rhs + 3, rhs + 6, translation);
    return true;
}

using Mat3 = double[3][3];

void mul3(const Mat3& a, const Mat3& b, Mat3& out)
{
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            out[i][j] = a[i][0] * b[0][j] + a[i][1] * b[1][j] + a[i][2] * b[2][j];
}

void mul3(const Mat3& a, const Mat3& b, const Mat3& c, Mat3& out)
{
    Mat3 ab;
    mul3(a, b, ab);
    mul3(ab, c, out);
}

/// (M^T n): entry m is (M e_m) . n.
void transposedTimes(const Mat3& m, const double* n, double* out)
{
    for (int c = 0; c < 3; ++c)
        out[c] = m[0][c] * n[0] + m[1][c] * n[1] + m[2][c] * n[2];
}

/// The symmetric inverse of the 6 x 6 matrix h (full, row-major) through its eigen-decomposition.
bool symmetricInverse6(const double (&h)[6][6], double (&g)[6][6])
{
    double largest = 0;
    for (int i = 0; i < 6; ++i)
        for (int j = 0; j < 6; ++j) {
            if (!std::isfinite(h[i][j]))
                return false;
            largest = std::max(largest, std::abs(h[i][j]));
        }
    if (largest == 0)
        return false;
    // Scale by a power of two, exactly, so that Jacobi's absolute stopping bound is relative here.
    int exponent = 0;
    std::frexp(largest, &exponent);
    double a[21];
    for (int i = 0; i < 6; ++i)
        for (int j = 0; j <= i; ++j)
            a[packed(i, j)] = std::ldexp(0.5 * (h[i][j] + h[j][i]), -exponent);
    double lambda[6], v[36], work[12];
    JacobiIteration(a, lambda, v, 6, 50, work);
    double big = 0, small = std::numeric_limits<double>::infinity();
    for (double l : lambda) {
        big = std::max(big, std::abs(l));
        small = std::min(small, std::abs(l));
    }
    if (!(small > 6 * std::numeric_limits<double>::epsilon() * big))
        return false;
    for (int i = 0; i < 6; ++i)
        for (int j = 0; j < 6; ++j) {
            double s = 0;
            for (int k = 0; k < 6; ++k)
                s += v[i * 6 + k] * v[j * 6 + k] / lambda[k];
            g[i][j] = std::ldexp(s, -exponent);
        }
    return true;
}

} // namespace

void JacobiIteration(double* a, double* eigenvalues, double* eigenvectors, int n, int maxSweeps,
                     double* workspace)
{
    if (!a || !eigenvalues || !eigenvectors || !workspace || n < 1)
        return;
    double* d = eigenvalues;
    double* b = workspace;
    double* z = workspace + n;
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j)
            eigenvectors[i * n + j] = i == j ? 1.0 : 0.0;
        d[i] = b[i] = a[packed(i, i)];
        z[i] = 0.0;
    }
    for (int sweep = 1; sweep <= maxSweeps; ++sweep) {
        double sum = 0;
        for (int r = 1; r < n; ++r)
            for (int c = 0; c < r; ++c)
                sum += a[packed(r, c)] * a[packed(r, c)];
        const double threshold = std::sqrt(sum) / (4.0 * n);
        if (threshold < 1e-15)
            break;
        for (int p = 0; p < n; ++p) {
            for (int q = p + 1; q < n; ++q) {
                double& apq = a[packed(q, p)];
                const double g = 10.0 * std::abs(apq);
                if (sweep > 4 && std::abs(d[p]) + g == std::abs(d[p]) &&
                    std::abs(d[q]) + g == std::abs(d[q])) {
                    apq = 0.0;
                    continue;
                }
                if (!(std::abs(apq) >= threshold))
                    continue;
                double h = d[q] - d[p];
                double t;
                if (std::abs(h) + g == std::abs(h)) {
                    t = apq / h;
                } else {
                    const double theta = 0.5 * h / apq;
                    t = 1.0 / (std::sqrt(theta * theta + 1.0) + std::abs(theta));
                    if (theta < 0)
                        t = -t;
                }
                const double c = 1.0 / std::sqrt(t * t + 1.0);
                const double sn = t * c;
                const double tau = sn / (c + 1.0);
                h = t * apq;
                z[p] -= h;
                z[q] += h;
                d[p] -= h;
                d[q] += h;
                apq = 0.0;
                for (int j = 0; j < n; ++j) {
                    if (j == p || j == q)
                        continue;
                    double& f = a[packed(p, j)];
                    double& k = a[packed(q, j)];
                    const double f0 = f, k0 = k;
                    f = f0 - sn * (k0 + f0 * tau);
                    k = k0 + sn * (f0 - k0 * tau);
                }
                for (int j = 0; j < n; ++j) {
                    double& f = eigenvectors[j * n + p];
                    double& k = eigenvectors[j * n + q];
                    const double f0 = f, k0 = k;
                    f = f0 - sn * (k0 + f0 * tau);
                    k = k0 + sn * (f0 - k0 * tau);
                }
            }
        }
        for (int i = 0; i < n; ++i) {
            b[i] += z[i];
            d[i] = b[i];
            z[i] = 0.0;
        }
    }
}

void SortEigenV(double* values, double* vectors, int n, bool ascending)
{
    if (!values || n < 2)
        return;
    auto swapEntries = [&](int i, int j) {
        std::swap(values[i], values[j]);
        if (vectors)
            for (int row = 0; row < n; ++row)
                std::swap(vectors[row * n + i], vectors[row * n + j]);
    };
    auto before = [ascending](double u, double v) { return ascending ? u < v : u > v; };
    // Recursion on the smaller part, a loop on the larger: the same partitions as plain recursion,
    // with a stack depth of O(log n).
    auto sortRange = [&](auto&& self, int low, int high) -> void {
        while (low < high) {
            const double pivot = values[low];
            int i = low - 1, j = high + 1;
            int split;
            for (;;) {
                do
                    ++i;
                while (before(values[i], pivot));
                do
                    --j;
                while (before(pivot, values[j]));
                if (i >= j) {
                    split = j;
                    break;
                }
                swapEntries(i, j);
            }
            if (split - low < high - split) {
                self(self, low, split);
                low = split + 1;
            } else {
                self(self, split + 1, high);
                high = split;
            }
        }
    };
    sortRange(sortRange, 0, n - 1);
}

bool Procrustes(const double* from, const double* to, const double* weights, double* const quaternion,
                double (*const rotation)[3], double* const translation, unsigned int count)
{
    return procrustes(TripleArray{from}, TripleArray{to}, weights, count, quaternion, rotation, translation);
}

namespace detail {
bool ProcrustesPoints(const kdtree::Vector<3>* from, const kdtree::Vector<3>* to, const double* weights,
                      std::size_t count, double* quaternion, double (*rotation)[3], double* translation)
{
    return procrustes(VectorArray{from}, VectorArray{to}, weights, count, quaternion, rotation, translation);
}
} // namespace detail

bool Orthonormalize(double (*const matrix)[3])
{
    if (!matrix)
        return false;
    static constexpr double axes[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    double columns[9];
    for (int j = 0; j < 3; ++j) {
        const double length = std::sqrt(matrix[0][j] * matrix[0][j] + matrix[1][j] * matrix[1][j] +
                                        matrix[2][j] * matrix[2][j]);
        for (int i = 0; i < 3; ++i)
            columns[3 * j + i] = matrix[i][j] / length;
    }
    double r[3][3];
    double q[4], t[3];
    const bool ok = Procrustes(axes, columns, nullptr, q, r, t, 3);
    if (!ok)
        return false;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            matrix[i][j] = r[i][j];
    return true;
}

bool PointToPlaneUpdate(const double* points, const double* targets, const double* normals,
                        const double* ignored, double* rotation, double* translation, int count)
{
    (void)ignored;
    return pointToPlane(points, targets, normals, nullptr, false, rotation, translation, count);
}

bool PointToPlaneUpdateLS(const double* points, const double* targets, const double* normals,
                          const double* weights, double* rotation, double* translation, int count,
                          bool uniformWeight)
{
    return pointToPlane(points, targets, normals, weights, uniformWeight, rotation, translation, count);
}

bool PointToPlaneCovariance(const double* points, const double* targets, const double* normals,
                            const double* angles, const double* translation, int count, double* covariance)
{
    if (!points || !targets || !normals || !angles || !translation || !covariance || count < 1)
        return false;
    const double ca = std::cos(angles[0]), sa = std::sin(angles[0]);
    const double cb = std::cos(angles[1]), sb = std::sin(angles[1]);
    const double cg = std::cos(angles[2]), sg = std::sin(angles[2]);
    const Mat3 rx = {{1, 0, 0}, {0, ca, -sa}, {0, sa, ca}};
    const Mat3 drx = {{0, 0, 0}, {0, -sa, -ca}, {0, ca, -sa}};
    const Mat3 ddrx = {{0, 0, 0}, {0, -ca, sa}, {0, -sa, -ca}};
    const Mat3 ry = {{cb, 0, sb}, {0, 1, 0}, {-sb, 0, cb}};
    const Mat3 dry = {{-sb, 0, cb}, {0, 0, 0}, {-cb, 0, -sb}};
    const Mat3 ddry = {{-cb, 0, -sb}, {0, 0, 0}, {sb, 0, -cb}};
    const Mat3 rz = {{cg, -sg, 0}, {sg, cg, 0}, {0, 0, 1}};
    const Mat3 drz = {{-sg, -cg, 0}, {cg, -sg, 0}, {0, 0, 0}};
    const Mat3 ddrz = {{-cg, sg, 0}, {-sg, -cg, 0}, {0, 0, 0}};

    // Variables 3, 4, 5 are yaw, pitch, roll: first derivatives d[0..2], second dd[a][b].
    Mat3 r, d[3], dd[3][3];
    mul3(rz, ry, rx, r);
    mul3(drz, ry, rx, d[0]);
    mul3(rz, dry, rx, d[1]);
    mul3(rz, ry, drx, d[2]);
    mul3(ddrz, ry, rx, dd[0][0]);
    mul3(drz, dry, rx, dd[0][1]);
    mul3(drz, ry, drx, dd[0][2]);
    mul3(rz, ddry, rx, dd[1][1]);
    mul3(rz, dry, drx, dd[1][2]);
    mul3(rz, ry, ddrx, dd[2][2]);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < i; ++j)
            std::copy(&dd[j][i][0][0], &dd[j][i][0][0] + 9, &dd[i][j][0][0]);

    double h[6][6] = {}, pm[6][6] = {};
    for (int i = 0; i < count; ++i) {
        const double* p = points + 3 * i;
        const double* q = targets + 3 * i;
        const double* nv = normals + 3 * i;
        double e = 0;
        for (int row = 0; row < 3; ++row)
            e += (r[row][0] * p[0] + r[row][1] * p[1] + r[row][2] * p[2] + translation[row] - q[row]) *
                 nv[row];

        double de[6] = {nv[0], nv[1], nv[2], 0, 0, 0};
        double dde[3][3];
        double dpAngle[3][3]; // dpAngle[a][m] = d2e / (dp_m dangle_a)
        for (int a = 0; a < 3; ++a) {
            double u[3];
            transposedTimes(d[a], nv, u);
            de[3 + a] = u[0] * p[0] + u[1] * p[1] + u[2] * p[2];
            std::copy(u, u + 3, dpAngle[a]);
            for (int b = 0; b < 3; ++b) {
                double w[3];
                transposedTimes(dd[a][b], nv, w);
                dde[a][b] = w[0] * p[0] + w[1] * p[1] + w[2] * p[2];
            }
        }
        for (int j = 0; j < 6; ++j)
            for (int k = 0; k < 6; ++k) {
                double second = (j >= 3 && k >= 3) ? dde[j - 3][k - 3] : 0.0;
                h[j][k] += 2 * de[j] * de[k] + 2 * e * second;
            }

        double dz[6]; // de / dz for z = (p, q)
        transposedTimes(r, nv, dz);
        dz[3] = -nv[0];
        dz[4] = -nv[1];
        dz[5] = -nv[2];
        double block[6][6];
        for (int m = 0; m < 6; ++m)
            for (int j = 0; j < 6; ++j) {
                const double mixed = (m < 3 && j >= 3) ? dpAngle[j - 3][m] : 0.0;
                block[m][j] = 2 * (dz[m] * de[j] + e * mixed);
            }
        for (int j = 0; j < 6; ++j)
            for (int k = 0; k < 6; ++k) {
                double s = 0;
                for (int m = 0; m < 6; ++m)
                    s += block[m][j] * block[m][k];
                pm[j][k] += s;
            }
    }

    double g[6][6];
    if (!symmetricInverse6(h, g))
        return false;
    double gp[6][6];
    for (int i = 0; i < 6; ++i)
        for (int j = 0; j < 6; ++j) {
            double s = 0;
            for (int k = 0; k < 6; ++k)
                s += g[i][k] * pm[k][j];
            gp[i][j] = s;
        }
    for (int i = 0; i < 6; ++i)
        for (int j = 0; j <= i; ++j) {
            double s = 0;
            for (int k = 0; k < 6; ++k)
                s += gp[i][k] * g[k][j];
            covariance[packed(i, j)] = s;
        }
    return true;
}

} // namespace DataLayer::symsolvers
