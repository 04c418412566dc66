#include <bit>
#include <climits>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <vector>

#include "core/imageio/imageio.h"
#include "datalayer/algorithms/calibration/ccalibrationimage.h"

using DataLayer::CCalibrationImage;
using DataLayer::ICalibrationImage;

namespace {

const float kLowest = std::numeric_limits<float>::lowest();

/// A picture that is not a CCalibrationImage, so copies and downsizing take the generic path.
class FunctionImage : public ICalibrationImage
{
public:
    FunctionImage(int w, int h, float invalid) : m_w(w), m_h(h), m_invalid(invalid) {}
    CSize GetSize() const override { return CSize(m_w, m_h); }
    float GetPixel(int x, int y) const override
    {
        if ((x * 7 + y * 3) % 11 == 0)
            return m_invalid;
        return static_cast<float>(std::sin(0.3 * x) * 100.0 + y * 0.37);
    }
    float GetInvalidValue() const override { return m_invalid; }

private:
    int m_w;
    int m_h;
    float m_invalid;
};

CCalibrationImage filled(int w, int h, float start)
{
    CCalibrationImage image;
    EXPECT_TRUE(image.SetSize(CSize(w, h)));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            image.SetPixel(x, y, start + static_cast<float>(y * w + x));
    return image;
}

class BitmapProbe : public CCalibrationImage
{
public:
    using CCalibrationImage::createBitmap;
    using CCalibrationImage::getPointer;
};

} // namespace

TEST(CCalibrationImage, DefaultIsEmptyWithTheLowestFloatAsInvalidValue)
{
    CCalibrationImage image;
    EXPECT_EQ(image.GetSize(), CSize(0, 0));
    EXPECT_EQ(std::bit_cast<std::uint32_t>(image.GetInvalidValue()), 0xFF7FFFFFu);
    EXPECT_EQ(image.GetBuffer(), nullptr);
}

TEST(CCalibrationImage, SetSizeRefusesSizesWithoutPixelsOrBeyondTheIntIndex)
{
    CCalibrationImage image = filled(4, 4, 1.0f);
    for (const CSize& bad :
         {CSize(0, 3), CSize(3, 0), CSize(-2, -3), CSize(-1, 5), CSize(70000, 70000), CSize(INT_MAX, 2)}) {
        image = filled(2, 2, 1.0f);
        EXPECT_FALSE(image.SetSize(bad)) << bad.cx << " x " << bad.cy;
        EXPECT_EQ(image.GetSize(), CSize(0, 0));
        EXPECT_EQ(image.GetBuffer(), nullptr);
    }
    ASSERT_TRUE(image.SetSize(CSize(2, 3)));
    EXPECT_EQ(image.GetSize(), CSize(2, 3));
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 2; ++x)
            EXPECT_EQ(image.GetPixel(x, y), 0.0f);
    // The same size again still replaces the contents.
    image.SetPixel(1, 2, 5.0f);
    EXPECT_EQ(image.GetBuffer()[2 * 2 + 1], 5.0f);
    ASSERT_TRUE(image.SetSize(CSize(2, 3)));
    EXPECT_EQ(image.GetPixel(1, 2), 0.0f);
}

