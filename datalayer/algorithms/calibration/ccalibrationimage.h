#pragma once
// DataLayer::CCalibrationImage: the concrete calibration picture. It owns a row-major buffer of
// floats (index y * width + x, rows without a gap) and a marker value for missing data, and is
// either empty (no buffer, 0 x 0) or holds exactly width * height pixels.
//
// Ownership: the image owns its buffer alone; copies are deep, and SetSize, DownSizeImage, copy
// and assignment replace the buffer as a whole. Threads: no locks and no shared state; an image
// may be read from several threads while nobody changes it.
//
// Failure: every operation that can fail answers false and leaves the image empty; nothing is
// thrown. Pixel access has no range test: the caller keeps 0 <= x < width and 0 <= y < height.
// Choices where the behaviour was open:
// - A size is accepted when both extents are at least 1 and width * height fits a 32-bit signed
//   int (the pixel index is y * width + x in int); anything else, negative extents included,
//   fails like a size whose product is below 1.
// - Copying or assigning an image to itself keeps it unchanged and reports success; downsizing an
//   image into itself works from a copy of the source.
// - DownSizeImage with a factor below 1 fails (empty image, invalid value unchanged).
// - DebugLoad and DebugSave go through core/imageio. Paths are wide (UTF-32) and converted to
//   UTF-8; a path that isn't valid Unicode fails. DebugLoad decodes the whole picture at once, so
//   there is no failure of a single pixel. DebugSave writes 8-bit grey (the three equal channels
//   of the bitmap) and refuses an empty image (false). As on the original platform, a save that
//   fails after the format was accepted still answers true: its status stays in the bitmap, which
//   DebugSave releases; these are debugging aids, not a file interface.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "datalayer/algorithms/calibration/icalibrationimage.h"

namespace DataLayer {

class CCalibrationImage : public ICalibrationImage
{
public:
    /// Output file type of DebugSave.
    enum eFormat
    {
        eFormatTiff = 0, ///< "image/tiff"
        eFormatBmp = 1,  ///< "image/bmp"
        eFormatJpeg = 2  ///< "image/jpeg"
    };

    /// A 32-bit picture as createBitmap makes it: one word (g << 16) | (g << 8) | g per pixel, the
    /// top byte 0, row-major. status is 0 while everything went well, otherwise the code of the
    /// last failed file operation.
    struct SBitmap
    {
        int width = 0;
        int height = 0;
        std::vector<std::uint32_t> pixels;
        int status = 0;
    };

    /// Empty image; the invalid value is the most negative finite float.
    CCalibrationImage();
    /// Deep copies; a failed copy leaves an empty image and reports nothing.
    CCalibrationImage(const CCalibrationImage& other);
    explicit CCalibrationImage(const ICalibrationImage& other);
    /// Takes the other's buffer over; the other is left empty with its invalid value.
    CCalibrationImage(CCalibrationImage&& other) noexcept;
    CCalibrationImage& operator=(const CCalibrationImage& other);
    CCalibrationImage& operator=(const ICalibrationImage& other);
    CCalibrationImage& operator=(CCalibrationImage&& other) noexcept;
    ~CCalibrationImage() override;

    CSize GetSize() const override { return m_size; }
    /// buffer[y * width + x], without a range test.
    float GetPixel(int x, int y) const override { return m_buffer[y * m_size.cx + x]; }
    float GetInvalidValue() const override { return m_invalidValue; }

    /// The row-major pixel buffer, null for an empty image. Valid until the buffer is replaced.
    const float* GetBuffer() const { return m_buffer; }

    /// Replaces the buffer by one of the given size filled with 0.0. False, with an empty image,
    /// when the size is refused (see above) or the allocation fails.
    bool SetSize(const CSize& size);
    /// Writes one pixel without a range test; always true.
    bool SetPixel(int x, int y, const float& value)
    {
        m_buffer[y * m_size.cx + x] = value;
        return true;
    }
    /// Stores the marker of missing data; pixels are not rewritten. Always true.
    bool SetInvalidValue(float value)
    {
        m_invalidValue = value;
        return true;
    }

    /// Replaces this image by the block means of source: the new size is source size / factor
    /// (truncating; source pixels that don't fill a block are dropped), and each output pixel is
    /// the single-precision mean of the valid pixels of its factor x factor block when there are at
    /// least minValid of them, else the invalid value. The invalid value is taken from the source.
    /// With minValid 0 a block without a valid pixel yields NaN. False, with an empty image, when
    /// factor is below 1, the new size has no pixel, or the allocation fails.
    bool DownSizeImage(const ICalibrationImage& source, int factor, int minValid);

    /// Replaces this image by the picture file at path (PNG, JPEG, BMP or TIFF), each pixel
    /// R * weightRed + G * weightGreen + B * weightBlue with the 8-bit channels taken as floats and
    /// no normalisation. The invalid value is left as it was. False, with an empty image, when the
    /// file can't be read or decoded or the image can't be allocated.
    bool DebugLoad(const std::wstring& path, float weightRed, float weightGreen, float weightBlue);
    /// Writes the image as an 8-bit grey picture: without stretch each value is rounded and
    /// clamped to 0..255; with stretch the valid values are mapped from their minimum onward by
    /// 256 / (maximum - minimum) (all equal, or none valid, gives black). Invalid pixels are
    /// black. False for an empty path, a format outside 0..2, or an empty image; otherwise true
    /// (see above for a failed save).
    bool DebugSave(const std::wstring& path, eFormat format, bool stretch) const;

protected:
    /// Releases the buffer and sets the size to 0 x 0; then allocates an uninitialised buffer of the
    /// given size. False when the size is refused or the allocation fails (the image stays empty).
    bool alloc(const CSize& size);
    /// Releases the buffer; size 0 x 0.
    void free();
    /// alloc to the source's size, fill with 0.0, copy every pixel, then take the source's invalid
    /// value. False on failure, with the invalid value unchanged.
    bool copy(const ICalibrationImage& source);
    /// Sets every pixel.
    void init(float value);
    float* getPointer(int x, int y) { return m_buffer + (y * m_size.cx + x); }
    const float* getPointer(int x, int y) const { return m_buffer + (y * m_size.cx + x); }
    /// The image as a grey bitmap: g = (value - offset) * scale + 0.5 in float, 0 below 0 (and for
    /// NaN), 255 from 256 on, else truncated; an invalid pixel gives 0. Null when the bitmap can't
    /// be allocated.
    std::unique_ptr<SBitmap> createBitmap(float scale, float offset) const;
    /// Saves the bitmap with the encoder whose MIME type is the format's. False for an empty path or
    /// a format outside 0..2; otherwise true, with the status of a failed save left in bitmap.
    bool writeBitmap(SBitmap& bitmap, const std::wstring& path, eFormat format) const;

private:
    float* m_buffer = nullptr;
    float m_invalidValue;
    CSize m_size;
};

} // namespace DataLayer
