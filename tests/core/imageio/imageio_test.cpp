#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <opencv2/imgcodecs.hpp>
#include <random>
#include <string>
#include <tiffio.h>
#include <unistd.h>
#include <vector>
#include <zlib.h>

#include "core/imageio/imageio.h"

// OpenCV's codecs serve as the independent reader and writer; zlib builds PNG files by hand.

namespace {

using ImageIO::Format;
using ImageIO::RgbImage;
using Bytes = std::vector<std::uint8_t>;

class TempDir
{
public:
    TempDir()
    {
        static int counter = 0;
        path_ = std::filesystem::temp_directory_path() /
                ("vorn2_imageio_" + std::to_string(::getpid()) + "_" + std::to_string(counter++));
        std::filesystem::create_directories(path_);
    }
    ~TempDir() { std::filesystem::remove_all(path_); }
    std::string operator/(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

Bytes readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

void writeFile(const std::string& path, const Bytes& bytes)
{
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

// A grey test picture with every value and some structure: v = (x * 37 + y * 11) mod 256.
Bytes greyPattern(int width, int height)
{
    Bytes pixels(std::size_t(width) * height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            pixels[std::size_t(y) * width + x] = static_cast<std::uint8_t>((x * 37 + y * 11) % 256);
    return pixels;
}

// A smooth grey picture that JPEG reproduces closely.
Bytes smoothGrey(int width, int height)
{
    Bytes pixels(std::size_t(width) * height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            pixels[std::size_t(y) * width + x] = static_cast<std::uint8_t>(60 + x * 2 + y);
    return pixels;
}

std::vector<std::uint32_t> argbPattern(int width, int height)
{
    std::vector<std::uint32_t> pixels(std::size_t(width) * height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            pixels[std::size_t(y) * width + x] =
                std::uint32_t((x * 40 + y) % 256) << 24 | std::uint32_t((x * 13) % 256) << 16 |
                std::uint32_t((y * 29) % 256) << 8 | std::uint32_t((x + y) * 7 % 256);
    return pixels;
}

int maxGreyDifference(const RgbImage& image, const Bytes& grey)
{
    int worst = 0;
    for (std::size_t i = 0; i < grey.size(); ++i)
        for (int c = 0; c < 3; ++c)
            worst = std::max(worst, std::abs(int(image.rgb[3 * i + c]) - int(grey[i])));
    return worst;
}

bool decodes(const Bytes& bytes, RgbImage& image, std::string* error = nullptr)
{
    return ImageIO::DecodeImage(bytes.data(), bytes.size(), image, error);
}

// ---- hand-built PNG files ------------------------------------------------------------------------

void appendBe32(Bytes& out, std::uint32_t v)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<std::uint8_t>(v >> shift));
}

void appendChunk(Bytes& png, const char* type, const Bytes& data)
{
    appendBe32(png, static_cast<std::uint32_t>(data.size()));
    Bytes body(type, type + 4);
    body.insert(body.end(), data.begin(), data.end());
    png.insert(png.end(), body.begin(), body.end());
    appendBe32(png, static_cast<std::uint32_t>(crc32(0, body.data(), static_cast<uInt>(body.size()))));
}

// `rows` holds the raw scanlines without the filter byte; each gets filter type 0.
Bytes handMadePng(int width, int height, int bitDepth, int colourType, const std::vector<Bytes>& rows,
                  const Bytes& palette = {}, const Bytes& transparency = {})
{
    Bytes png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    Bytes header;
    appendBe32(header, static_cast<std::uint32_t>(width));
    appendBe32(header, static_cast<std::uint32_t>(height));
    header.insert(header.end(),
                  {static_cast<std::uint8_t>(bitDepth), static_cast<std::uint8_t>(colourType), 0, 0, 0});
    appendChunk(png, "IHDR", header);
    if (!palette.empty())
        appendChunk(png, "PLTE", palette);
    if (!transparency.empty())
        appendChunk(png, "tRNS", transparency);
    Bytes raw;
    for (const Bytes& row : rows) {
        raw.push_back(0);
        raw.insert(raw.end(), row.begin(), row.end());
    }
    uLongf packedSize = compressBound(static_cast<uLong>(raw.size()));
    Bytes packed(packedSize);
    compress2(packed.data(), &packedSize, raw.data(), static_cast<uLong>(raw.size()), 9);
    packed.resize(packedSize);
    appendChunk(png, "IDAT", packed);
    appendChunk(png, "IEND", {});
    return png;
}

// ---- hand-built BMP files ------------------------------------------------------------------------

void appendLe(Bytes& out, std::uint32_t v, int bytes)
{
    for (int i = 0; i < bytes; ++i)
        out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

// A BMP with a 40-byte header (or 12 with `core`), optional masks and palette; `rows` are stored
// in file order and padded here.
Bytes handMadeBmp(int width, int height, int bits, std::uint32_t compression, const std::vector<Bytes>& rows,
                  const Bytes& palette = {}, const std::vector<std::uint32_t>& masks = {}, bool core = false)
{
    Bytes info;
    if (core) {
        appendLe(info, 12, 4);
        appendLe(info, static_cast<std::uint32_t>(width), 2);
        appendLe(info, static_cast<std::uint32_t>(height), 2);
        appendLe(info, 1, 2);
        appendLe(info, static_cast<std::uint32_t>(bits), 2);
    } else {
        appendLe(info, 40, 4);
        appendLe(info, static_cast<std::uint32_t>(width), 4);
        appendLe(info, static_cast<std::uint32_t>(height), 4);
        appendLe(info, 1, 2);
        appendLe(info, static_cast<std::uint32_t>(bits), 2);
        appendLe(info, compression, 4);
        appendLe(info, 0, 4);
        appendLe(info, 0, 4);
        appendLe(info, 0, 4);
        appendLe(info, static_cast<std::uint32_t>(palette.size() / 4), 4);
        appendLe(info, 0, 4);
        for (std::uint32_t m : masks)
            appendLe(info, m, 4);
    }
    Bytes pixels;
    for (Bytes row : rows) {
        row.resize((row.size() + 3) / 4 * 4, 0);
        pixels.insert(pixels.end(), row.begin(), row.end());
    }
    Bytes file = {'B', 'M'};
    const std::uint32_t offset = static_cast<std::uint32_t>(14 + info.size() + palette.size());
    appendLe(file, static_cast<std::uint32_t>(offset + pixels.size()), 4);
    appendLe(file, 0, 4);
    appendLe(file, offset, 4);
    file.insert(file.end(), info.begin(), info.end());
    file.insert(file.end(), palette.begin(), palette.end());
    file.insert(file.end(), pixels.begin(), pixels.end());
    return file;
}

std::array<int, 3> rgbAt(const RgbImage& image, int x, int y)
{
    const std::size_t i = 3 * (std::size_t(y) * image.width + x);
    return {image.rgb[i], image.rgb[i + 1], image.rgb[i + 2]};
}

// ---- writers and readers agree, and agree with an independent codec --------------------------------

struct FormatCase
{
    Format format;
    const char* extension;
    int tolerance; // largest grey difference after a round trip: JPEG is lossy
};

class ImageIOFormats : public ::testing::TestWithParam<FormatCase>
{
};

TEST_P(ImageIOFormats, Grey8RoundTripsThroughAFileWithOddWidthAndPaddedStride)
{
    const FormatCase c = GetParam();
    TempDir dir;
    const int width = 37, height = 23, stride = 41;
    const Bytes grey = c.tolerance == 0 ? greyPattern(width, height) : smoothGrey(width, height);
    Bytes strided(std::size_t(stride) * height, 0xEE);
    for (int y = 0; y < height; ++y)
        std::copy_n(grey.begin() + y * width, width, strided.begin() + y * stride);
    const std::string path = dir / (std::string("grey.") + c.extension);
    std::string error;
    ASSERT_TRUE(ImageIO::WriteGrey8(path, strided.data(), width, height, stride, &error)) << error;
    RgbImage image;
    ASSERT_TRUE(ImageIO::ReadImage(path, image, &error)) << error;
    ASSERT_EQ(image.width, width);
    ASSERT_EQ(image.height, height);
    ASSERT_EQ(image.rgb.size(), std::size_t(width) * height * 3);
    EXPECT_LE(maxGreyDifference(image, grey), c.tolerance);

    // The independent reader sees the same grey values.
    const cv::Mat other = cv::imread(path, cv::IMREAD_GRAYSCALE);
    ASSERT_EQ(other.cols, width);
    ASSERT_EQ(other.rows, height);
    int worst = 0;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            worst = std::max(
                worst, std::abs(int(other.at<std::uint8_t>(y, x)) - int(grey[std::size_t(y) * width + x])));
    EXPECT_LE(worst, c.tolerance);
}

TEST_P(ImageIOFormats, BottomUpBufferWithNegativeStrideIsWrittenTopRowFirst)
{
    const FormatCase c = GetParam();
    const int width = 16, height = 9;
    const Bytes grey = c.tolerance == 0 ? greyPattern(width, height) : smoothGrey(width, height);
    Bytes flipped(grey.size());
    for (int y = 0; y < height; ++y)
        std::copy_n(grey.begin() + y * width, width, flipped.begin() + (height - 1 - y) * width);
    Bytes bytes;
    ASSERT_TRUE(
        ImageIO::EncodeGrey8(c.format, flipped.data() + (height - 1) * width, width, height, -width, bytes));
    RgbImage image;
    ASSERT_TRUE(decodes(bytes, image));
    EXPECT_LE(maxGreyDifference(image, grey), c.tolerance);
}

TEST_P(ImageIOFormats, Argb32KeepsColourAndTheFormatsWithAlphaKeepAlpha)
{
    const FormatCase c = GetParam();
    const int width = 19, height = 11;
    std::vector<std::uint32_t> argb = argbPattern(width, height);
    if (c.tolerance)
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                argb[std::size_t(y) * width + x] = 0xFF000000u | std::uint32_t(100 + x) << 16 |
                                                   std::uint32_t(80 + 2 * y) << 8 |
                                                   std::uint32_t(120 + x + y);
    Bytes bytes;
    std::string error;
    ASSERT_TRUE(ImageIO::EncodeArgb32(c.format, argb.data(), width, height, width, bytes, &error)) << error;
    RgbImage image;
    ASSERT_TRUE(decodes(bytes, image, &error)) << error;
    const cv::Mat other = cv::imdecode(bytes, cv::IMREAD_UNCHANGED);
    ASSERT_EQ(other.cols, width);
    int worstColour = 0, worstOther = 0;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const std::uint32_t p = argb[std::size_t(y) * width + x];
            const int expected[3] = {int(p >> 16 & 0xFF), int(p >> 8 & 0xFF), int(p & 0xFF)};
            const std::array<int, 3> got = rgbAt(image, x, y);
            for (int k = 0; k < 3; ++k)
                worstColour = std::max(worstColour, std::abs(got[k] - expected[k]));
            if (other.channels() == 4) {
                const cv::Vec4b bgra = other.at<cv::Vec4b>(y, x);
                EXPECT_EQ(int(bgra[3]), int(p >> 24)) << "alpha at " << x << "," << y;
                // OpenCV premultiplies the colour of a TIFF with alpha; only its alpha is compared.
                for (int k = 0; k < 3 && c.format != Format::Tiff; ++k)
                    worstOther = std::max(worstOther, std::abs(int(bgra[2 - k]) - expected[k]));
            } else {
                const cv::Vec3b bgr = other.at<cv::Vec3b>(y, x);
                for (int k = 0; k < 3; ++k)
                    worstOther = std::max(worstOther, std::abs(int(bgr[2 - k]) - expected[k]));
            }
        }
    EXPECT_LE(worstColour, c.tolerance);
    EXPECT_LE(worstOther, c.tolerance);
    if (c.format == Format::Png || c.format == Format::Tiff) {
        EXPECT_EQ(other.channels(), 4);
    }
}

TEST_P(ImageIOFormats, AFileCutShortAtAnyLengthIsRefused)
{
    const FormatCase c = GetParam();
    Bytes bytes;
    ASSERT_TRUE(ImageIO::EncodeGrey8(c.format, greyPattern(13, 7).data(), 13, 7, 13, bytes));
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        RgbImage image;
        image.width = 5;
        std::string error;
        const Bytes prefix(bytes.begin(), bytes.begin() + length);
        EXPECT_FALSE(decodes(prefix, image, &error)) << "length " << length << " of " << bytes.size();
        EXPECT_FALSE(error.empty());
        EXPECT_EQ(image.width, 0);
        EXPECT_TRUE(image.rgb.empty());
    }
}

TEST_P(ImageIOFormats, DamagedFilesNeverCrashAndLeaveAConsistentImage)
{
    const FormatCase c = GetParam();
    Bytes valid;
    ASSERT_TRUE(ImageIO::EncodeGrey8(c.format, greyPattern(24, 17).data(), 24, 17, 24, valid));
    std::mt19937 engine(20240611);
    for (int round = 0; round < 400; ++round) {
        Bytes bytes = valid;
        const int flips = 1 + round % 8;
        for (int f = 0; f < flips; ++f)
            bytes[engine() % bytes.size()] ^= static_cast<std::uint8_t>(1u << (engine() % 8));
        RgbImage image;
        std::string error;
        if (decodes(bytes, image, &error)) {
            EXPECT_EQ(image.rgb.size(), std::size_t(image.width) * image.height * 3);
            EXPECT_GT(image.width, 0);
        } else {
            EXPECT_FALSE(error.empty());
            EXPECT_TRUE(image.rgb.empty());
        }
    }
}

INSTANTIATE_TEST_SUITE_P(AllFormats, ImageIOFormats,
                         ::testing::Values(FormatCase{Format::Png, "png", 0},
                                           FormatCase{Format::Jpeg, "jpg", 3},
                                           FormatCase{Format::Bmp, "bmp", 0},
                                           FormatCase{Format::Tiff, "tif", 0}),
                         [](const auto& info) { return std::string(info.param.extension); });

TEST(ImageIO, FilesWrittenByTheIndependentCodecDecodeToTheSamePixels)
{
    cv::Mat bgr(21, 29, CV_8UC3);
    for (int y = 0; y < bgr.rows; ++y)
        for (int x = 0; x < bgr.cols; ++x)
            bgr.at<cv::Vec3b>(y, x) =
                cv::Vec3b(static_cast<std::uint8_t>(x * 8), static_cast<std::uint8_t>(y * 12),
                          static_cast<std::uint8_t>(100 + x + y));
    for (const char* extension : {".png", ".bmp", ".tiff", ".jpg"}) {
        std::vector<std::uint8_t> bytes;
        ASSERT_TRUE(cv::imencode(extension, bgr, bytes));
        const cv::Mat reference = cv::imdecode(bytes, cv::IMREAD_COLOR);
        RgbImage image;
        std::string error;
        ASSERT_TRUE(decodes(bytes, image, &error)) << extension << ": " << error;
        ASSERT_EQ(image.width, bgr.cols);
        ASSERT_EQ(image.height, bgr.rows);
        int worst = 0;
        for (int y = 0; y < bgr.rows; ++y)
            for (int x = 0; x < bgr.cols; ++x) {
                const cv::Vec3b p = reference.at<cv::Vec3b>(y, x);
                const std::array<int, 3> got = rgbAt(image, x, y);
                for (int k = 0; k < 3; ++k)
                    worst = std::max(worst, std::abs(got[k] - int(p[2 - k])));
            }
        // The same decoder library underlies both for JPEG, so even there the pixels agree closely.
        EXPECT_LE(worst, std::string(extension) == ".jpg" ? 1 : 0) << extension;
    }
}

TEST(ImageIO, Grey16PngStoresTheSamplesAsTheyAreAndReadsBackRounded)
{
    const int width = 7, height = 3;
    std::vector<std::uint16_t> samples(width * height);
    const std::uint16_t values[] = {0, 1, 128, 129, 32767, 32768, 65534, 65535, 257, 258, 12345};
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = values[i % std::size(values)];
    Bytes bytes;
    ASSERT_TRUE(ImageIO::EncodeGrey16Png(samples.data(), width, height, width, bytes));
    const cv::Mat other = cv::imdecode(bytes, cv::IMREAD_UNCHANGED);
    ASSERT_EQ(other.type(), CV_16UC1);
    RgbImage image;
    ASSERT_TRUE(decodes(bytes, image));
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const std::uint16_t v = samples[std::size_t(y) * width + x];
            EXPECT_EQ(other.at<std::uint16_t>(y, x), v);
            const int rounded = (v * 255 + 32767) / 65535;
            EXPECT_EQ(rgbAt(image, x, y), (std::array<int, 3>{rounded, rounded, rounded})) << "sample " << v;
        }
}

// ---- PNG inputs of every colour type -----------------------------------------------------------------

TEST(ImageIO, PngPaletteWithTransparencyKeepsThePaletteColours)
{
    const Bytes palette = {255, 0, 0, 0, 255, 0, 0, 0, 255, 10, 20, 30};
    const Bytes transparency = {0, 128}; // entries 0 and 1 partly or fully transparent
    // 4-bit indices, width 3: 0 1 2 / 3 2 1
    const Bytes png = handMadePng(3, 2, 4, 3, {{0x01, 0x20}, {0x32, 0x10}}, palette, transparency);
    RgbImage image;
    std::string error;
    ASSERT_TRUE(decodes(png, image, &error)) << error;
    EXPECT_EQ(rgbAt(image, 0, 0), (std::array<int, 3>{255, 0, 0}));
    EXPECT_EQ(rgbAt(image, 1, 0), (std::array<int, 3>{0, 255, 0}));
    EXPECT_EQ(rgbAt(image, 2, 0), (std::array<int, 3>{0, 0, 255}));
    EXPECT_EQ(rgbAt(image, 0, 1), (std::array<int, 3>{10, 20, 30}));
    EXPECT_EQ(rgbAt(image, 2, 1), (std::array<int, 3>{0, 255, 0}));
}

TEST(ImageIO, PngGreyAtLowBitDepthsAndWithAlphaExpandToRgb)
{
    RgbImage image;
    // 1-bit grey: 1 0 1 1 0 -> 255 0 255 255 0
    ASSERT_TRUE(decodes(handMadePng(5, 1, 1, 0, {{0b10110000}}), image));
    ASSERT_EQ(image.width, 5);
    const int oneBit[] = {255, 0, 255, 255, 0};
    for (int x = 0; x < 5; ++x)
        EXPECT_EQ(rgbAt(image, x, 0), (std::array<int, 3>{oneBit[x], oneBit[x], oneBit[x]}));
    // 2-bit grey: 0 1 2 3 -> 0 85 170 255
    ASSERT_TRUE(decodes(handMadePng(4, 1, 2, 0, {{0b00011011}}), image));
    for (int x = 0; x < 4; ++x)
        EXPECT_EQ(rgbAt(image, x, 0)[1], 85 * x);
    // grey + alpha, 8 bit: the grey value stays whatever the alpha
    ASSERT_TRUE(decodes(handMadePng(2, 1, 8, 4, {{200, 0, 90, 255}}), image));
    EXPECT_EQ(rgbAt(image, 0, 0), (std::array<int, 3>{200, 200, 200}));
    EXPECT_EQ(rgbAt(image, 1, 0), (std::array<int, 3>{90, 90, 90}));
    // RGBA, 16 bit: samples are rounded to 8 bits and alpha 0 doesn't darken them
    ASSERT_TRUE(decodes(handMadePng(1, 1, 16, 6, {{0xFF, 0xFF, 0x80, 0x00, 0x00, 0x80, 0x00, 0x00}}), image));
    EXPECT_EQ(rgbAt(image, 0, 0), (std::array<int, 3>{255, (0x8000 * 255 + 32767) / 65535, 0}));
    // RGB, 8 bit, two rows
    ASSERT_TRUE(decodes(handMadePng(1, 2, 8, 2, {{1, 2, 3}, {4, 5, 6}}), image));
    EXPECT_EQ(rgbAt(image, 0, 1), (std::array<int, 3>{4, 5, 6}));
}

TEST(ImageIO, PngWithBadChecksumOrTooLargeHeaderIsRefused)
{
    Bytes png = handMadePng(2, 2, 8, 0, {{1, 2}, {3, 4}});
    Bytes badCrc = png;
    badCrc[8 + 8 + 13] ^= 1; // last byte of the IHDR checksum
    RgbImage image;
    std::string error;
    EXPECT_FALSE(decodes(badCrc, image, &error));
    EXPECT_NE(error.find("PNG"), std::string::npos) << error;

    // A header that promises 100000 x 100000 pixels is refused before any pixel memory exists.
    const Bytes bomb = handMadePng(100000, 100000, 8, 0, {});
    EXPECT_FALSE(decodes(bomb, image, &error));
    EXPECT_NE(error.find("too large"), std::string::npos) << error;
}

// ---- BMP inputs ----------------------------------------------------------------------------------------

TEST(ImageIO, BmpPaletteDepthsBitFieldsAndTopDownRowsDecode)
{
    RgbImage image;
    const Bytes palette = {0, 0, 0, 0, 255, 255, 255, 0, 30, 20, 10, 0}; // B, G, R, 0
    // 1 bit, bottom-up: file row 0 is the bottom row.
    ASSERT_TRUE(decodes(
        handMadeBmp(3, 2, 1, 0, {{0b10100000}, {0b01000000}}, Bytes(palette.begin(), palette.begin() + 8)),
        image));
    EXPECT_EQ(rgbAt(image, 1, 0), (std::array<int, 3>{255, 255, 255}));
    EXPECT_EQ(rgbAt(image, 0, 0), (std::array<int, 3>{0, 0, 0}));
    EXPECT_EQ(rgbAt(image, 0, 1), (std::array<int, 3>{255, 255, 255}));
    EXPECT_EQ(rgbAt(image, 2, 1), (std::array<int, 3>{255, 255, 255}));
    // 4 bit with a 3-entry palette; index 7 lies beyond it and shows black.
    ASSERT_TRUE(decodes(handMadeBmp(3, 1, 4, 0, {{0x21, 0x70}}, palette), image));
    EXPECT_EQ(rgbAt(image, 0, 0), (std::array<int, 3>{10, 20, 30}));
    EXPECT_EQ(rgbAt(image, 1, 0), (std::array<int, 3>{255, 255, 255}));
    EXPECT_EQ(rgbAt(image, 2, 0), (std::array<int, 3>{0, 0, 0}));
    // 8 bit, a single pixel, and an index beyond the 3-entry palette.
    ASSERT_TRUE(decodes(handMadeBmp(1, 1, 8, 0, {{2}}, palette), image));
    EXPECT_EQ(rgbAt(image, 0, 0), (std::array<int, 3>{10, 20, 30}));
    ASSERT_TRUE(decodes(handMadeBmp(2, 1, 8, 0, {{200, 1}}, palette), image));
    EXPECT_EQ(rgbAt(image, 0, 0), (std::array<int, 3>{0, 0, 0}));
    EXPECT_EQ(rgbAt(image, 1, 0), (std::array<int, 3>{255, 255, 255}));
    // 16 bit 5-5-5: red 31, green 16, blue 1.
    const std::uint16_t v555 = 31 << 10 | 16 << 5 | 1;
    ASSERT_TRUE(decodes(handMadeBmp(1, 1, 16, 0, {{std::uint8_t(v555), std::uint8_t(v555 >> 8)}}), image));
    EXPECT_EQ(rgbAt(image, 0, 0), (std::array<int, 3>{255, (16 * 255 + 15) / 31, (255 + 15) / 31}));
    // 16 bit 5-6-5 bit fields.
    const std::uint16_t v565 = 0 << 11 | 63 << 5 | 31;
    ASSERT_TRUE(decodes(handMadeBmp(1, 1, 16, 3, {{std::uint8_t(v565), std::uint8_t(v565 >> 8)}}, {},
                                    {0xF800, 0x07E0, 0x001F}),
                        image));
    EXPECT_EQ(rgbAt(image, 0, 0), (std::array<int, 3>{0, 255, 255}));
    // 32 bit bit fields in R, G, B, A byte order.
    ASSERT_TRUE(decodes(handMadeBmp(1, 1, 32, 3, {{11, 22, 33, 44}}, {}, {0xFF, 0xFF00, 0xFF0000}), image));
    EXPECT_EQ(rgbAt(image, 0, 0), (std::array<int, 3>{11, 22, 33}));
    // 24 bit, top-down (negative height).
    ASSERT_TRUE(decodes(handMadeBmp(1, -2, 24, 0, {{1, 2, 3}, {4, 5, 6}}), image));
    EXPECT_EQ(image.height, 2);
    EXPECT_EQ(rgbAt(image, 0, 0), (std::array<int, 3>{3, 2, 1}));
    EXPECT_EQ(rgbAt(image, 0, 1), (std::array<int, 3>{6, 5, 4}));
    // The old 12-byte header with a full palette of 3-byte entries.
    ASSERT_TRUE(decodes(handMadeBmp(2, 1, 1, 0, {{0b10000000}}, {9, 8, 7, 6, 5, 4}, {}, true), image));
    EXPECT_EQ(rgbAt(image, 0, 0), (std::array<int, 3>{4, 5, 6}));
    EXPECT_EQ(rgbAt(image, 1, 0), (std::array<int, 3>{7, 8, 9}));
}

TEST(ImageIO, BmpRunLengthCodingDecodesAndATruncatedStreamFails)
{
    const Bytes palette = {0, 0, 0, 0, 255, 255, 255, 0, 30, 20, 10, 0};
    const std::array<int, 3> black{0, 0, 0}, white{255, 255, 255}, colour{10, 20, 30};
    // Bottom row: a run of two 1s, an absolute run 2 0 1 (padded), end of line. Top row: a delta of
    // two columns, one 2, end of line, end of bitmap (20 bytes, so no padding follows).
    const Bytes stream = {2, 1, 0, 3, 2, 0, 1, 0, 0, 0, 0, 2, 2, 0, 1, 2, 0, 0, 0, 1};
    const Bytes rle8 = handMadeBmp(5, 2, 8, 1, {stream}, palette);
    RgbImage image;
    std::string error;
    ASSERT_TRUE(decodes(rle8, image, &error)) << error;
    const std::array<int, 3> bottom[] = {white, white, colour, black, white};
    const std::array<int, 3> top[] = {black, black, colour, black, black};
    for (int x = 0; x < 5; ++x) {
        EXPECT_EQ(rgbAt(image, x, 1), bottom[x]) << x;
        EXPECT_EQ(rgbAt(image, x, 0), top[x]) << x;
    }
    // Cut anywhere before the last row's end of line, the stream is truncated; without only its
    // end-of-bitmap marker, every row is complete and the picture is accepted.
    EXPECT_TRUE(decodes(Bytes(rle8.begin(), rle8.end() - 2), image));
    for (std::size_t length = rle8.size() - stream.size(); length < rle8.size() - 2; ++length)
        EXPECT_FALSE(decodes(Bytes(rle8.begin(), rle8.begin() + length), image)) << length;
    // 4 bit: a run alternating 1 and 2, clipped at the edge; then an absolute run 2 1 0.
    ASSERT_TRUE(decodes(handMadeBmp(3, 2, 4, 2, {{5, 0x12, 0, 0, 0, 3, 0x21, 0x00, 0, 1}}, palette), image));
    EXPECT_EQ(rgbAt(image, 0, 1), white);
    EXPECT_EQ(rgbAt(image, 1, 1), colour);
    EXPECT_EQ(rgbAt(image, 2, 1), white);
    EXPECT_EQ(rgbAt(image, 0, 0), colour);
    EXPECT_EQ(rgbAt(image, 1, 0), white);
    EXPECT_EQ(rgbAt(image, 2, 0), black);
    // Run-length coding with rows stored top-down doesn't exist.
    EXPECT_FALSE(decodes(handMadeBmp(5, -2, 8, 1, {stream}, palette), image, &error));
}

TEST(ImageIO, BmpWithUnsupportedOrImpossibleHeadersIsRefused)
{
    RgbImage image;
    std::string error;
    EXPECT_FALSE(decodes(handMadeBmp(2, 2, 8, 2, {{0, 0}, {0, 0}}), image, &error)); // RLE4 code on 8 bits
    EXPECT_NE(error.find("compression"), std::string::npos) << error;
    EXPECT_FALSE(decodes(handMadeBmp(2, 2, 24, 4, {{0, 0}, {0, 0}}), image, &error)); // embedded JPEG
    EXPECT_FALSE(decodes(handMadeBmp(2, 2, 7, 0, {{0, 0}, {0, 0}}), image, &error));
    EXPECT_FALSE(decodes(handMadeBmp(0, 2, 24, 0, {}), image, &error));
    EXPECT_FALSE(decodes(handMadeBmp(40000, 40000, 24, 0, {}), image, &error));
    EXPECT_NE(error.find("too large"), std::string::npos) << error;
    EXPECT_TRUE(image.rgb.empty());
}

// ---- TIFF layouts beyond the writer's own -----------------------------------------------------------

// Writes a small TIFF with libtiff directly; `setTags` sets the layout, `rows` the raw samples.
template <typename SetTags>
Bytes libtiffFile(const std::string& path, SetTags setTags, const std::vector<Bytes>& rows,
                  bool tiled = false, const char* mode = "w")
{
    TIFF* tiff = TIFFOpen(path.c_str(), mode);
    EXPECT_NE(tiff, nullptr);
    if (!tiff)
        return {};
    setTags(tiff);
    if (tiled) {
        TIFFSetField(tiff, TIFFTAG_TILEWIDTH, 16);
        TIFFSetField(tiff, TIFFTAG_TILELENGTH, 16);
        Bytes tile(16 * 16 * 3, 0);
        for (std::size_t y = 0; y < rows.size(); ++y)
            std::copy(rows[y].begin(), rows[y].end(), tile.begin() + y * 16 * 3);
        TIFFWriteTile(tiff, tile.data(), 0, 0, 0, 0);
    } else {
        for (std::size_t y = 0; y < rows.size(); ++y)
            TIFFWriteScanline(tiff, const_cast<std::uint8_t*>(rows[y].data()), static_cast<std::uint32_t>(y),
                              0);
    }
    TIFFClose(tiff);
    return readFile(path);
}

void basicTags(TIFF* tiff, int width, int height, int bits, int samples, int photometric)
{
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, bits);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, samples);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, photometric);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
}