TEST(CCalibrationImage, CopiesAreDeepAndFailedCopiesKeepTheInvalidValue)
{
    CCalibrationImage source = filled(3, 2, 10.0f);
    source.SetInvalidValue(-1.0f);
    CCalibrationImage copy(source);
    source.SetPixel(0, 0, 99.0f);
    EXPECT_EQ(copy.GetPixel(0, 0), 10.0f);
    EXPECT_EQ(copy.GetPixel(2, 1), 15.0f);
    EXPECT_EQ(copy.GetInvalidValue(), -1.0f);

    copy = copy; // self-assignment keeps the image
    EXPECT_EQ(copy.GetSize(), CSize(3, 2));
    EXPECT_EQ(copy.GetPixel(2, 1), 15.0f);

    const FunctionImage generic(9, 5, -7.0f);
    CCalibrationImage fromInterface(static_cast<const ICalibrationImage&>(generic));
    ASSERT_EQ(fromInterface.GetSize(), CSize(9, 5));
    EXPECT_EQ(fromInterface.GetInvalidValue(), -7.0f);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 9; ++x)
            EXPECT_EQ(fromInterface.GetPixel(x, y), generic.GetPixel(x, y));

    CCalibrationImage target = filled(2, 2, 0.0f);
    target.SetInvalidValue(3.0f);
    const FunctionImage empty(0, 0, 8.0f);
    target = static_cast<const ICalibrationImage&>(empty);
    EXPECT_EQ(target.GetSize(), CSize(0, 0));
    EXPECT_EQ(target.GetInvalidValue(), 3.0f);
    const CCalibrationImage fromEmpty(static_cast<const ICalibrationImage&>(empty));
    EXPECT_EQ(fromEmpty.GetSize(), CSize(0, 0));
    EXPECT_EQ(fromEmpty.GetInvalidValue(), kLowest);

    CCalibrationImage moved(std::move(copy));
    EXPECT_EQ(moved.GetPixel(2, 1), 15.0f);
    EXPECT_EQ(copy.GetSize(), CSize(0, 0));
}

TEST(CCalibrationImage, DownsizingDropsTheIncompleteLastBlocks)
{
    // 5 x 7 by 2 gives 2 x 3; column 4 and row 6 never enter a block.
    CCalibrationImage source = filled(5, 7, 0.0f);
    for (int y = 0; y < 7; ++y)
        source.SetPixel(4, y, 1.0e6f);
    for (int x = 0; x < 5; ++x)
        source.SetPixel(x, 6, 1.0e6f);
    CCalibrationImage small;
    ASSERT_TRUE(small.DownSizeImage(source, 2, 1));
    ASSERT_EQ(small.GetSize(), CSize(2, 3));
    for (int j = 0; j < 3; ++j) {
        for (int i = 0; i < 2; ++i) {
            const float expected =
                (source.GetPixel(2 * i, 2 * j) + source.GetPixel(2 * i + 1, 2 * j) +
                 source.GetPixel(2 * i, 2 * j + 1) + source.GetPixel(2 * i + 1, 2 * j + 1)) /
                4.0f;
            EXPECT_EQ(small.GetPixel(i, j), expected) << i << "," << j;
        }
    }
}

TEST(CCalibrationImage, DownsizingAveragesOnlyValidPixelsAndHonoursMinValid)
{
    CCalibrationImage source;
    ASSERT_TRUE(source.SetSize(CSize(4, 2)));
    source.SetInvalidValue(-5.0f);
    // Block 0: two valid pixels (1, 2); block 1: three valid pixels (3, 4, 8).
    const float pixels[8] = {1.0f, -5.0f, 3.0f, 4.0f, -5.0f, 2.0f, -5.0f, 8.0f};
    for (int k = 0; k < 8; ++k)
        source.SetPixel(k % 4, k / 4, pixels[k]);
    CCalibrationImage small;
    ASSERT_TRUE(small.DownSizeImage(source, 2, 3));
    ASSERT_EQ(small.GetSize(), CSize(2, 1));
    EXPECT_EQ(small.GetInvalidValue(), -5.0f);
    EXPECT_EQ(small.GetPixel(0, 0), -5.0f);
    EXPECT_EQ(small.GetPixel(1, 0), 5.0f); // (3 + 4 + 8) / 3, not / 4

    ASSERT_TRUE(small.DownSizeImage(source, 2, 1));
    EXPECT_EQ(small.GetPixel(0, 0), 1.5f);

    // No valid pixel and minValid 0: 0 / 0.
    CCalibrationImage allInvalid;
    ASSERT_TRUE(allInvalid.SetSize(CSize(2, 2)));
    allInvalid.SetInvalidValue(0.0f);
    ASSERT_TRUE(small.DownSizeImage(allInvalid, 2, 0));
    EXPECT_TRUE(std::isnan(small.GetPixel(0, 0)));
    ASSERT_TRUE(small.DownSizeImage(allInvalid, 2, 1));
    EXPECT_EQ(small.GetPixel(0, 0), 0.0f);

    // A NaN is a valid pixel and poisons its block only.
    source.SetPixel(2, 0, std::numeric_limits<float>::quiet_NaN());
    ASSERT_TRUE(small.DownSizeImage(source, 2, 1));
    EXPECT_EQ(small.GetPixel(0, 0), 1.5f);
    EXPECT_TRUE(std::isnan(small.GetPixel(1, 0)));
}

