#include <Eigen/Geometry>
#include <cmath>
#include <gtest/gtest.h>
#include <numbers>
#include <opencv2/core.hpp>
#include <stdexcept>
#include <vector>

#include "tools/vorn/render/targetrenderer.h"

namespace {

using TargetRender::MarkTruth;
using TargetRender::RenderedTarget;
using TargetRender::TargetSettings;

constexpr double kPi = std::numbers::pi;

TargetSettings smallTarget()
{
    TargetSettings s;
    s.width = 220;
    s.height = 170;
    s.columns = 4;
    s.rows = 3;
    s.spacing = 45;
    s.diameter = 21;
    return s;
}

// Darkness of the whole picture in units of one fully covered pixel: the drawn mark area.
double drawnArea(const RenderedTarget& t, const TargetSettings& s)
{
    const double ground = s.bright ? s.darkLevel : s.brightLevel;
    const double mark = s.bright ? s.brightLevel : s.darkLevel;
    double sum = 0;
    for (float v : t.grey)
        sum += (ground - double(v)) / (ground - mark);
    return sum;
}

// Area of the image of a plane disc under h, by integrating |det J| = |det H| / w^3 over the disc
// with the midpoint rule in polar coordinates: independent of the renderer's conic algebra.
double imageAreaByQuadrature(const std::array<double, 9>& h, double u0, double v0, double r)
{
    const Eigen::Matrix3d m = Eigen::Map<const Eigen::Matrix<double, 3, 3, Eigen::RowMajor>>(h.data());
    const double det = std::abs(m.determinant());
    const int nr = 600, na = 256; // the angular rule is spectrally accurate for a periodic integrand
    double area = 0;
    for (int i = 0; i < nr; ++i) {
        const double rho = (i + 0.5) * r / nr;
        for (int j = 0; j < na; ++j) {
            const double phi = (j + 0.5) * 2 * kPi / na;
            const double u = u0 + rho * std::cos(phi), v = v0 + rho * std::sin(phi);
            const double w = h[6] * u + h[7] * v + h[8];
            area += det / (w * w * w) * rho;
        }
    }
    return area * (r / nr) * (2 * kPi / na);
}

TEST(TargetRenderer, UntiltedTruthIsTheAnalyticGridWithOriginAndOmissions)
{
    TargetSettings s = smallTarget();
    s.originX = -2;
    s.originY = 5;
    s.omitted = {{0, 0}, {3, 2}};
    const RenderedTarget t = TargetRender::RenderTarget(s);
    ASSERT_EQ(t.truth.size(), 10u);
    std::size_t k = 0;
    for (int r = 0; r < s.rows; ++r)
        for (int c = 0; c < s.columns; ++c) {
            if ((c == 0 && r == 0) || (c == 3 && r == 2))
                continue;
            const MarkTruth& m = t.truth[k++];
            EXPECT_EQ(m.gridX, c - 2);
            EXPECT_EQ(m.gridY, r + 5);
            EXPECT_DOUBLE_EQ(m.x, (s.width - 1) / 2.0 + (c - 1.5) * s.spacing);
            EXPECT_DOUBLE_EQ(m.y, (s.height - 1) / 2.0 + (r - 1.0) * s.spacing);
        }
    EXPECT_EQ(t.pattern, (std::vector<std::string>{".xxx", "xxxx", "xxx."}));
    EXPECT_EQ(TargetRender::PatternText(t), ".xxx\nxxxx\nxxx.\n");
    const std::string csv = TargetRender::TruthCsv(t);
    EXPECT_EQ(csv.substr(0, csv.find('\n', 16) + 1), "gridX,gridY,x,y\n-1,5,87.000000,39.500000\n");
}

TEST(TargetRenderer, DrawnDiscAndRingAreasMatchTheAnalyticAreas)
{
    for (bool rings : {false, true})
        for (bool bright : {false, true}) {
            TargetSettings s = smallTarget();
            s.rings = rings;
            s.bright = bright;
            s.ringRatio = 0.5;
            // Off-grid sub-pixel placement through a pure translation.
            s.useHomography = true;
            s.homography = {1, 0, 109.37, 0, 1, 84.81, 0, 0, 1};
            const RenderedTarget t = TargetRender::RenderTarget(s);
            const double r = s.diameter / 2;
            const double one = kPi * r * r * (rings ? 1 - s.ringRatio * s.ringRatio : 1.0);
            // float grey values: about 1e-5 of a pixel per pixel.
            EXPECT_NEAR(drawnArea(t, s), 12 * one, 0.02) << "rings " << rings << " bright " << bright;
        }
}

TEST(TargetRenderer, ExactCoverageOfTiltedMarksMatchesQuadratureAndBruteForceSampling)
{
    TargetSettings s = smallTarget();
    s.tiltX = 35;
    s.tiltY = -25;
    s.tiltZ = 10;
    s.focal = 300;
    const std::array<double, 9> h = TargetRender::TargetHomography(s);
    const double r = s.diameter / 2;
    for (const auto& [u, v] : {std::pair{0.0, 0.0}, std::pair{-67.5, -45.0}, std::pair{67.5, 45.0}}) {
        double x = 0, y = 0;
        ASSERT_TRUE(TargetRender::ApplyHomography(h, u, v, x, y));
        double sum = 0;
        for (int py = int(y) - 40; py <= int(y) + 40; ++py)
            for (int px = int(x) - 40; px <= int(x) + 40; ++px)
                sum += TargetRender::PixelCoverage(h, u, v, r, px, py);
        EXPECT_NEAR(sum, imageAreaByQuadrature(h, u, v, r), 1e-6 * sum) << u << "," << v;
    }
    // Pixel by pixel against a 160 x 160 point count on the boundary pixels of one mark.
    double x = 0, y = 0;
    ASSERT_TRUE(TargetRender::ApplyHomography(h, 67.5, 45.0, x, y));
    const std::array<double, 9> hInverse = [&] {
        Eigen::Matrix3d m = Eigen::Map<const Eigen::Matrix<double, 3, 3, Eigen::RowMajor>>(h.data());
        Eigen::Matrix<double, 3, 3, Eigen::RowMajor> inv = m.inverse();
        std::array<double, 9> a;
        std::copy(inv.data(), inv.data() + 9, a.begin());
        return a;
    }();
    int partial = 0;
    for (int py = int(y) - 20; py <= int(y) + 20; ++py)
        for (int px = int(x) - 20; px <= int(x) + 20; ++px) {
            const double exact = TargetRender::PixelCoverage(h, 67.5, 45.0, r, px, py);
            if (exact <= 0 || exact >= 1)
                continue;
            ++partial;
            const int n = 160;
            int hits = 0;
            for (int j = 0; j < n; ++j)
                for (int i = 0; i < n; ++i) {
                    double pu = 0, pv = 0;
                    TargetRender::ApplyHomography(hInverse, px - 0.5 + (i + 0.5) / n,
                                                  py - 0.5 + (j + 0.5) / n, pu, pv);
                    hits += (pu - 67.5) * (pu - 67.5) + (pv - 45.0) * (pv - 45.0) < r * r;
                }
            EXPECT_NEAR(exact, double(hits) / (n * n), 1.5 / n) << px << "," << py;
        }
    EXPECT_GT(partial, 40);
}

TEST(TargetRenderer, TiltAnglesGiveThePinholeProjectionAndTheHomographyRoundTrips)
{
    TargetSettings s;
    s.width = 640;
    s.height = 480;
    s.columns = 6;
    s.rows = 5;
    s.spacing = 60;
    s.diameter = 24;
    s.tiltX = 20;
    s.tiltY = -15;
    s.tiltZ = 30;
    s.focal = 700;
    s.blurSigma = 0.8;
    const RenderedTarget byAngles = TargetRender::RenderTarget(s);
    ASSERT_EQ(byAngles.truth.size(), 30u);

    // Independent projection: rotate the plane point with Eigen, put it at distance f, project.
    const double d = kPi / 180;
    const Eigen::Matrix3d rotation = (Eigen::AngleAxisd(s.tiltZ * d, Eigen::Vector3d::UnitZ()) *
                                      Eigen::AngleAxisd(s.tiltY * d, Eigen::Vector3d::UnitY()) *
                                      Eigen::AngleAxisd(s.tiltX * d, Eigen::Vector3d::UnitX()))
                                         .toRotationMatrix();
    std::vector<cv::Point2d> plane;
    for (const MarkTruth& m : byAngles.truth) {
        const double u = (m.gridX - 2.5) * s.spacing, v = (m.gridY - 2.0) * s.spacing;
        plane.emplace_back(u, v);
        const Eigen::Vector3d p = rotation * Eigen::Vector3d(u, v, 0) + Eigen::Vector3d(0, 0, s.focal);
        EXPECT_NEAR(m.x, 319.5 + s.focal * p.x() / p.z(), 1e-9);
        EXPECT_NEAR(m.y, 239.5 + s.focal * p.y() / p.z(), 1e-9);
    }

    // The same map given as a homography renders the same picture and truth.
    TargetSettings given = s;
    given.useHomography = true;
    given.homography = byAngles.homography;
    given.tiltX = given.tiltY = given.tiltZ = 0;
    const RenderedTarget byMatrix = TargetRender::RenderTarget(given);
    EXPECT_EQ(byMatrix.grey8, byAngles.grey8);
    ASSERT_EQ(byMatrix.truth.size(), byAngles.truth.size());

    // A negated homography is the same map.
    for (double& e : given.homography)
        e = -e;
    EXPECT_EQ(TargetRender::RenderTarget(given).grey8, byAngles.grey8);

    // OpenCV's perspective transform with the inverse takes the truth back onto the plane grid.
    std::array<double, 9> hCopy = byAngles.homography;
    cv::Mat h(3, 3, CV_64F, hCopy.data());
    std::vector<cv::Point2d> image, back;
    for (const MarkTruth& m : byAngles.truth)
        image.emplace_back(m.x, m.y);
    cv::perspectiveTransform(image, back, h.inv());
    for (std::size_t i = 0; i < back.size(); ++i) {
        EXPECT_NEAR(back[i].x, plane[i].x, 1e-9);
        EXPECT_NEAR(back[i].y, plane[i].y, 1e-9);
    }
}

TEST(TargetRenderer, TruthIsTheProjectedCentreNotTheEllipseCentre)
{
    TargetSettings s = smallTarget();
    s.columns = s.rows = 1;
    s.diameter = 60;
    s.tiltY = 50;
    s.focal = 150;
    const RenderedTarget t = TargetRender::RenderTarget(s);
    ASSERT_EQ(t.truth.size(), 1u);
    double sum = 0, sx = 0;
    for (int y = 0; y < t.height; ++y)
        for (int x = 0; x < t.width; ++x) {
            const double a =
                (s.brightLevel - t.grey[std::size_t(y) * t.width + x]) / (s.brightLevel - s.darkLevel);
            sum += a;
            sx += a * x;
        }
    // The nearer half of the disc is drawn larger, so the drawn area's centroid lies off the
    // projected centre by a visible amount, while the projected centre stays the image centre.
    EXPECT_DOUBLE_EQ(t.truth[0].x, (s.width - 1) / 2.0);
    EXPECT_GT(std::abs(sx / sum - t.truth[0].x), 0.3);
}

TEST(TargetRenderer, LightNoiseAndBlurDoWhatTheySay)
{
    TargetSettings s = smallTarget();
    s.weakestContrast = 0.5;
    s.lightAngle = 0; // light grows to the right
    RenderedTarget t = TargetRender::RenderTarget(s);
    EXPECT_NEAR(t.grey[0], 0.5 * s.brightLevel, 1e-4);
    EXPECT_NEAR(t.grey[std::size_t(s.width - 1)], s.brightLevel, 1e-4);
    // The contrast of the leftmost mark column is weaker than that of the rightmost.
    auto contrastAt = [&](const MarkTruth& m) {
        const std::size_t centre = std::size_t(std::lround(m.y)) * t.width + std::size_t(std::lround(m.x));
        const std::size_t beside = centre + std::size_t(s.diameter);
        return t.grey[beside] - t.grey[centre];
    };
    EXPECT_LT(contrastAt(t.truth[0]), 0.8 * contrastAt(t.truth[3]));

    s.weakestContrast = 1;
    s.noiseSigma = 3;
    s.seed = 42;
    const RenderedTarget noisy = TargetRender::RenderTarget(s);
    EXPECT_EQ(TargetRender::RenderTarget(s).grey8, noisy.grey8) << "same seed, same picture";
    const RenderedTarget clean = [&] {
        TargetSettings c = s;
        c.noiseSigma = 0;
        return TargetRender::RenderTarget(c);
    }();
    double sum = 0, squares = 0;
    for (std::size_t i = 0; i < clean.grey.size(); ++i) {
        const double e = noisy.grey[i] - clean.grey[i];
        sum += e;
        squares += e * e;
    }
    const double n = double(clean.grey.size());
    EXPECT_NEAR(sum / n, 0.0, 0.05);
    EXPECT_NEAR(std::sqrt(squares / n), 3.0, 0.05);
    s.seed = 43;
    EXPECT_NE(TargetRender::RenderTarget(s).grey8, noisy.grey8);

    // Blur keeps the drawn area (the marks lie well inside) and spreads a hard edge.
    TargetSettings b = smallTarget();
    b.blurSigma = 1.5;
    const RenderedTarget blurred = TargetRender::RenderTarget(b);
    const RenderedTarget sharp = TargetRender::RenderTarget(smallTarget());
    EXPECT_NEAR(drawnArea(blurred, b), drawnArea(sharp, b), 1e-3);
    const MarkTruth& m = sharp.truth[0];
    const std::size_t inside = std::size_t(std::lround(m.y)) * sharp.width + std::size_t(std::lround(m.x));
    EXPECT_FLOAT_EQ(sharp.grey[inside], float(b.darkLevel));
    EXPECT_GT(blurred.grey[inside + 9], sharp.grey[inside + 9]);
}

TEST(TargetRenderer, SupersamplingApproachesTheExactPicture)
{
    TargetSettings s = smallTarget();
    s.tiltX = 25;
    const RenderedTarget exact = TargetRender::RenderTarget(s);
    s.supersampling = 16;
    const RenderedTarget sampled = TargetRender::RenderTarget(s);
    double worst = 0;
    for (std::size_t i = 0; i < exact.grey.size(); ++i)
        worst = std::max(worst, std::abs(double(exact.grey[i]) - double(sampled.grey[i])));
    // One sample of 256 is 170 / 256 grey levels; an edge misplaces at most about one row of 16.
    EXPECT_LT(worst, 170.0 / 16);
    EXPECT_GT(worst, 0.0);
}

TEST(TargetRenderer, InvalidSettingsThrowInvalidArgument)
{
    auto throws = [](auto change) {
        TargetSettings s = smallTarget();
        change(s);
        EXPECT_THROW(TargetRender::RenderTarget(s), std::invalid_argument);
    };
    throws([](TargetSettings& s) { s.width = 0; });
    throws([](TargetSettings& s) { s.columns = 0; });
    throws([](TargetSettings& s) { s.rows = 1001; });
    throws([](TargetSettings& s) { s.width = s.height = 9000; }); // 81 megapixels
    throws([](TargetSettings& s) { s.diameter = 0; });
    throws([](TargetSettings& s) { s.spacing = std::nan(""); });
    throws([](TargetSettings& s) { s.ringRatio = 1; });
    throws([](TargetSettings& s) { s.weakestContrast = 0; });
    throws([](TargetSettings& s) { s.blurSigma = -1; });
    throws([](TargetSettings& s) { s.noiseSigma = -1; });
    throws([](TargetSettings& s) { s.supersampling = 65; });
    throws([](TargetSettings& s) { s.omitted = {{4, 0}}; });
    throws([](TargetSettings& s) {
        s.useHomography = true;
        s.homography = {1, 2, 3, 2, 4, 6, 0, 0, 1};
    });
    throws([](TargetSettings& s) {
        s.useHomography = true;
        s.homography = {1, 0, 0, 0, 1, 0, 0, 0, std::numeric_limits<double>::infinity()};
    });
    // The horizon runs through the grid: the far marks would be hyperbolas or behind the camera.
    throws([](TargetSettings& s) {
        s.tiltX = 80;
        s.focal = 20;
    });
}

} // namespace
