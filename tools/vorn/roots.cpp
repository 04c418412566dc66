#include "roots.h"

#include <complex>
#include <cstdio>
#include <vector>

#include "datalayer/algorithms/curves/polynomial.h"

VornCommand AddRootsCommand(CLI::App& app)
{
    CLI::App* sub = app.add_subcommand(
        "roots", "Roots of a polynomial of degree 2 to 4 in closed form; coefficients highest power first");
    auto coefficients = std::make_shared<std::vector<double>>();
    sub->add_option("coefficients", *coefficients, "3, 4 or 5 real coefficients, highest power first")
        ->required()
        ->expected(3, 5);
    return {sub, [coefficients]() {
                const std::vector<std::complex<double>> c(coefficients->begin(), coefficients->end());
                std::complex<double> r[4];
                bool ok = false;
                if (c.size() == 3)
                    ok = DataLayer::Polynomial::Roots2(c.data(), r);
                else if (c.size() == 4)
                    ok = DataLayer::Polynomial::Roots3(c.data(), r, false);
                else
                    ok = DataLayer::Polynomial::Roots4(c.data(), r);
                if (!ok) {
                    std::printf("no roots: the leading coefficient is zero\n");
                    return 1;
                }
                for (size_t i = 0; i + 1 < c.size(); ++i)
                    std::printf("%.12g %+.12gi\n", r[i].real() + 0.0, r[i].imag() + 0.0); // no "-0"
                return 0;
            }};
}
