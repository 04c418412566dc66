#include <cmath>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "datalayer/algorithms/optimisation/ctspsolver.h"
#include "test_support.h"
#include "tools/vorn/tsplib/tsplibfile.h"

namespace {

std::string tsplibDir()
{
    return vorn2test::AnchorsDir() + "/tsplib";
}

tsplib::Instance parse(const std::string& text)
{
    std::istringstream in(text);
    return tsplib::Read(in);
}

// The 1-based node list of an .opt.tour file, up to its -1.
std::vector<int> readOptimalTour(const std::string& path)
{
    std::ifstream in(path);
    std::string word;
    while (in >> word && word != "TOUR_SECTION") {
    }
    std::vector<int> tour;
    int node = 0;
    while (in >> node && node != -1)
        tour.push_back(node - 1);
    return tour;
}

double closedLength(const TMatrix<double>& D, const std::vector<int>& t)
{
    double sum = 0.0;
    for (std::size_t k = 0; k < t.size(); ++k)
        sum += D(t[k], t[(k + 1) % t.size()]);
    return sum;
}

// instance -> optimal length, from the published list beside the instances.
std::map<std::string, double> optimalLengths()
{
    std::ifstream in(tsplibDir() + "/optimal_tour_lengths.csv");
    std::map<std::string, double> result;
    std::string line;
    std::getline(in, line); // header
    while (std::getline(in, line)) {
        std::vector<std::string> fields;
        std::istringstream row(line);
        std::string field;
        while (std::getline(row, field, ','))
            fields.push_back(field);
        if (fields.size() >= 4)
            result[fields[0]] = std::stod(fields[3]);
    }
    return result;
}

const char* const kSmall = "NAME: tiny\n"
                           "TYPE: TSP\n"
                           "COMMENT: three nodes\n"
                           "DIMENSION: 3\n"
                           "EDGE_WEIGHT_TYPE: EUC_2D\n"
                           "NODE_COORD_SECTION\n"
                           "1 0 0\n"
                           "2 3 4\n"
                           "3 0 1.5\n"
                           "EOF\n";

} // namespace

TEST(Tsplib, ReadsAnAnchorsInstance)
{
    const tsplib::Instance berlin = tsplib::ReadFile(tsplibDir() + "/berlin52.tsp");
    EXPECT_EQ(berlin.name, "berlin52");
    ASSERT_EQ(berlin.Size(), 52);
    EXPECT_EQ(berlin.x[0], 565.0);
    EXPECT_EQ(berlin.y[0], 575.0);
    EXPECT_EQ(berlin.x[51], 1740.0);
    EXPECT_EQ(berlin.y[51], 245.0);
    // Exponent notation, "KEY : value" headers.
    const tsplib::Instance rd100 = tsplib::ReadFile(tsplibDir() + "/rd100.tsp");
    ASSERT_EQ(rd100.Size(), 100);
    EXPECT_EQ(rd100.name, "rd100");
}

// The published optimal tours, measured with the rounded distances, have exactly the published
// optimal lengths: an independent check of the reader and of TSPLIB's nint rule.
TEST(Tsplib, OptimalToursHaveThePublishedLengths)
{
    const std::map<std::string, double> optimum = optimalLengths();
    int checked = 0;
    for (const char* name : {"eil51", "berlin52", "st70", "eil76", "pr76", "kroA100", "rd100", "ch130",
                             "a280", "lin105", "tsp225"}) {
        const tsplib::Instance instance = tsplib::ReadFile(tsplibDir() + "/" + name + ".tsp");
        const std::vector<int> tour = readOptimalTour(tsplibDir() + "/opt_tours/" + name + ".opt.tour");
        ASSERT_EQ(static_cast<int>(tour.size()), instance.Size()) << name;
        EXPECT_EQ(closedLength(tsplib::Distances(instance, false), tour), optimum.at(name)) << name;
        ++checked;
    }
    EXPECT_EQ(checked, 11);
    // Without rounding berlin52's optimal tour is 7544.3659 long.
    const tsplib::Instance berlin = tsplib::ReadFile(tsplibDir() + "/berlin52.tsp");
    EXPECT_NEAR(closedLength(tsplib::Distances(berlin, true),
                             readOptimalTour(tsplibDir() + "/opt_tours/berlin52.opt.tour")),
                7544.3659, 5e-5);
}

