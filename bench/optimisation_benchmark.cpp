// Dense simplex on seeded random feasible, bounded programs: this library's CLPSolver against GLPK's
// primal simplex (presolve off) on the same instances. A has entries in [0.1, 1], b in [1, 2] and
// c in [0.1, 1], so the slack basis is feasible and the optimum is finite.
#include <benchmark/benchmark.h>
#include <random>
#include <vector>

#include "datalayer/algorithms/optimisation/clpsolver.h"

#ifdef VORN2_HAVE_PEERS
#include <glpk.h>
#endif

namespace {

struct DenseProgram
{
    TMatrix<double> A;
    TVector<double> b;
    TVector<double> c;
};

const std::vector<DenseProgram>& programs30x30()
{
    static const std::vector<DenseProgram> programs = [] {
        std::mt19937_64 engine(47110815);
        std::uniform_real_distribution<double> entry(0.1, 1.0);
        std::uniform_real_distribution<double> rhs(1.0, 2.0);
        std::vector<DenseProgram> result;
        for (int k = 0; k < 16; ++k) {
            DenseProgram p{TMatrix<double>(30, 30), TVector<double>(30), TVector<double>(30)};
            for (int j = 0; j < 30; ++j)
                for (int i = 0; i < 30; ++i)
                    p.A(i, j) = entry(engine);
            for (int i = 0; i < 30; ++i)
                p.b[i] = rhs(engine);
            for (int j = 0; j < 30; ++j)
                p.c[j] = entry(engine);
            result.push_back(std::move(p));
        }
        return result;
    }();
    return programs;
}

double objective(const DenseProgram& p, const TVector<double>& x)
{
    double value = 0.0;
    for (int j = 0; j < x.Size(); ++j)
        value += p.c[j] * x[j];
    return value;
}

void BM_CLPSolver_Dense30x30(benchmark::State& state)
{
    const std::vector<DenseProgram>& programs = programs30x30();
    std::size_t next = 0;
    double total = 0.0;
    for (auto _ : state) {
        const DenseProgram& p = programs[next++ % programs.size()];
        DataLayer::CLPSolver lp(p.A, p.b, p.c);
        if (!lp.Run() || lp.GetStatus() != DataLayer::CLPSolver::LPOptimal) {
            state.SkipWithError("program not solved to optimality");
            break;
        }
        const TVector<double> x = lp.GetSolution(nullptr);
        total += objective(p, x);
        benchmark::DoNotOptimize(total);
    }
}
BENCHMARK(BM_CLPSolver_Dense30x30);

#ifdef VORN2_HAVE_PEERS
void BM_GLPK_Dense30x30(benchmark::State& state)
{
    const std::vector<DenseProgram>& programs = programs30x30();
    // The triplet arrays of each program are built outside the timed loop, like the solver's input.
    std::vector<std::vector<int>> rowIndex(programs.size());
    std::vector<std::vector<int>> colIndex(programs.size());
    std::vector<std::vector<double>> values(programs.size());
    for (std::size_t k = 0; k < programs.size(); ++k) {
        rowIndex[k].push_back(0);
        colIndex[k].push_back(0);
        values[k].push_back(0.0);
        for (int i = 0; i < 30; ++i)
            for (int j = 0; j < 30; ++j) {
                rowIndex[k].push_back(i + 1);
                colIndex[k].push_back(j + 1);
                values[k].push_back(programs[k].A(i, j));
            }
    }
    glp_smcp parm;
    glp_init_smcp(&parm);
    parm.msg_lev = GLP_MSG_OFF;
    parm.presolve = GLP_OFF;
    std::size_t next = 0;
    double total = 0.0;
    for (auto _ : state) {
        const std::size_t k = next++ % programs.size();
        const DenseProgram& p = programs[k];
        glp_prob* lp = glp_create_prob();
        glp_set_obj_dir(lp, GLP_MAX);
        glp_add_rows(lp, 30);
        glp_add_cols(lp, 30);
        for (int i = 0; i < 30; ++i)
            glp_set_row_bnds(lp, i + 1, GLP_UP, 0.0, p.b[i]);
        for (int j = 0; j < 30; ++j) {
            glp_set_col_bnds(lp, j + 1, GLP_LO, 0.0, 0.0);
            glp_set_obj_coef(lp, j + 1, p.c[j]);
        }
        glp_load_matrix(lp, 900, rowIndex[k].data(), colIndex[k].data(), values[k].data());
        const int ret = glp_simplex(lp, &parm);
        if (ret != 0 || glp_get_status(lp) != GLP_OPT) {
            glp_delete_prob(lp);
            state.SkipWithError("GLPK did not reach an optimum");
            break;
        }
        total += glp_get_obj_val(lp);
        glp_delete_prob(lp);
        benchmark::DoNotOptimize(total);
    }
}
BENCHMARK(BM_GLPK_Dense30x30);
#endif

} // namespace