TEST(CCalibrationImage, DownsizingFailsWithoutAnOutputPixel)
{
    const CCalibrationImage source = filled(5, 3, 0.0f);
    CCalibrationImage small = filled(2, 2, 0.0f);
    small.SetInvalidValue(4.0f);
    EXPECT_FALSE(small.DownSizeImage(source, 4, 1)); // 1 x 0
    EXPECT_EQ(small.GetSize(), CSize(0, 0));
    EXPECT_FALSE(small.DownSizeImage(source, 0, 1));
    EXPECT_FALSE(small.DownSizeImage(source, -3, 1));
    EXPECT_FALSE(small.DownSizeImage(CCalibrationImage(), 1, 1));
    EXPECT_EQ(small.GetSize(), CSize(0, 0));
    EXPECT_EQ(small.GetInvalidValue(), 4.0f);

    CCalibrationImage one = filled(1, 1, 6.0f);
    ASSERT_TRUE(small.DownSizeImage(one, 1, 1));
    EXPECT_EQ(small.GetPixel(0, 0), 6.0f);
}

TEST(CCalibrationImage, DownsizingAGenericSourceOrItselfMatchesTheDirectPath)
{
    const FunctionImage generic(37, 23, -9.0f);
    const CCalibrationImage copy(static_cast<const ICalibrationImage&>(generic));
    for (int factor : {1, 2, 3, 5}) {
        CCalibrationImage viaInterface;
        CCalibrationImage direct;
        ASSERT_TRUE(viaInterface.DownSizeImage(generic, factor, 2));
        ASSERT_TRUE(direct.DownSizeImage(copy, factor, 2));
        ASSERT_EQ(viaInterface.GetSize(), CSize(37 / factor, 23 / factor));
        ASSERT_EQ(direct.GetSize(), viaInterface.GetSize());
        for (int y = 0; y < 23 / factor; ++y) {
            for (int x = 0; x < 37 / factor; ++x) {
                // Reference: the block walk in double over the same float values.
                double sum = 0.0;
                int count = 0;
                float fsum = 0.0f;
                for (int dy = 0; dy < factor; ++dy)
                    for (int dx = 0; dx < factor; ++dx) {
                        const float v = generic.GetPixel(x * factor + dx, y * factor + dy);
                        if (v != -9.0f) {
                            fsum += v;
                            sum += v;
                            ++count;
                        }
                    }
                const float expected = count >= 2 ? fsum / static_cast<float>(count) : -9.0f;
                ASSERT_EQ(viaInterface.GetPixel(x, y), expected);
                ASSERT_EQ(direct.GetPixel(x, y), expected);
                if (count >= 2) {
                    EXPECT_NEAR(expected, sum / count, 1e-4);
                }
            }
        }
        CCalibrationImage self(copy);
        ASSERT_TRUE(self.DownSizeImage(self, factor, 2));
        ASSERT_EQ(self.GetSize(), direct.GetSize());
        EXPECT_EQ(self.GetPixel(0, 0), direct.GetPixel(0, 0));
        EXPECT_EQ(self.GetPixel(37 / factor - 1, 23 / factor - 1),
                  direct.GetPixel(37 / factor - 1, 23 / factor - 1));
    }
}

TEST(CCalibrationImage, BitmapRoundsClampsAndBlanksInvalidPixels)
{
    BitmapProbe image;
    ASSERT_TRUE(image.SetSize(CSize(4, 2)));
    image.SetInvalidValue(-1.0f);
    const float values[8] = {0.0f,   0.49f, 0.5f,  254.6f,
                             300.0f, -3.0f, -1.0f, std::numeric_limits<float>::quiet_NaN()};
    for (int k = 0; k < 8; ++k)
        *image.getPointer(k % 4, k / 4) = values[k];
    const auto bitmap = image.createBitmap(1.0f, 0.0f);
    ASSERT_NE(bitmap, nullptr);
    ASSERT_EQ(bitmap->width, 4);
    ASSERT_EQ(bitmap->height, 2);
    const std::uint32_t grey[8] = {0, 0, 1, 255, 255, 0, 0, 0};
    for (int k = 0; k < 8; ++k)
        EXPECT_EQ(bitmap->pixels[static_cast<std::size_t>(k)], grey[k] * 0x010101u) << k;

    // Scale and offset: (v - 10) * 2 + 0.5.
    const auto scaled = image.createBitmap(2.0f, 10.0f);
    EXPECT_EQ(scaled->pixels[3], 255u * 0x010101u); // (254.6 - 10) * 2 clamps
    *image.getPointer(0, 0) = 20.2f;
    EXPECT_EQ(image.createBitmap(2.0f, 10.0f)->pixels[0], 20u * 0x010101u);
}