TEST(Tsplib, DistancesRoundHalfUpOrStayExact)
{
    const tsplib::Instance tiny = parse(kSmall);
    const TMatrix<double> rounded = tsplib::Distances(tiny, false);
    const TMatrix<double> exact = tsplib::Distances(tiny, true);
    EXPECT_EQ(rounded(0, 1), 5.0);
    EXPECT_EQ(rounded(0, 2), 2.0); // nint(1.5) = 2
    EXPECT_EQ(rounded(2, 0), 2.0);
    EXPECT_EQ(exact(0, 2), 1.5);
    EXPECT_DOUBLE_EQ(exact(1, 2), std::sqrt(9.0 + 2.5 * 2.5));
    EXPECT_EQ(rounded(1, 2), 4.0); // sqrt(15.25) = 3.905
    EXPECT_EQ(rounded(1, 1), 0.0);
}

TEST(Tsplib, AcceptsTheLeniencyOfRealFiles)
{
    // CRLF endings, "KEY : value" with spaces, blank lines, leading blanks, nodes out of order,
    // exponent notation, unknown keywords, and no EOF line.
    const tsplib::Instance a =
        parse("NAME : lenient\r\nTYPE : TSP\r\nDISPLAY_DATA_TYPE : COORD_DISPLAY\r\n"
              "DIMENSION : 2\r\nEDGE_WEIGHT_TYPE : EUC_2D\r\n\r\nNODE_COORD_SECTION\r\n"
              "   2   1.5e+02  -2\r\n\r\n1 0 0\r\n");
    ASSERT_EQ(a.Size(), 2);
    EXPECT_EQ(a.name, "lenient");
    EXPECT_EQ(a.x[1], 150.0);
    EXPECT_EQ(a.y[1], -2.0);
    // Anything after EOF is not read.
    EXPECT_EQ(parse(std::string(kSmall) + "garbage\n").Size(), 3);
}

