#include "datalayer/algorithms/calibration/ccalibrationimage.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <limits>
#include <new>
#include <optional>
#include <utility>

#include "core/imageio/imageio.h"

namespace DataLayer {

namespace {

/// Pixel count of an acceptable size, or 0 when the size is refused.
std::int64_t acceptedPixelCount(const CSize& size)
{
    if (size.cx < 1 || size.cy < 1)
        return 0;
    const std::int64_t count = static_cast<std::int64_t>(size.cx) * static_cast<std::int64_t>(size.cy);
    return count > INT_MAX ? 0 : count;
}

/// UTF-32 to UTF-8; false for a surrogate or a value beyond U+10FFFF.
bool toUtf8(const std::wstring& text, std::string& out)
{
    out.clear();
    for (const wchar_t wc : text) {
        const auto c = static_cast<std::uint32_t>(wc);
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            if (c >= 0xD800 && c <= 0xDFFF)
                return false;
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c <= 0x10FFFF) {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            return false;
        }
    }
    return true;
}

/// Status codes left in a bitmap by a failed save.
constexpr int kStatusBadPath = 2;
constexpr int kStatusWriteFailed = 7;

} // namespace

CCalibrationImage::CCalibrationImage() : m_invalidValue(std::numeric_limits<float>::lowest()) {}

CCalibrationImage::CCalibrationImage(const CCalibrationImage& other) : CCalibrationImage()
{
    copy(other);
}

CCalibrationImage::CCalibrationImage(const ICalibrationImage& other) : CCalibrationImage()
{
    copy(other);
}

CCalibrationImage::CCalibrationImage(CCalibrationImage&& other) noexcept
    : m_buffer(std::exchange(other.m_buffer, nullptr)), m_invalidValue(other.m_invalidValue),
      m_size(std::exchange(other.m_size, CSize()))
{
}

CCalibrationImage& CCalibrationImage::operator=(const CCalibrationImage& other)
{
    copy(other);
    return *this;
}

CCalibrationImage& CCalibrationImage::operator=(const ICalibrationImage& other)
{
    copy(other);
    return *this;
}

CCalibrationImage& CCalibrationImage::operator=(CCalibrationImage&& other) noexcept
{
    if (this != &other) {
        free();
        m_buffer = std::exchange(other.m_buffer, nullptr);
        m_size = std::exchange(other.m_size, CSize());
        m_invalidValue = other.m_invalidValue;
    }
    return *this;
}

CCalibrationImage::~CCalibrationImage()
{
    free();
}

bool CCalibrationImage::alloc(const CSize& size)
{
    free();
    const std::int64_t count = acceptedPixelCount(size);
    if (count < 1)
        return false;
    m_buffer = new (std::nothrow) float[static_cast<std::size_t>(count)];
    if (m_buffer == nullptr)
        return false;
    m_size = size;
    return true;
}

void CCalibrationImage::free()
{
    delete[] m_buffer;
    m_buffer = nullptr;
    m_size = CSize();
}

void CCalibrationImage::init(float value)
{
    std::fill(m_buffer, m_buffer + static_cast<std::ptrdiff_t>(m_size.cx) * m_size.cy, value);
}

bool CCalibrationImage::SetSize(const CSize& size)
{
    if (!alloc(size))
        return false;
    init(0.0f);
    return true;
}

bool CCalibrationImage::copy(const ICalibrationImage& source)
{
    if (&source == static_cast<const ICalibrationImage*>(this))
        return m_buffer != nullptr;
    const CSize size = source.GetSize();
    if (!alloc(size))
        return false;
    const auto* image = dynamic_cast<const CCalibrationImage*>(&source);
    if (image != nullptr) {
        std::memcpy(m_buffer, image->m_buffer,
                    static_cast<std::size_t>(size.cx) * static_cast<std::size_t>(size.cy) * sizeof(float));
    } else {
        float* out = m_buffer;
        for (int y = 0; y < size.cy; ++y)
            for (int x = 0; x < size.cx; ++x)
                *out++ = source.GetPixel(x, y);
    }
    m_invalidValue = source.GetInvalidValue();
    return true;
}

bool CCalibrationImage::DownSizeImage(const ICalibrationImage& source, int factor, int minValid)
{
    if (&source == static_cast<const ICalibrationImage*>(this)) {
        const CCalibrationImage original(std::move(*this));
        return DownSizeImage(original, factor, minValid);
    }
    free();
    if (factor < 1)
        return false;
    const CSize sourceSize = source.GetSize();
    const float invalid = source.GetInvalidValue();
    const CSize size(sourceSize.cx / factor, sourceSize.cy / factor);
    if (!alloc(size))
        return false;
    init(0.0f);
    m_invalidValue = invalid;

    const auto* image = dynamic_cast<const CCalibrationImage*>(&source);
    std::vector<float> sums(static_cast<std::size_t>(size.cx));
    std::vector<int> counts(static_cast<std::size_t>(size.cx));
    std::vector<float> row;
    if (image == nullptr)
        row.resize(static_cast<std::size_t>(size.cx) * static_cast<std::size_t>(factor));
    // Each output pixel sums its block row by row, left to right, so every pixel of a row band
    // is accumulated in the same order as a block-by-block walk would take.
    for (int j = 0; j < size.cy; ++j) {
        std::fill(sums.begin(), sums.end(), 0.0f);
        std::fill(counts.begin(), counts.end(), 0);
        for (int dy = 0; dy < factor; ++dy) {
            const int y = j * factor + dy;
            const float* line;
            if (image != nullptr) {
                line = image->m_buffer + static_cast<std::ptrdiff_t>(y) * sourceSize.cx;
            } else {
                for (int x = 0; x < size.cx * factor; ++x)
                    row[static_cast<std::size_t>(x)] = source.GetPixel(x, y);
                line = row.data();
            }
            for (int i = 0; i < size.cx; ++i) {
                const float* block = line + static_cast<std::ptrdiff_t>(i) * factor;
                float sum = sums[static_cast<std::size_t>(i)];
                int count = counts[static_cast<std::size_t>(i)];
                for (int dx = 0; dx < factor; ++dx) {
                    const float v = block[dx];
                    if (v != invalid) {
                        sum += v;
                        ++count;
                    }
                }
                sums[static_cast<std::size_t>(i)] = sum;
                counts[static_cast<std::size_t>(i)] = count;
            }
        }
        float* out = m_buffer + static_cast<std::ptrdiff_t>(j) * size.cx;
        for (int i = 0; i < size.cx; ++i) {
            const int count = counts[static_cast<std::size_t>(i)];
            out[i] =
                count >= minValid ? sums[static_cast<std::size_t>(i)] / static_cast<float>(count) : invalid;
        }
    }
    return true;
}