TEST(ImageIO, TiffSixteenBitMinIsWhitePaletteAndTiledFilesDecode)
{
    TempDir dir;
    RgbImage image;
    std::string error;
    // 16-bit grey, host byte order as libtiff takes it: rounded to 8 bits.
    const std::uint16_t wide[3] = {0, 32768, 65535};
    Bytes row16(6);
    std::memcpy(row16.data(), wide, 6);
    Bytes file = libtiffFile(dir / "g16.tif",
                             [](TIFF* t) { basicTags(t, 3, 1, 16, 1, PHOTOMETRIC_MINISBLACK); }, {row16});
    ASSERT_TRUE(decodes(file, image, &error)) << error;
    EXPECT_EQ(rgbAt(image, 1, 0), (std::array<int, 3>{128, 128, 128}));
    EXPECT_EQ(rgbAt(image, 2, 0), (std::array<int, 3>{255, 255, 255}));
    // Big-endian ("MM") files, whole and cut short by one byte.
    file = libtiffFile(
        dir / "be.tif", [](TIFF* t) { basicTags(t, 2, 1, 8, 1, PHOTOMETRIC_MINISBLACK); }, {{9, 250}}, false,
        "wb");
    ASSERT_EQ(file[0], 'M');
    ASSERT_TRUE(decodes(file, image, &error)) << error;
    EXPECT_EQ(rgbAt(image, 1, 0), (std::array<int, 3>{250, 250, 250}));
    EXPECT_FALSE(decodes(Bytes(file.begin(), file.end() - 1), image, &error));
    EXPECT_EQ(error, "TIFF: file is truncated");
    // 8-bit "min is white": 0 is white.
    file = libtiffFile(dir / "w.tif", [](TIFF* t) { basicTags(t, 2, 1, 8, 1, PHOTOMETRIC_MINISWHITE); },
                       {{0, 200}});
    ASSERT_TRUE(decodes(file, image, &error)) << error;
    EXPECT_EQ(rgbAt(image, 0, 0), (std::array<int, 3>{255, 255, 255}));
    EXPECT_EQ(rgbAt(image, 1, 0), (std::array<int, 3>{55, 55, 55}));
    // 8-bit palette (16-bit colour map entries), through the RGBA conversion.
    file = libtiffFile(dir / "p.tif",
                       [](TIFF* t) {
                           basicTags(t, 2, 1, 8, 1, PHOTOMETRIC_PALETTE);
                           std::vector<std::uint16_t> r(256, 0), g(256, 0), b(256, 0);
                           r[1] = 0xFFFF;
                           g[2] = 0x8080;
                           b[2] = 0xFFFF;
                           TIFFSetField(t, TIFFTAG_COLORMAP, r.data(), g.data(), b.data());
                       },
                       {{1, 2}});
    ASSERT_TRUE(decodes(file, image, &error)) << error;
    EXPECT_EQ(rgbAt(image, 0, 0), (std::array<int, 3>{255, 0, 0}));
    EXPECT_EQ(rgbAt(image, 1, 0), (std::array<int, 3>{0, 128, 255}));
    // Tiled RGB, also through the RGBA conversion; the tile is larger than the 3 x 2 picture.
    file = libtiffFile(
        dir / "t.tif", [](TIFF* t) { basicTags(t, 3, 2, 8, 3, PHOTOMETRIC_RGB); },
        {{1, 2, 3, 4, 5, 6, 7, 8, 9}, {10, 11, 12, 13, 14, 15, 16, 17, 18}}, true);
    ASSERT_TRUE(decodes(file, image, &error)) << error;
    EXPECT_EQ(rgbAt(image, 0, 0), (std::array<int, 3>{1, 2, 3}));
    EXPECT_EQ(rgbAt(image, 2, 1), (std::array<int, 3>{16, 17, 18}));
}

