// The NIST StRD nonlinear regression problems, fitted by CNLSSolver (finite-difference Jacobian, one
// descent, no multistart) and, in the same run on the same data, by MINPACK's lmdif and by GSL's
// gsl_multifit_nlinear (trust region, finite differences). Prints one Markdown row per dataset and
// start: the log relative error (correct significant digits) of the worst parameter and of the
// residual sum of squares against the certified values, the number of residual evaluations, and the
// time of this library's fit divided by each peer's.
//
// Usage: vorn2_nist_strd [--max-iterations=N] [--tau=T] [--fd-step=S] [--fd-relative]
//                        [--peer-tol=T] [--min-time=SECONDS] [--filter=NAME] [--dir=PATH]
// --fd-step is the step of the order-4 central differences (the objective's own errorFDDerivatives);
// with the default 0.000123 and no --fd-relative the objective's base Jacobian is used unchanged.
// --fd-relative scales the step by max(|x_i|, 1e-8) per parameter.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <numbers>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "datalayer/algorithms/optimisation/cnlssolver.h"

#ifdef VORN2_HAVE_PEERS
#include <cminpack.h>
#include <gsl/gsl_errno.h>
#include <gsl/gsl_multifit_nlinear.h>
#include <gsl/gsl_vector.h>
#endif

namespace {

using Model = std::function<double(const double* b, const double* x)>;

double Pi()
{
    return std::numbers::pi;
}

/// The models as the dataset headers state them; x points to the predictors of one observation.
const std::map<std::string, Model>& Models()
{
    static const std::map<std::string, Model> models = [] {
        std::map<std::string, Model> m;
        auto exp1 = [](const double* b, const double* x) { return b[0] * (1.0 - std::exp(-b[1] * x[0])); };
        auto lanczos = [](const double* b, const double* x) {
            return b[0] * std::exp(-b[1] * x[0]) + b[2] * std::exp(-b[3] * x[0]) +
                   b[4] * std::exp(-b[5] * x[0]);
        };
        auto gauss = [](const double* b, const double* x) {
            const double u = (x[0] - b[3]) / b[4];
            const double v = (x[0] - b[6]) / b[7];
            return b[0] * std::exp(-b[1] * x[0]) + b[2] * std::exp(-u * u) + b[5] * std::exp(-v * v);
        };
        auto rational3 = [](const double* b, const double* x) {
            const double t = x[0];
            return (b[0] + b[1] * t + b[2] * t * t + b[3] * t * t * t) /
                   (1.0 + b[4] * t + b[5] * t * t + b[6] * t * t * t);
        };
        auto chwirut = [](const double* b, const double* x) {
            return std::exp(-b[0] * x[0]) / (b[1] + b[2] * x[0]);
        };
        m["Misra1a"] = exp1;
        m["BoxBOD"] = exp1;
        m["Chwirut1"] = chwirut;
        m["Chwirut2"] = chwirut;
        m["Lanczos1"] = lanczos;
        m["Lanczos2"] = lanczos;
        m["Lanczos3"] = lanczos;
        m["Gauss1"] = gauss;
        m["Gauss2"] = gauss;
        m["Gauss3"] = gauss;
        m["Hahn1"] = rational3;
        m["Thurber"] = rational3;
        m["DanWood"] = [](const double* b, const double* x) { return b[0] * std::pow(x[0], b[1]); };
        m["Misra1b"] = [](const double* b, const double* x) {
            return b[0] * (1.0 - std::pow(1.0 + b[1] * x[0] / 2.0, -2.0));
        };
        m["Misra1c"] = [](const double* b, const double* x) {
            return b[0] * (1.0 - std::pow(1.0 + 2.0 * b[1] * x[0], -0.5));
        };
        m["Misra1d"] = [](const double* b, const double* x) {
            return b[0] * b[1] * x[0] / (1.0 + b[1] * x[0]);
        };
        m["Kirby2"] = [](const double* b, const double* x) {
            const double t = x[0];
            return (b[0] + b[1] * t + b[2] * t * t) / (1.0 + b[3] * t + b[4] * t * t);
        };
        // log(y) is the response; the loader takes the logarithm of the data.
        m["Nelson"] = [](const double* b, const double* x) {
            return b[0] - b[1] * x[0] * std::exp(-b[2] * x[1]);
        };
        m["MGH17"] = [](const double* b, const double* x) {
            return b[0] + b[1] * std::exp(-x[0] * b[3]) + b[2] * std::exp(-x[0] * b[4]);
        };
        m["Roszman1"] = [](const double* b, const double* x) {
            return b[0] - b[1] * x[0] - std::atan(b[2] / (x[0] - b[3])) / Pi();
        };
        m["ENSO"] = [](const double* b, const double* x) {
            const double t = x[0];
            const double w = 2.0 * Pi() * t;
            return b[0] + b[1] * std::cos(w / 12.0) + b[2] * std::sin(w / 12.0) + b[4] * std::cos(w / b[3]) +
                   b[5] * std::sin(w / b[3]) + b[7] * std::cos(w / b[6]) + b[8] * std::sin(w / b[6]);
        };
        m["MGH09"] = [](const double* b, const double* x) {
            const double t = x[0];
            return b[0] * (t * t + t * b[1]) / (t * t + t * b[2] + b[3]);
        };
        m["Rat42"] = [](const double* b, const double* x) {
            return b[0] / (1.0 + std::exp(b[1] - b[2] * x[0]));
        };
        m["MGH10"] = [](const double* b, const double* x) { return b[0] * std::exp(b[1] / (x[0] + b[2])); };
        m["Eckerle4"] = [](const double* b, const double* x) {
            const double u = (x[0] - b[2]) / b[1];
            return (b[0] / b[1]) * std::exp(-0.5 * u * u);
        };
        m["Rat43"] = [](const double* b, const double* x) {
            return b[0] / std::pow(1.0 + std::exp(b[1] - b[2] * x[0]), 1.0 / b[3]);
        };
        m["Bennett5"] = [](const double* b, const double* x) {
            return b[0] * std::pow(b[1] + x[0], -1.0 / b[2]);
        };
        return m;
    }();
    return models;
}

struct Dataset
{
    std::string name;
    int params = 0;
    int predictors = 1;
    std::vector<double> start[2];
    std::vector<double> certified;
    double certifiedRss = 0.0;
    std::vector<double> y;
    std::vector<double> x; // row-major, `predictors` per observation
    Model model;