namespace {

/// A fresh directory for the files of one test.
std::filesystem::path scratchDirectory(const char* name)
{
    const std::filesystem::path dir =
        std::filesystem::temp_directory_path() / "vorn2_calibration_image" / name;
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    return dir;
}

CCalibrationImage loaded(const std::filesystem::path& file)
{
    CCalibrationImage image;
    EXPECT_TRUE(image.DebugLoad(file.wstring(), 1.0f, 0.0f, 0.0f)) << file;
    return image;
}

} // namespace

TEST(CCalibrationImage, DebugSaveRoundsClampsAndBlanksAndLoadsBack)
{
    const std::filesystem::path dir = scratchDirectory("plain");
    CCalibrationImage image;
    ASSERT_TRUE(image.SetSize(CSize(4, 2)));
    image.SetInvalidValue(-1.0f);
    const float values[8] = {0.0f,   0.49f, 0.5f,  254.6f,
                             300.0f, -3.0f, -1.0f, std::numeric_limits<float>::quiet_NaN()};
    const float grey[8] = {0, 0, 1, 255, 255, 0, 0, 0};
    for (int k = 0; k < 8; ++k)
        image.SetPixel(k % 4, k / 4, values[k]);
    for (const auto& [format, name] : {std::pair{CCalibrationImage::eFormatTiff, "grey.tif"},
                                       std::pair{CCalibrationImage::eFormatBmp, "grey.bmp"}}) {
        ASSERT_TRUE(image.DebugSave((dir / name).wstring(), format, false));
        const CCalibrationImage back = loaded(dir / name);
        ASSERT_EQ(back.GetSize(), CSize(4, 2));
        EXPECT_EQ(back.GetInvalidValue(), kLowest);
        for (int k = 0; k < 8; ++k)
            EXPECT_EQ(back.GetPixel(k % 4, k / 4), grey[k]) << name << " pixel " << k;
    }
    // The format decides the encoding, whatever the file name says.
    ASSERT_TRUE(image.DebugSave((dir / "really_a_bmp.tif").wstring(), CCalibrationImage::eFormatBmp, false));
    EXPECT_EQ(loaded(dir / "really_a_bmp.tif").GetPixel(3, 0), 255.0f);
    // JPEG is lossy but keeps the size; a wide path outside ASCII reaches the file as UTF-8.
    const std::wstring wide = dir.wstring() + L"/gr\u00fcn.jpg";
    ASSERT_TRUE(image.DebugSave(wide, CCalibrationImage::eFormatJpeg, false));
    EXPECT_TRUE(std::filesystem::exists(dir / "gr\xC3\xBCn.jpg"));
    CCalibrationImage jpeg;
    ASSERT_TRUE(jpeg.DebugLoad(wide, 1.0f, 0.0f, 0.0f));
    EXPECT_EQ(jpeg.GetSize(), CSize(4, 2));
}

