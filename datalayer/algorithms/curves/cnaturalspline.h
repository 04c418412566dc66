#pragma once
// DataLayer::CNaturalSpline: a one-dimensional interpolating spline over strictly ascending
// abscissae, of degree 1 (polyline), 2 (C1 quadratic) or 3 (natural cubic), with derivatives,
// integral, arc length, extrema and uniform sampling.
//
// The object owns its knot and coefficient arrays (new[]) and copies them deeply; a move leaves
// the source empty. Every query is a read, max() included (it searches the negated spline without
// writing), so several threads may query one spline while nobody assigns to it. Nothing throws
// but the allocation.
// Choices made here, where the behaviour was open:
// - fewer than 2 points, a null array, or abscissae that are not strictly ascending (NaN
//   included) give the empty spline, like the default one: degree() is 0 and eval, integrate,
//   length, min and max return NaN, render writes NaN;
// - eval at a NaN abscissa is NaN (the piece search always ends), and so are integrate and length
//   with a NaN limit;
// - render with count 1 writes the value at the first knot; count below 1 or a null out writes
//   nothing;
// - length with steps 0 is 0, as with negative steps (no sample intervals);
// - in a degree 3 spline a piece with d = 0 is searched as the quadratic it is: its one stationary
//   point -b / (2c) counts when the second derivative there is positive.

namespace DataLayer {

class CNaturalSpline
{
public:
    /// The empty spline.
    CNaturalSpline() = default;
    /// Through the count points (x[i], y[i]), x strictly ascending. degree is clamped to 1..3, to
    /// at most 2 for three points and to 1 for two.
    CNaturalSpline(const double* x, const double* y, int count, int degree);
    CNaturalSpline(const CNaturalSpline& other);
    CNaturalSpline(CNaturalSpline&& other) noexcept;
    ~CNaturalSpline();
    CNaturalSpline& operator=(const CNaturalSpline& other);
    CNaturalSpline& operator=(CNaturalSpline&& other) noexcept;

    /// The degree in use after clamping; 0 for the empty spline.
    int degree() const { return m_degree; }

    /// Derivative 0 to 3 at x; 0 for a derivative above the degree or below 0. Outside the knots
    /// the end pieces continue as polynomials; a knot belongs to the piece on its right, the last
    /// knot to the last piece.
    double eval(double x, int derivative) const;
    double operator()(double x, int derivative) const { return eval(x, derivative); }
    /// Signed definite integral from from to to.
    double integrate(double from, double to) const;
    /// Arc length of the graph by the composite Simpson rule on steps intervals (an even number
    /// is expected, any is used); steps below 1 give 0.
    double length(double from, double to, int steps) const;
    /// Abscissa of the global minimum (maximum) on the knot range; the first wins a tie.
    double min() const;
    double max() const;
    /// count samples of the given derivative at equal distances from the first knot to the last.
    void render(double* out, int count, int derivative) const;

private:
    void computeCoeffs1(const double* x, const double* y);
    void computeCoeffs2(const double* x, const double* y);
    void computeCoeffs3(const double* x, const double* y);
    /// The extremum search of each degree on the spline times sign (1 minimum, -1 maximum).
    double min1(double sign) const;
    double min2(double sign) const;
    double min3(double sign) const;
    int piece(double x) const;
    double evalPiece(int i, double t, int derivative) const;
    void release();
    void copyFrom(const CNaturalSpline& other);

    int m_intervals = 0;
    int m_degree = 0;
    double* m_knots = nullptr;
    double* m_a = nullptr;
    double* m_b = nullptr;
    double* m_c = nullptr;
    double* m_d = nullptr;
};

} // namespace DataLayer