    int Observations() const { return static_cast<int>(y.size()); }
    void Residuals(const double* b, double* r) const
    {
        for (int i = 0; i < Observations(); ++i)
            r[i] = model(b, &x[static_cast<std::size_t>(i * predictors)]) - y[static_cast<std::size_t>(i)];
    }
    double Rss(const std::vector<double>& b) const
    {
        std::vector<double> r(y.size());
        Residuals(b.data(), r.data());
        double s = 0.0;
        for (double v : r)
            s += v * v;
        return s;
    }
};

/// Reads one .dat file: "bN = start1 start2 certified sd" lines, the certified RSS, and the data
/// rows after the second "Data:" line. False if the file can't be read or parsed.
bool Load(const std::string& path, const std::string& name, Dataset& d)
{
    std::ifstream in(path);
    if (!in)
        return false;
    d.name = name;
    d.model = Models().at(name);
    d.predictors = name == "Nelson" ? 2 : 1;
    const std::regex param(R"(^\s*b(\d+)\s*=\s*(\S+)\s+(\S+)\s+(\S+)\s+(\S+))");
    std::string line;
    int dataHeaders = 0;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        std::smatch m;
        if (dataHeaders < 2 && std::regex_search(line, m, param)) {
            d.start[0].push_back(std::stod(m[2]));
            d.start[1].push_back(std::stod(m[3]));
            d.certified.push_back(std::stod(m[4]));
            continue;
        }
        if (line.find("Residual Sum of Squares:") != std::string::npos) {
            d.certifiedRss = std::stod(line.substr(line.find(':') + 1));
            continue;
        }
        if (line.rfind("Data:", 0) == 0) {
            ++dataHeaders;
            continue;
        }
        if (dataHeaders >= 2) {
            std::istringstream row(line);
            double v = 0.0;
            std::vector<double> values;
            while (row >> v)
                values.push_back(v);
            if (static_cast<int>(values.size()) != 1 + d.predictors)
                continue;
            d.y.push_back(name == "Nelson" ? std::log(values[0]) : values[0]);
            for (int j = 0; j < d.predictors; ++j)
                d.x.push_back(values[static_cast<std::size_t>(1 + j)]);
        }
    }
    d.params = static_cast<int>(d.certified.size());
    return d.params > 0 && !d.y.empty() && d.certifiedRss > 0.0;
}

/// Correct significant digits of q against c, from 0 to 11 (the digits the certified values carry).
double Lre(double q, double c)
{
    if (!std::isfinite(q))
        return 0.0;
    const double err = c == 0.0 ? std::abs(q) : std::abs(q - c) / std::abs(c);
    if (err == 0.0)
        return 11.0;
    return std::clamp(-std::log10(err), 0.0, 11.0);
}