TEST(CCalibrationImage, DebugSaveStretchesTheValidRange)
{
    const std::filesystem::path dir = scratchDirectory("stretch");
    CCalibrationImage image;
    ASSERT_TRUE(image.SetSize(CSize(3, 2)));
    image.SetInvalidValue(1000.0f);
    const float values[6] = {10.0f, 12.5f, 15.0f, 19.99f, 20.0f, 1000.0f};
    for (int k = 0; k < 6; ++k)
        image.SetPixel(k % 3, k / 3, values[k]);
    ASSERT_TRUE(image.DebugSave((dir / "s.tif").wstring(), CCalibrationImage::eFormatTiff, true));
    const CCalibrationImage back = loaded(dir / "s.tif");
    // (v - 10) * 25.6 + 0.5, truncated; the maximum lands on 256 and clamps to 255.
    const float expected[6] = {0, 64, 128, 255, 255, 0};
    for (int k = 0; k < 6; ++k)
        EXPECT_EQ(back.GetPixel(k % 3, k / 3), expected[k]) << k;

    // All valid values equal, or none valid: black.
    for (float v : {7.0f, 1000.0f}) {
        for (int k = 0; k < 5; ++k)
            image.SetPixel(k % 3, k / 3, v);
        ASSERT_TRUE(image.DebugSave((dir / "flat.bmp").wstring(), CCalibrationImage::eFormatBmp, true));
        const CCalibrationImage flat = loaded(dir / "flat.bmp");
        for (int k = 0; k < 6; ++k)
            EXPECT_EQ(flat.GetPixel(k % 3, k / 3), 0.0f);
    }
}

TEST(CCalibrationImage, DebugLoadWeighsTheChannelsAndFailuresLeaveAnEmptyImage)
{
    const std::filesystem::path dir = scratchDirectory("load");
    const std::uint32_t argb[3] = {0xFF0A141Eu, 0xFFFF0000u, 0x00000001u}; // alpha is ignored on reading
    ASSERT_TRUE(ImageIO::WriteArgb32Png((dir / "c.png").string(), argb, 3, 1, 3));
    CCalibrationImage image;
    image.SetInvalidValue(-2.0f);
    ASSERT_TRUE(image.DebugLoad((dir / "c.png").wstring(), 0.5f, 0.25f, 2.0f));
    ASSERT_EQ(image.GetSize(), CSize(3, 1));
    EXPECT_EQ(image.GetPixel(0, 0), 10 * 0.5f + 20 * 0.25f + 30 * 2.0f);
    EXPECT_EQ(image.GetPixel(1, 0), 255 * 0.5f);
    EXPECT_EQ(image.GetPixel(2, 0), 2.0f);
    EXPECT_EQ(image.GetInvalidValue(), -2.0f);

    EXPECT_FALSE(image.DebugLoad((dir / "missing.png").wstring(), 1.0f, 1.0f, 1.0f));
    EXPECT_EQ(image.GetSize(), CSize(0, 0));
    EXPECT_EQ(image.GetInvalidValue(), -2.0f);
    {
        std::ofstream junk(dir / "junk.png", std::ios::binary);
        junk << "not a picture";
    }
    EXPECT_FALSE(image.DebugLoad((dir / "junk.png").wstring(), 1.0f, 1.0f, 1.0f));
    const std::wstring surrogate = (dir / "x").wstring() + static_cast<wchar_t>(0xD800);
    EXPECT_FALSE(image.DebugLoad(surrogate, 1.0f, 1.0f, 1.0f));
    EXPECT_EQ(image.GetBuffer(), nullptr);
}

TEST(CCalibrationImage, DebugSaveRefusals)
{
    const std::filesystem::path dir = scratchDirectory("refuse");
    const CCalibrationImage image = filled(2, 2, 1.0f);
    EXPECT_FALSE(image.DebugSave(L"", CCalibrationImage::eFormatTiff, false));
    EXPECT_FALSE(
        image.DebugSave((dir / "a.tif").wstring(), static_cast<CCalibrationImage::eFormat>(3), false));
    EXPECT_FALSE(
        image.DebugSave((dir / "a.tif").wstring(), static_cast<CCalibrationImage::eFormat>(-1), false));
    EXPECT_FALSE(
        CCalibrationImage().DebugSave((dir / "empty.tif").wstring(), CCalibrationImage::eFormatTiff, false));
    EXPECT_FALSE(std::filesystem::exists(dir / "a.tif"));
    // A save that fails after the format was accepted answers true and writes nothing.
    EXPECT_TRUE(
        image.DebugSave((dir / "no" / "such" / "dir.tif").wstring(), CCalibrationImage::eFormatTiff, false));
    EXPECT_FALSE(std::filesystem::exists(dir / "no"));
}