TEST(Tsplib, MalformedInputNamesTheLineAndTheFault)
{
    const std::string head =
        "NAME: x\nTYPE: TSP\nDIMENSION: 3\nEDGE_WEIGHT_TYPE: EUC_2D\nNODE_COORD_SECTION\n";
    struct Case
    {
        std::string text;
        std::string message;
    };
    const std::vector<Case> cases = {
        {"", "no NODE_COORD_SECTION"},
        {"NAME: x\nTYPE: TOUR\n", "line 2: TYPE TOUR is not supported (only TSP)"},
        {"NAME: x\nDIMENSION: 3\nEDGE_WEIGHT_TYPE: GEO\n", "line 3: EDGE_WEIGHT_TYPE GEO is not supported"},
        {"DIMENSION: 0\n", "line 1: DIMENSION must be a whole number from 1 to 20000, got \"0\""},
        {"DIMENSION: -4\n", "DIMENSION must be a whole number"},
        {"DIMENSION: 3.5\n", "got \"3.5\""},
        {"DIMENSION: 20001\n", "got \"20001\""},
        {"DIMENSION: 99999999999999999999999\n", "DIMENSION must be a whole number"},
        {"EDGE_WEIGHT_TYPE: EUC_2D\nNODE_COORD_SECTION\n1 0 0\n",
         "line 2: NODE_COORD_SECTION before DIMENSION"},
        {"DIMENSION: 3\nNODE_COORD_SECTION\n1 0 0\n", "line 2: NODE_COORD_SECTION before EDGE_WEIGHT_TYPE"},
        {"DIMENSION: 3\nEDGE_WEIGHT_SECTION\n", "line 2: EDGE_WEIGHT_SECTION is not supported"},
        {"DIMENSION: 3\nEDGE_WEIGHT_TYPE: EUC_2D\nFIXED_EDGES_SECTION\n1 2\n-1\n",
         "line 3: FIXED_EDGES_SECTION is not supported"},
        {"this is not a header\n", "line 1: expected \"KEY : value\", got \"this is not a header\""},
        {head + "1 0 0\n2 1 1\n", "NODE_COORD_SECTION has 2 of 3 nodes"},
        {head + "1 0 0\n2 1 1\n4 2 2\n", "line 8: node 4 outside 1..3"},
        {head + "1 0 0\n0 1 1\n", "line 7: node 0 outside 1..3"},
        {head + "1 0 0\n1 1 1\n", "line 7: node 1 given twice"},
        {head + "1 0 0\n2 1\n", "line 7: expected \"id x y\""},
        {head + "1 0 0 7\n", "line 6: expected \"id x y\""},
        {head + "1 0 zero\n", "line 6: expected \"id x y\""},
        {head + "1.5 0 0\n", "line 6: expected \"id x y\""},
        {head + "1 nan 0\n", "line 6: expected \"id x y\" with finite coordinates"},
        {head + "1 0 inf\n", "line 6: expected \"id x y\" with finite coordinates"},
        {head + "1 0 1e400\n", "line 6: expected \"id x y\" with finite coordinates"},
        {head + "1 0 0\n2 1 1\n3 2 2\n4 3 3\n", "line 9: node 4 outside 1..3"},
    };
    for (const Case& c : cases) {
        try {
            parse(c.text);
            ADD_FAILURE() << "accepted:\n" << c.text;
        } catch (const tsplib::TsplibError& e) {
            EXPECT_NE(std::string(e.what()).find(c.message), std::string::npos)
                << "expected \"" << c.message << "\", got \"" << e.what() << "\"";
        }
    }
    EXPECT_THROW(tsplib::ReadFile(tsplibDir() + "/no-such-instance.tsp"), tsplib::TsplibError);
}

TEST(Tsplib, TourFileHasTheTsplibLayout)
{
    DataLayer::CPMatrix tour(3);
    tour[0] = 2;
    tour[1] = 0;
    tour[2] = 1;
    std::ostringstream out;
    tsplib::WriteTour(out, "tiny.tour", "closed tour of length 12", tour);
    EXPECT_EQ(out.str(), "NAME : tiny.tour\nCOMMENT : closed tour of length 12\nTYPE : TOUR\nDIMENSION : 3\n"
                         "TOUR_SECTION\n3\n1\n2\n-1\nEOF\n");
}

// The solver on TSPLIB instances with the rounded distances: never below the optimum, and with as
// many starts as nodes within 5 % of it (nearest neighbour + 2-opt typically lands 2-5 % above).
TEST(CTSPSolver, TsplibInstancesComeCloseToTheOptimum)
{
    const std::map<std::string, double> optimum = optimalLengths();
    for (const char* name : {"eil51", "berlin52", "st70", "eil76", "pr76", "rat99", "kroA100"}) {
        const tsplib::Instance instance = tsplib::ReadFile(tsplibDir() + "/" + name + ".tsp");
        const TMatrix<double> D = tsplib::Distances(instance, false);
        DataLayer::CTSPSolver solver;
        double length = 0.0;
        const DataLayer::CPMatrix tour = solver.SolveTSP(D, instance.Size(), length);
        ASSERT_EQ(tour.Size(), instance.Size()) << name;
        EXPECT_EQ(length, closedLength(D, std::vector<int>(tour.Data(), tour.Data() + tour.Size()))) << name;
        EXPECT_GE(length, optimum.at(name)) << name;
        EXPECT_LE(length, 1.05 * optimum.at(name)) << name;
    }
}