struct Settings
{
    int maxIterations = 1000;
    double tau = 1e-3;
    double fdStep = 0.000123;
    bool fdRelative = false;
    double peerTol = 1e-10;
    double minTime = 0.05;
    std::string filter;
    std::string dir = std::string(VORN2_ANCHORS_DIR) + "/nist-strd";
};

struct Fit
{
    std::vector<double> b;
    long evaluations = 0;
    int status = 0;
    double seconds = 0.0;
};

/// The residuals of a dataset as a CNLSObjectiveFunction; counts Error() calls.
class NistObjective : public DataLayer::CNLSObjectiveFunction
{
public:
    NistObjective(const Dataset& d, const Settings& s)
        : CNLSObjectiveFunction(d.params, d.Observations()), data(d), settings(s)
    {
    }
    TVector<double> Error(const TVector<double>& b) override
    {
        ++evaluations;
        TVector<double> r(data.Observations());
        data.Residuals(b.Data(), r.Data());
        return r;
    }
    TMatrix<double> Jacobian(const TVector<double>& z) override
    {
        if (!settings.fdRelative && settings.fdStep == 0.000123)
            return CNLSObjectiveFunction::Jacobian(z);
        TVector<double> b = BuildParamsFromFree(z);
        const int m = data.Observations();
        TMatrix<double> J(m, z.Size());
        for (int j = 0; j < z.Size(); ++j) {
            const double step =
                settings.fdRelative ? settings.fdStep * std::max(std::abs(b[j]), 1e-8) : settings.fdStep;
            const TVector<double> column = errorFDDerivatives(b, j, step, 4);
            std::copy(column.Data(), column.Data() + m, J.Data() + static_cast<long long>(j) * m);
        }
        return J;
    }
    long evaluations = 0;

private:
    const Dataset& data;
    const Settings& settings;
};

Fit FitOurs(const Dataset& d, const std::vector<double>& start, const Settings& s)
{
    NistObjective objective(d, s);
    DataLayer::CNLSSolver solver(objective, false, 0);
    solver.SetLogging(false);
    TVector<double> x(d.params);
    std::copy(start.begin(), start.end(), x.Data());
    double rmse = 0.0;
    Fit fit;
    fit.status = solver.Run(x, rmse, s.maxIterations, s.tau, 0, DataLayer::CNLSSolver::Gibbs);
    fit.b.assign(x.Data(), x.Data() + x.Size());
    fit.evaluations = objective.evaluations;
    return fit;
}

#ifdef VORN2_HAVE_PEERS
struct PeerContext
{
    const Dataset* data;
    long evaluations = 0;
    std::vector<double> scratch;
};

int MinpackResiduals(void* p, int, int, const double* x, double* fvec, int)
{
    auto* context = static_cast<PeerContext*>(p);
    ++context->evaluations;
    context->data->Residuals(x, fvec);
    return 0;
}

/// lmdif as lmdif1 calls it (scaling mode 1, factor 100, epsfcn 0), with ftol = xtol = peer tolerance
/// and gtol 0, at most 200 (n + 1) evaluations.
Fit FitMinpack(const Dataset& d, const std::vector<double>& start, const Settings& s)
{
    const int m = d.Observations();
    const int n = d.params;
    PeerContext context{&d, 0, {}};
    std::vector<double> x(start), fvec(static_cast<std::size_t>(m)), diag(static_cast<std::size_t>(n)),
        fjac(static_cast<std::size_t>(m * n)), qtf(static_cast<std::size_t>(n)),
        wa1(static_cast<std::size_t>(n)), wa2(static_cast<std::size_t>(n)), wa3(static_cast<std::size_t>(n)),
        wa4(static_cast<std::size_t>(m));
    std::vector<int> ipvt(static_cast<std::size_t>(n));
    int nfev = 0;
    Fit fit;
    fit.status = lmdif(MinpackResiduals, &context, m, n, x.data(), fvec.data(), s.peerTol, s.peerTol, 0.0,
                       200 * (n + 1), 0.0, diag.data(), 1, 100.0, 0, &nfev, fjac.data(), m, ipvt.data(),
                       qtf.data(), wa1.data(), wa2.data(), wa3.data(), wa4.data());
    fit.b = x;
    fit.evaluations = context.evaluations;
    return fit;
}

int GslResiduals(const gsl_vector* x, void* p, gsl_vector* f)
{
    // The finite-difference Jacobian hands in columns of its row-major matrix: strides apply.
    auto* context = static_cast<PeerContext*>(p);
    ++context->evaluations;
    double b[16];
    for (std::size_t j = 0; j < x->size; ++j)
        b[j] = gsl_vector_get(x, j);
    std::vector<double>& r = context->scratch;
    r.resize(f->size);
    context->data->Residuals(b, r.data());
    for (std::size_t i = 0; i < f->size; ++i)
        gsl_vector_set(f, i, r[i]);
    return GSL_SUCCESS;
}

