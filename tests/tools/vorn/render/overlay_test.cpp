#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <vector>

#include "tools/vorn/render/overlay.h"

namespace {

int countColour(const ImageIO::RgbImage& image, Overlay::Colour c)
{
    int n = 0;
    for (std::size_t i = 0; i + 2 < image.rgb.size(); i += 3)
        n += image.rgb[i] == c.r && image.rgb[i + 1] == c.g && image.rgb[i + 2] == c.b;
    return n;
}

bool isColour(const ImageIO::RgbImage& image, int x, int y, Overlay::Colour c)
{
    const std::uint8_t* p = image.rgb.data() + 3 * (std::size_t(y) * image.width + x);
    return p[0] == c.r && p[1] == c.g && p[2] == c.b;
}

const Overlay::Colour kRed{255, 0, 0};

ImageIO::RgbImage blank(int w, int h)
{
    const std::vector<std::uint8_t> grey(std::size_t(w) * h, 10);
    return Overlay::FromGrey(grey.data(), w, h, w);
}

TEST(Overlay, CrossIsCentredOnTheRoundedPositionAndClippedAtTheBorder)
{
    ImageIO::RgbImage image = blank(20, 12);
    Overlay::DrawCross(image, 10.4, 5.6, 3, kRed);
    EXPECT_EQ(countColour(image, kRed), 13);
    EXPECT_TRUE(isColour(image, 10, 6, kRed));
    EXPECT_TRUE(isColour(image, 7, 6, kRed));
    EXPECT_TRUE(isColour(image, 10, 9, kRed));
    EXPECT_FALSE(isColour(image, 11, 7, kRed));

    ImageIO::RgbImage corner = blank(20, 12);
    Overlay::DrawCross(corner, 0.0, 0.0, 3, kRed); // only the arms inside remain
    EXPECT_EQ(countColour(corner, kRed), 7);
    for (double bad :
         {-1e300, 1e300, std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()}) {
        Overlay::DrawCross(corner, bad, 3, 3, kRed);
        Overlay::DrawCircle(corner, 5, bad, 4, kRed);
        Overlay::DrawCircle(corner, 5, 5, bad, kRed);
    }
    EXPECT_EQ(countColour(corner, kRed), 7);
}

TEST(Overlay, CircleStaysOnItsRadiusAndIsClosed)
{
    ImageIO::RgbImage image = blank(40, 40);
    Overlay::DrawCircle(image, 20, 20, 10, kRed);
    int onRing = 0;
    for (int y = 0; y < 40; ++y)
        for (int x = 0; x < 40; ++x)
            if (isColour(image, x, y, kRed)) {
                ++onRing;
                EXPECT_NEAR(std::hypot(x - 20, y - 20), 10.0, 0.75) << x << "," << y;
            }
    // The four axis points are all drawn, and a closed 8-connected ring has about 2 pi r * 0.9 pixels.
    EXPECT_TRUE(isColour(image, 30, 20, kRed) && isColour(image, 10, 20, kRed) &&
                isColour(image, 20, 30, kRed) && isColour(image, 20, 10, kRed));
    EXPECT_GT(onRing, 50);
}

TEST(Overlay, TextUsesTheGlyphsAndScales)
{
    ImageIO::RgbImage image = blank(40, 20);
    Overlay::DrawText(image, 1, 1, "1", kRed);
    EXPECT_EQ(countColour(image, kRed), 8); // the '1' glyph has 8 lit cells
    ImageIO::RgbImage scaled = blank(40, 20);
    Overlay::DrawText(scaled, 1, 1, "1", kRed, 2);
    EXPECT_EQ(countColour(scaled, kRed), 32);
    ImageIO::RgbImage unknown = blank(40, 20);
    Overlay::DrawText(unknown, -2, -2, "?", kRed); // a 3 x 5 box, clipped to 1 x 3
    EXPECT_EQ(countColour(unknown, kRed), 3);
    ImageIO::RgbImage empty;
    Overlay::DrawText(empty, 0, 0, "12", kRed);
    Overlay::SetPixel(empty, 0, 0, kRed);
    EXPECT_TRUE(empty.rgb.empty());
    EXPECT_TRUE(Overlay::FromGrey(nullptr, 3, 3, 3).rgb.empty());
}

} // namespace