// ---- everything else that isn't a picture ----------------------------------------------------------

TEST(ImageIO, EmptyMissingUnknownAndDirectoryInputsFailWithAMessage)
{
    TempDir dir;
    RgbImage image;
    std::string error;
    EXPECT_FALSE(ImageIO::DecodeImage(nullptr, 0, image, &error));
    EXPECT_EQ(error, "empty file");
    EXPECT_FALSE(ImageIO::ReadImage(dir / "missing.png", image, &error));
    EXPECT_NE(error.find("No such file"), std::string::npos) << error;
    EXPECT_FALSE(ImageIO::ReadImage(dir / "", image, &error));
    EXPECT_NE(error.find("not a regular file"), std::string::npos) << error;
    writeFile(dir / "empty.png", {});
    EXPECT_FALSE(ImageIO::ReadImage(dir / "empty.png", image, &error));
    EXPECT_NE(error.find("empty file"), std::string::npos) << error;
    writeFile(dir / "text.png", Bytes{'h', 'e', 'l', 'l', 'o'});
    EXPECT_FALSE(ImageIO::ReadImage(dir / "text.png", image, &error));
    EXPECT_NE(error.find("not a PNG, JPEG, BMP or TIFF file"), std::string::npos) << error;
    EXPECT_TRUE(image.rgb.empty());
    EXPECT_EQ(image.width, 0);
}

