#pragma once
// ImageIO: reading and writing picture files, the library's stand-in for the platform's picture
// codec. Reads PNG, JPEG, BMP and TIFF (recognised by their content, never by the file name) into
// 8-bit RGB; writes 8-bit grey as PNG, JPEG, BMP or TIFF, 16-bit grey as PNG and 32-bit colour
// (0xAARRGGBB words) as PNG, and 32-bit colour in any of the four formats through the MIME types.
//
// Ownership: every function only borrows its inputs for the duration of the call; an RgbImage owns
// its bytes. Threads: all functions are reentrant and may run on several threads at once (no
// process-wide handler of the codec libraries is touched).
//
// Failure: every function returns false and, when `error` is not null, stores a one-line English
// message in it; it never throws (except std::bad_alloc when memory runs out for a permitted size)
// and never aborts. On failure the output image is left empty ({0, 0, {}}), and a file that was
// to be written is left as it was: files are written to a temporary name beside the target and
// renamed over it only when complete.
//
// Decisions taken:
// - Pictures larger than kMaxPixels pixels, or with a side above kMaxSide, are refused before any
//   pixel memory is allocated (a guard against decompression bombs): "image too large".
// - Alpha is ignored on reading: the stored colour values come back as they are, not composited.
//   16-bit samples are reduced to 8 bits by rounding (v * 255 / 65535); no gamma or colour-profile
//   conversion is applied to any format.
// - A truncated file is an error in every format, even where the decoder could show the part that
//   arrived (a JPEG missing its end marker is refused too).
// - BMP: 1-, 4- and 8-bit palette files (4 and 8 bits also run-length coded; pixels the coding
//   skips are black, and so are palette indices beyond the palette), 16-, 24- and 32-bit files
//   with or without bit-field masks, top-down or bottom-up. Embedded JPEG or PNG data is refused.
// - TIFF: the first image of the file. Plain 8/16-bit grey or RGB(A) strips keep their stored
//   colour; other layouts (palette, YCbCr, CMYK, tiles, 1-bit, ...) go through libtiff's RGBA
//   conversion, which premultiplies the colour of an image with unassociated alpha.
// - Strides are given in elements (not bytes) and may be negative for bottom-up buffers; their
//   magnitude must be at least the width.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ImageIO {

/// An 8-bit RGB picture: row-major, 3 bytes per pixel (R, G, B), rows without padding, so the
/// pixel (x, y) starts at rgb[3 * (y * width + x)]. An empty image has width = height = 0.
struct RgbImage
{
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> rgb;
};

/// Largest picture that is decoded or encoded: 2^27 pixels (134 megapixels, 402 MB as RGB).
inline constexpr std::int64_t kMaxPixels = std::int64_t(1) << 27;
/// Largest width or height accepted.
inline constexpr int kMaxSide = 1 << 20;

/// The four picture formats.
enum class Format
{
    Png,
    Jpeg,
    Bmp,
    Tiff
};

/// The encoder MIME type of a format: "image/png", "image/jpeg", "image/bmp", "image/tiff".
const char* MimeType(Format format);
/// The format of an encoder MIME type (exact, lower-case match as the platform's encoder list
/// gives them); empty for any other text.
std::optional<Format> FormatFromMimeType(std::string_view mimeType);
/// The format chosen by a file name's extension, case-insensitive: .png, .jpg/.jpeg, .bmp,
/// .tif/.tiff; empty for anything else.
std::optional<Format> FormatFromPath(std::string_view path);
/// The format recognised from the first bytes of a file's content; empty if none matches.
std::optional<Format> SniffFormat(const std::uint8_t* data, std::size_t size);

/// Reads a picture file of any of the four formats. False, with `out` empty, when the file can't
/// be opened or read, is not one of the formats, or is damaged, truncated or too large.
bool ReadImage(const std::string& path, RgbImage& out, std::string* error = nullptr);

/// Decodes a picture held in memory; as ReadImage. `data` may be null only when `size` is 0.
bool DecodeImage(const std::uint8_t* data, std::size_t size, RgbImage& out, std::string* error = nullptr);

/// Writes 8-bit grey; the format follows the extension (.tif/.tiff LZW-compressed, .bmp with a grey
/// palette, .jpg/.jpeg at quality 95 with one component, .png). False for an unknown extension, a
/// null `pixels`, a width or height below 1 or above the limits, |stride| < width, or when the
/// file can't be written. Row y starts at pixels + y * stride.
bool WriteGrey8(const std::string& path, const std::uint8_t* pixels, int width, int height,
                std::ptrdiff_t stride, std::string* error = nullptr);

/// Writes 16-bit grey as PNG (samples stored as they are, no gamma chunk). Failures as WriteGrey8.
bool WriteGrey16Png(const std::string& path, const std::uint16_t* pixels, int width, int height,
                    std::ptrdiff_t stride, std::string* error = nullptr);

/// Writes 32-bit colour words 0xAARRGGBB as an RGBA PNG with straight (not premultiplied) alpha.
/// Failures as WriteGrey8.
bool WriteArgb32Png(const std::string& path, const std::uint32_t* pixels, int width, int height,
                    std::ptrdiff_t stride, std::string* error = nullptr);

/// Writes 32-bit colour words 0xAARRGGBB in the given format: PNG and TIFF keep alpha, BMP writes
/// 32 bits per pixel (B, G, R, A), JPEG drops alpha (quality 95). Failures as WriteGrey8.
bool WriteArgb32(const std::string& path, Format format, const std::uint32_t* pixels, int width, int height,
                 std::ptrdiff_t stride, std::string* error = nullptr);

/// Writes 8-bit grey in the given format, whatever the file name; see WriteGrey8.
bool WriteGrey8(const std::string& path, Format format, const std::uint8_t* pixels, int width, int height,
                std::ptrdiff_t stride, std::string* error = nullptr);

/// The in-memory forms of the writers: `out` receives the complete file content (emptied on
/// failure).
bool EncodeGrey8(Format format, const std::uint8_t* pixels, int width, int height, std::ptrdiff_t stride,
                 std::vector<std::uint8_t>& out, std::string* error = nullptr);
bool EncodeGrey16Png(const std::uint16_t* pixels, int width, int height, std::ptrdiff_t stride,
                     std::vector<std::uint8_t>& out, std::string* error = nullptr);
bool EncodeArgb32(Format format, const std::uint32_t* pixels, int width, int height, std::ptrdiff_t stride,
                  std::vector<std::uint8_t>& out, std::string* error = nullptr);

/// Grey values R * weightRed + G * weightGreen + B * weightBlue of every pixel, row-major, with
/// the channel values taken as floats 0..255 and no normalisation (so weights summing to 1 give
/// 0..255). An empty image gives an empty vector.
std::vector<float> ToGreyFloat(const RgbImage& image, float weightRed, float weightGreen, float weightBlue);

/// 8-bit luma with the Rec. 601 weights (0.299, 0.587, 0.114), rounded to nearest; a grey pixel
/// (v, v, v) gives exactly v.
std::vector<std::uint8_t> ToGrey8(const RgbImage& image);

} // namespace ImageIO