bool CCalibrationImage::DebugLoad(const std::wstring& path, float weightRed, float weightGreen,
                                  float weightBlue)
{
    free();
    std::string file;
    if (!toUtf8(path, file))
        return false;
    ImageIO::RgbImage picture;
    try {
        if (!ImageIO::ReadImage(file, picture))
            return false;
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (!alloc(CSize(picture.width, picture.height)))
        return false;
    init(0.0f);
    const std::uint8_t* rgb = picture.rgb.data();
    const std::size_t count =
        static_cast<std::size_t>(picture.width) * static_cast<std::size_t>(picture.height);
    for (std::size_t k = 0; k < count; ++k, rgb += 3)
        m_buffer[k] = static_cast<float>(rgb[0]) * weightRed + static_cast<float>(rgb[1]) * weightGreen +
                      static_cast<float>(rgb[2]) * weightBlue;
    return true;
}

bool CCalibrationImage::DebugSave(const std::wstring& path, eFormat format, bool stretch) const
{
    float scale = 1.0f;
    float offset = 0.0f;
    if (stretch) {
        float minimum = std::numeric_limits<float>::max();
        float maximum = -std::numeric_limits<float>::max();
        const std::size_t count = static_cast<std::size_t>(m_size.cx) * static_cast<std::size_t>(m_size.cy);
        for (std::size_t k = 0; k < count; ++k) {
            const float v = m_buffer[k];
            if (v == m_invalidValue)
                continue;
            if (v < minimum)
                minimum = v;
            if (v > maximum)
                maximum = v;
        }
        offset = minimum;
        scale = 256.0f / (maximum - minimum);
    }
    std::unique_ptr<SBitmap> bitmap = createBitmap(scale, offset);
    if (!bitmap)
        return false;
    return writeBitmap(*bitmap, path, format);
}

bool CCalibrationImage::writeBitmap(SBitmap& bitmap, const std::wstring& path, eFormat format) const
{
    if (path.empty())
        return false;
    const char* mimeType = nullptr;
    switch (format) {
    case eFormatTiff:
        mimeType = "image/tiff";
        break;
    case eFormatBmp:
        mimeType = "image/bmp";
        break;
    case eFormatJpeg:
        mimeType = "image/jpeg";
        break;
    default:
        return false;
    }
    const std::optional<ImageIO::Format> encoder = ImageIO::FormatFromMimeType(mimeType);
    if (!encoder)
        return true;
    std::string file;
    if (!toUtf8(path, file)) {
        bitmap.status = kStatusBadPath;
        return true;
    }
    std::vector<std::uint8_t> grey;
    try {
        grey.resize(bitmap.pixels.size());
        for (std::size_t k = 0; k < grey.size(); ++k)
            grey[k] = static_cast<std::uint8_t>(bitmap.pixels[k] & 0xFFu);
        if (!ImageIO::WriteGrey8(file, *encoder, grey.data(), bitmap.width, bitmap.height, bitmap.width))
            bitmap.status = kStatusWriteFailed;
    } catch (const std::bad_alloc&) {
        bitmap.status = kStatusWriteFailed;
    }
    return true;
}

std::unique_ptr<CCalibrationImage::SBitmap> CCalibrationImage::createBitmap(float scale, float offset) const
{
    if (m_buffer == nullptr)
        return nullptr;
    std::unique_ptr<SBitmap> bitmap(new (std::nothrow) SBitmap);
    if (!bitmap)
        return nullptr;
    const std::size_t count = static_cast<std::size_t>(m_size.cx) * static_cast<std::size_t>(m_size.cy);
    try {
        bitmap->pixels.resize(count);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    bitmap->width = m_size.cx;
    bitmap->height = m_size.cy;
    for (std::size_t k = 0; k < count; ++k) {
        const float value = m_buffer[k];
        std::uint32_t g = 0;
        if (value != m_invalidValue) {
            const float f = (value - offset) * scale + 0.5f;
            if (f >= 256.0f)
                g = 255;
            else if (f >= 0.0f)
                g = static_cast<std::uint32_t>(f);
        }
        bitmap->pixels[k] = (g << 16) | (g << 8) | g;
    }
    return bitmap;
}

} // namespace DataLayer