TEST(ImageIO, RandomBytesBehindEachSignatureNeverCrash)
{
    const Bytes signatures[] = {{0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'},
                                {0xFF, 0xD8, 0xFF},
                                {'B', 'M'},
                                {'I', 'I', 42, 0},
                                {'M', 'M', 0, 42}};
    std::mt19937 engine(7);
    for (const Bytes& signature : signatures)
        for (int round = 0; round < 200; ++round) {
            Bytes bytes = signature;
            const std::size_t length = engine() % 300;
            for (std::size_t i = 0; i < length; ++i)
                bytes.push_back(static_cast<std::uint8_t>(engine()));
            RgbImage image;
            std::string error;
            if (!decodes(bytes, image, &error)) {
                EXPECT_FALSE(error.empty());
                EXPECT_TRUE(image.rgb.empty());
            }
        }
}

TEST(ImageIO, ContentDecidesTheFormatNotTheExtension)
{
    TempDir dir;
    const Bytes grey = greyPattern(8, 8);
    ASSERT_TRUE(ImageIO::WriteGrey8(dir / "really_a_tiff.jpg", Format::Tiff, grey.data(), 8, 8, 8));
    RgbImage image;
    ASSERT_TRUE(ImageIO::ReadImage(dir / "really_a_tiff.jpg", image));
    EXPECT_EQ(maxGreyDifference(image, grey), 0);
    const Bytes bytes = readFile(dir / "really_a_tiff.jpg");
    EXPECT_EQ(ImageIO::SniffFormat(bytes.data(), bytes.size()), Format::Tiff);
}

// ---- writer failures -----------------------------------------------------------------------------------

TEST(ImageIO, WritersRefuseBadArgumentsAndLeaveAnExistingFileAlone)
{
    TempDir dir;
    const std::string path = dir / "keep.png";
    const Bytes old = {'o', 'l', 'd'};
    writeFile(path, old);
    const Bytes grey = greyPattern(10, 10);
    const std::uint16_t grey16[4] = {};
    const std::uint32_t argb[4] = {};
    std::string error;
    EXPECT_FALSE(ImageIO::WriteGrey8(path, nullptr, 10, 10, 10, &error));
    EXPECT_EQ(error, "no pixels given");
    EXPECT_FALSE(ImageIO::WriteGrey8(path, grey.data(), 0, 10, 10, &error));
    EXPECT_EQ(error, "width and height must be at least 1");
    EXPECT_FALSE(ImageIO::WriteGrey8(path, grey.data(), 10, -1, 10, &error));
    EXPECT_FALSE(ImageIO::WriteGrey8(path, grey.data(), 10, 10, 9, &error));
    EXPECT_EQ(error, "row stride is smaller than the width");
    EXPECT_FALSE(ImageIO::WriteGrey8(path, grey.data(), 1 << 16, 1 << 16, 1 << 16, &error));
    EXPECT_EQ(error, "image too large");
    EXPECT_FALSE(ImageIO::WriteGrey16Png(path, grey16, 2, 2, 1, &error));
    EXPECT_FALSE(ImageIO::WriteArgb32Png(path, argb, 2, 0, 2, &error));
    EXPECT_FALSE(ImageIO::WriteGrey8(dir / "picture.gif", grey.data(), 10, 10, 10, &error));
    EXPECT_NE(error.find("unknown file extension"), std::string::npos) << error;
    EXPECT_FALSE(ImageIO::WriteGrey8(dir / "no/such/dir/x.png", grey.data(), 10, 10, 10, &error));
    EXPECT_NE(error.find("No such file"), std::string::npos) << error;
    const Bytes wide(65501, 7);
    EXPECT_FALSE(ImageIO::WriteGrey8(dir / "wide.jpg", wide.data(), 65501, 1, 65501, &error));
    EXPECT_NE(error.find("65500"), std::string::npos) << error;
    EXPECT_EQ(readFile(path), old);
    // Nothing was left behind: only the caller's file is in the directory.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir / ""), {}), 1);
    // A successful write replaces the file.
    EXPECT_TRUE(ImageIO::WriteGrey8(path, grey.data(), 10, 10, 10, &error)) << error;
    EXPECT_NE(readFile(path), old);
}

TEST(ImageIO, FormatNamesMimeTypesAndSignaturesMapBothWays)
{
    for (Format f : {Format::Png, Format::Jpeg, Format::Bmp, Format::Tiff})
        EXPECT_EQ(ImageIO::FormatFromMimeType(ImageIO::MimeType(f)), f);
    EXPECT_STREQ(ImageIO::MimeType(Format::Tiff), "image/tiff");
    EXPECT_STREQ(ImageIO::MimeType(Format::Bmp), "image/bmp");
    EXPECT_STREQ(ImageIO::MimeType(Format::Jpeg), "image/jpeg");
    EXPECT_STREQ(ImageIO::MimeType(Format::Png), "image/png");
    EXPECT_EQ(ImageIO::FormatFromMimeType("image/jpg"), std::nullopt);
    EXPECT_EQ(ImageIO::FormatFromMimeType("IMAGE/PNG"), std::nullopt);
    EXPECT_EQ(ImageIO::FormatFromPath("a/b.TIFF"), Format::Tiff);
    EXPECT_EQ(ImageIO::FormatFromPath("x.tif"), Format::Tiff);
    EXPECT_EQ(ImageIO::FormatFromPath("x.JPeG"), Format::Jpeg);
    EXPECT_EQ(ImageIO::FormatFromPath("x.jpg"), Format::Jpeg);
    EXPECT_EQ(ImageIO::FormatFromPath("x.bmp"), Format::Bmp);
    EXPECT_EQ(ImageIO::FormatFromPath("x.png"), Format::Png);
    EXPECT_EQ(ImageIO::FormatFromPath("dir.png/file"), std::nullopt);
    EXPECT_EQ(ImageIO::FormatFromPath("png"), std::nullopt);
    EXPECT_EQ(ImageIO::FormatFromPath("x.png.gz"), std::nullopt);
    const std::uint8_t bigTiff[] = {'M', 'M', 0, 43};
    EXPECT_EQ(ImageIO::SniffFormat(bigTiff, 4), Format::Tiff);
    EXPECT_EQ(ImageIO::SniffFormat(bigTiff, 3), std::nullopt);
    EXPECT_EQ(ImageIO::SniffFormat(nullptr, 10), std::nullopt);
}

TEST(ImageIO, GreyConversionsUseTheGivenWeightsOrRec601Luma)
{
    RgbImage image{3, 1, {10, 20, 30, 255, 255, 255, 255, 0, 0}};
    const std::vector<float> weighted = ImageIO::ToGreyFloat(image, 1.0f, 2.0f, 0.5f);
    ASSERT_EQ(weighted.size(), 3u);
    EXPECT_FLOAT_EQ(weighted[0], 10 + 40 + 15);
    EXPECT_FLOAT_EQ(weighted[1], 255 * 3.5f);
    EXPECT_FLOAT_EQ(weighted[2], 255);
    const std::vector<std::uint8_t> luma = ImageIO::ToGrey8(image);
    // 0.299 * 10 + 0.587 * 20 + 0.114 * 30 = 18.15; pure red 76.245
    EXPECT_EQ(luma, (std::vector<std::uint8_t>{18, 255, 76}));
    for (int v = 0; v < 256; ++v) {
        const std::uint8_t g = static_cast<std::uint8_t>(v);
        EXPECT_EQ(ImageIO::ToGrey8(RgbImage{1, 1, {g, g, g}})[0], g);
    }
    EXPECT_TRUE(ImageIO::ToGreyFloat(RgbImage{}, 1, 1, 1).empty());
}

} // namespace
