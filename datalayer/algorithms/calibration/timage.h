#pragma once
// DataLayer::TImage<T>: a plain value image that mesh export and the JPEG codec exchange: width
// and height (unsigned 32-bit) and an owned row-major array of T, index y * width + x, rows without
// a gap. An empty image has width 0, height 0 and no array.
//
// Ownership: the image owns its array alone. Copies are deep; a move (and return by value) hands
// the array over and leaves the source empty. Threads: one thread at a time per image.
//
// Choices: the constructor with a size value-initialises the pixels (zeros for numbers); a size
// of which either extent is 0 gives the empty image; a size whose element count doesn't fit
// std::size_t throws std::bad_array_new_length, as new[] does.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

namespace DataLayer {

template <typename T> class TImage
{
public:
    TImage() = default;
    TImage(std::uint32_t w, std::uint32_t h)
    {
        if (w == 0 || h == 0)
            return;
        const std::size_t count = elementCount(w, h);
        data = new T[count]();
        width = w;
        height = h;
    }
    TImage(const TImage& other)
    {
        if (other.data == nullptr)
            return;
        const std::size_t count = elementCount(other.width, other.height);
        data = new T[count];
        std::copy(other.data, other.data + count, data);
        width = other.width;
        height = other.height;
    }
    TImage(TImage&& other) noexcept
        : width(std::exchange(other.width, 0u)), height(std::exchange(other.height, 0u)),
          data(std::exchange(other.data, nullptr))
    {
    }
    TImage& operator=(const TImage& other)
    {
        if (this != &other) {
            TImage copy(other);
            swap(copy);
        }
        return *this;
    }
    TImage& operator=(TImage&& other) noexcept
    {
        if (this != &other) {
            TImage taken(std::move(other));
            swap(taken);
        }
        return *this;
    }
    ~TImage() { delete[] data; }

    void swap(TImage& other) noexcept
    {
        std::swap(width, other.width);
        std::swap(height, other.height);
        std::swap(data, other.data);
    }

    std::uint32_t width = 0;
    std::uint32_t height = 0;
    /// Row-major pixels, null for an empty image.
    T* data = nullptr;

    // Implementation details follow.
private:
    static std::size_t elementCount(std::uint32_t w, std::uint32_t h)
    {
        const std::size_t count = static_cast<std::size_t>(w) * static_cast<std::size_t>(h);
        if (count > SIZE_MAX / sizeof(T))
            throw std::bad_array_new_length();
        return count;
    }
};

} // namespace DataLayer
