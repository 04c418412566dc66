#pragma once
// DataLayer::Polynomial: closed-form roots of polynomial equations of degree 2, 3 and 4 over the
// complex numbers, with fixed run time and no allocation. Coefficients come by descending power
// (c[0] is the leading one); the roots go into the caller's array. Pure functions: any thread.
//
// Every function returns false and writes nothing when its leading coefficient is below
// eps = 2.2204e-16 or NaN (Roots2, Roots3: by std::abs; Roots4: by the magnitude of its real part).
// A null c or r also gives false. Zero tests inside use the same absolute eps, so the branch taken depends on
// the scale of the coefficients; Roots3 and Roots4 are formulas for real coefficients (imaginary parts are
// carried but the cubic's case choice and its second pair of roots assume real input). Choices made here:
// Roots3 first divides by its leading coefficient, so a negative (or complex) leading coefficient gives the
// roots too and the zero test on the constant applies to d / a; in the double-root case of Roots3 the cube
// root of a real g / 2 is the real one, which is a root also for negative g (the principal complex cube root
// would not be).

#include <complex>

namespace DataLayer::Polynomial {

/// Roots of c[0] x^2 + c[1] x + c[2] into r[0], r[1]; a constant below eps gives 0 then -c[1] / c[0].
bool Roots2(const std::complex<double>* c, std::complex<double>* r);
/// Roots of c[0] x^3 + c[1] x^2 + c[2] x + c[3] into r[0..2]; with firstOnly only r[0] is written.
bool Roots3(const std::complex<double>* c, std::complex<double>* r, bool firstOnly);
/// Roots of c[0] x^4 + ... + c[4] into r[0..3], through the resolvent cubic.
bool Roots4(const std::complex<double>* c, std::complex<double>* r);

} // namespace DataLayer::Polynomial