/// gsl_multifit_nlinear: trust region with Levenberg-Marquardt steps, More scaling, QR, forward
/// differences; xtol = gtol = peer tolerance, ftol 0, at most maxIterations iterations.
Fit FitGsl(const Dataset& d, const std::vector<double>& start, const Settings& s)
{
    const std::size_t m = static_cast<std::size_t>(d.Observations());
    const std::size_t n = static_cast<std::size_t>(d.params);
    PeerContext context{&d, 0, {}};
    gsl_multifit_nlinear_parameters params = gsl_multifit_nlinear_default_parameters();
    params.trs = gsl_multifit_nlinear_trs_lm;
    gsl_multifit_nlinear_fdf fdf{};
    fdf.f = GslResiduals;
    fdf.df = nullptr;
    fdf.fvv = nullptr;
    fdf.n = m;
    fdf.p = n;
    fdf.params = &context;
    gsl_multifit_nlinear_workspace* w = gsl_multifit_nlinear_alloc(gsl_multifit_nlinear_trust, &params, m, n);
    gsl_vector_const_view x0 = gsl_vector_const_view_array(start.data(), n);
    Fit fit;
    gsl_multifit_nlinear_init(&x0.vector, &fdf, w);
    int info = 0;
    fit.status = gsl_multifit_nlinear_driver(static_cast<std::size_t>(s.maxIterations), s.peerTol, s.peerTol,
                                             0.0, nullptr, nullptr, &info, w);
    const gsl_vector* x = gsl_multifit_nlinear_position(w);
    fit.b.assign(gsl_vector_const_ptr(x, 0), gsl_vector_const_ptr(x, 0) + n);
    gsl_multifit_nlinear_free(w);
    fit.evaluations = context.evaluations;
    return fit;
}
#endif

/// Runs the fit once for its result, then repeats it for at least minTime seconds (and 3 times).
template <typename F> Fit Timed(F fit, const Settings& s)
{
    Fit result = fit();
    using Clock = std::chrono::steady_clock;
    const Clock::time_point begin = Clock::now();
    int repeats = 0;
    double elapsed = 0.0;
    do {
        Fit again = fit();
        if (again.b != result.b)
            std::fprintf(stderr, "warning: a repeated fit differs\n");
        ++repeats;
        elapsed = std::chrono::duration<double>(Clock::now() - begin).count();
    } while (elapsed < s.minTime || repeats < 3);
    result.seconds = elapsed / repeats;
    return result;
}

double WorstParameterLre(const Dataset& d, const Fit& f)
{
    double worst = 11.0;
    for (int j = 0; j < d.params; ++j)
        worst =
            std::min(worst, Lre(f.b[static_cast<std::size_t>(j)], d.certified[static_cast<std::size_t>(j)]));
    return worst;
}

bool ParseArguments(int argc, char** argv, Settings& s)
{
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&](const char* key, std::string& out) {
            const std::string prefix = std::string(key) + "=";
            if (a.rfind(prefix, 0) != 0)
                return false;
            out = a.substr(prefix.size());
            return true;
        };
        std::string v;
        if (value("--max-iterations", v))
            s.maxIterations = std::atoi(v.c_str());
        else if (value("--tau", v))
            s.tau = std::atof(v.c_str());
        else if (value("--fd-step", v))
            s.fdStep = std::atof(v.c_str());
        else if (a == "--fd-relative")
            s.fdRelative = true;
        else if (value("--peer-tol", v))
            s.peerTol = std::atof(v.c_str());
        else if (value("--min-time", v))
            s.minTime = std::atof(v.c_str());
        else if (value("--filter", v))
            s.filter = v;
        else if (value("--dir", v))
            s.dir = v;
        else {
            std::fprintf(stderr, "unknown argument %s\n", a.c_str());
            return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    Settings s;
    if (!ParseArguments(argc, argv, s))
        return 2;
#ifdef VORN2_HAVE_PEERS
    gsl_set_error_handler_off();
#endif
    const char* order[] = {"Misra1a", "Chwirut2", "Chwirut1", "Lanczos3", "Gauss1", "Gauss2",   "DanWood",
                           "Misra1b", "Kirby2",   "Hahn1",    "Nelson",   "MGH17",  "Lanczos1", "Lanczos2",
                           "Gauss3",  "Misra1c",  "Misra1d",  "Roszman1", "ENSO",   "MGH09",    "Thurber",
                           "BoxBOD",  "Rat42",    "MGH10",    "Eckerle4", "Rat43",  "Bennett5"};
    std::printf(
        "NIST StRD nonlinear regression. CNLSSolver: maxIterations %d, tau %g, order-4 differences with "
        "%s step %g%s; one descent. ",
        s.maxIterations, s.tau, s.fdRelative ? "relative" : "absolute", s.fdStep,
        (!s.fdRelative && s.fdStep == 0.000123) ? " (the objective's own Jacobian)" : "");
#ifdef VORN2_HAVE_PEERS
    std::printf(
        "lmdif: ftol = xtol = %g, gtol 0, maxfev 200 (n + 1), mode 1, factor 100. GSL: trust region LM, "
        "More scaling, QR, forward differences, xtol = gtol = %g, ftol 0, maxiter %d.\n\n",
        s.peerTol, s.peerTol, s.maxIterations);
    std::printf(
        "| dataset | start | LRE params ours / lmdif / GSL | LRE RSS ours / lmdif / GSL | evaluations ours / "
        "lmdif / GSL | result | time ours/lmdif | time ours/GSL |\n");
    std::printf("|---|---|---|---|---|---|---|---|\n");
#else
    std::printf("(built without the peers)\n\n");
    std::printf("| dataset | start | LRE params | LRE RSS | evaluations | result | time (ms) |\n");
    std::printf("|---|---|---|---|---|---|---|\n");
#endif
    int good[2] = {0, 0};
    int total[2] = {0, 0};
    long evalSum[3] = {0, 0, 0};
    double logRatio[2] = {0.0, 0.0};
    int ratioCount = 0;
    for (const char* name : order) {
        if (!s.filter.empty() && s.filter != name)
            continue;
        Dataset d;
        if (!Load(s.dir + "/" + name + ".dat", name, d)) {
            std::fprintf(stderr, "cannot read %s/%s.dat\n", s.dir.c_str(), name);
            return 2;
        }
        for (int k = 0; k < 2; ++k) {
            const std::vector<double>& start = d.start[k];
            const Fit ours = Timed([&] { return FitOurs(d, start, s); }, s);
            const double lreP = WorstParameterLre(d, ours);
            const double lreR = Lre(d.Rss(ours.b), d.certifiedRss);
            ++total[k];
            if (lreP >= 6.0)
                ++good[k];
            evalSum[0] += ours.evaluations;
            const char* text = DataLayer::CNLSSolver::GetResultText(
                static_cast<DataLayer::CNLSSolver::EResult>(ours.status));
#ifdef VORN2_HAVE_PEERS
            const Fit mp = Timed([&] { return FitMinpack(d, start, s); }, s);
            const Fit gs = Timed([&] { return FitGsl(d, start, s); }, s);
            evalSum[1] += mp.evaluations;
            evalSum[2] += gs.evaluations;
            logRatio[0] += std::log(ours.seconds / mp.seconds);
            logRatio[1] += std::log(ours.seconds / gs.seconds);
            ++ratioCount;
            std::printf("| %s | %d | %.1f / %.1f / %.1f | %.1f / %.1f / %.1f | %ld / %ld / %ld | %s | %.2f | "
                        "%.2f |\n",
                        name, k + 1, lreP, WorstParameterLre(d, mp), WorstParameterLre(d, gs), lreR,
                        Lre(d.Rss(mp.b), d.certifiedRss), Lre(d.Rss(gs.b), d.certifiedRss), ours.evaluations,
                        mp.evaluations, gs.evaluations, text, ours.seconds / mp.seconds,
                        ours.seconds / gs.seconds);
#else
            std::printf("| %s | %d | %.1f | %.1f | %ld | %s | %.3f |\n", name, k + 1, lreP, lreR,
                        ours.evaluations, text, ours.seconds * 1e3);
#endif
            std::fflush(stdout);
        }
    }
    std::printf("\nCNLSSolver: %d of %d fits from start 1 and %d of %d from start 2 with at least 6 correct "
                "digits in "
                "every parameter. Evaluations in total: ours %ld",
                good[0], total[0], good[1], total[1], evalSum[0]);
#ifdef VORN2_HAVE_PEERS
    std::printf(", lmdif %ld, GSL %ld. Geometric mean time ratio: ours/lmdif %.2f, ours/GSL %.2f.\n",
                evalSum[1], evalSum[2], std::exp(logRatio[0] / std::max(ratioCount, 1)),
                std::exp(logRatio[1] / std::max(ratioCount, 1)));
#else
    std::printf(".\n");
#endif
    return 0;
}
