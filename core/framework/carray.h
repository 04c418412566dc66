#pragma once
// CArray<TYPE, ARG_TYPE>: the class framework's growable array, with the framework's member names
// and growth rule. It owns its elements; copies are deep, moves take the block over and leave the
// source empty. Sizes and indices are std::ptrdiff_t (the framework's INT_PTR).
//
// Growth rule. The array keeps an allocated capacity (GetAllocSize()) and a stored grow-by, which
// starts as "automatic". SetSize(n, growBy) first stores growBy when it is positive; 0 and -1
// leave the stored value alone. Then:
//   - n == 0 destroys the elements and frees the block (capacity 0);
//   - n <= capacity constructs or destroys elements at the end, the block stays;
//   - n > capacity allocates a new block of max(n, capacity + step) elements, where step is the
//     stored grow-by, or when that is automatic max(4, min(size / 8, 1024)) with size the element
//     count before the call; the elements move over and the old block is freed.
// Add, Append, Copy, InsertAt and SetAtGrow grow through SetSize(..., -1); RemoveAt never shrinks
// the block; RemoveAll is SetSize(0).
//
// Errors: a negative size, an index outside 0..GetSize()-1 for GetAt, SetAt, ElementAt,
// operator[] and RemoveAt (or a range running past the end), and for InsertAt a negative index or
// a count below 1, throw std::invalid_argument whose message names the operation. InsertAt at or
// past the end is allowed and pads with default-constructed elements, as in the framework. An
// element argument that refers into the array itself is copied before the array changes, so
// a.Add(a[0]) and a.InsertAt(0, a[2]) are safe. Append and Copy accept the array itself. A size
// that can't be allocated throws the allocator's std::bad_alloc (std::bad_array_new_length beyond
// its limit) and leaves the elements as they were.
// Threads: one thread at a time per object.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

template <class TYPE, class ARG_TYPE = const TYPE&> class CArray
{
public:
    CArray() = default;
    CArray(const CArray& other) : m_growBy(other.m_growBy) { Copy(other); }
    CArray(CArray&& other) noexcept
        : m_data(std::exchange(other.m_data, nullptr)), m_size(std::exchange(other.m_size, 0)),
          m_capacity(std::exchange(other.m_capacity, 0)), m_growBy(other.m_growBy)
    {
    }
    ~CArray() { release(); }

    /// Deep copy of the elements and the stored grow-by.
    CArray& operator=(const CArray& other)
    {
        if (this != &other) {
            m_growBy = other.m_growBy;
            Copy(other);
        }
        return *this;
    }
    CArray& operator=(CArray&& other) noexcept
    {
        if (this != &other) {
            release();
            m_data = std::exchange(other.m_data, nullptr);
            m_size = std::exchange(other.m_size, 0);
            m_capacity = std::exchange(other.m_capacity, 0);
            m_growBy = other.m_growBy;
        }
        return *this;
    }

    std::ptrdiff_t GetSize() const { return m_size; }
    std::ptrdiff_t GetCount() const { return m_size; }
    bool IsEmpty() const { return m_size == 0; }
    /// GetSize() - 1, so -1 for an empty array.
    std::ptrdiff_t GetUpperBound() const { return m_size - 1; }
    /// Number of elements the current block holds; 0 when no block is allocated.
    std::ptrdiff_t GetAllocSize() const { return m_capacity; }

    const TYPE& GetAt(std::ptrdiff_t index) const { return m_data[checkedIndex(index, "CArray::GetAt")]; }
    TYPE& GetAt(std::ptrdiff_t index) { return m_data[checkedIndex(index, "CArray::GetAt")]; }
    void SetAt(std::ptrdiff_t index, ARG_TYPE element)
    {
        m_data[checkedIndex(index, "CArray::SetAt")] = element;
    }
    TYPE& ElementAt(std::ptrdiff_t index) { return m_data[checkedIndex(index, "CArray::ElementAt")]; }
    const TYPE& ElementAt(std::ptrdiff_t index) const
    {
        return m_data[checkedIndex(index, "CArray::ElementAt")];
    }
    TYPE& operator[](std::ptrdiff_t index) { return m_data[checkedIndex(index, "CArray::operator[]")]; }
    const TYPE& operator[](std::ptrdiff_t index) const
    {
        return m_data[checkedIndex(index, "CArray::operator[]")];
    }

    /// The first element; null when no block is allocated.
    TYPE* GetData() { return m_data; }
    const TYPE* GetData() const { return m_data; }

    /// Resizes to newSize elements by the growth rule above; new elements are default-constructed
    /// (value-initialised: zeros for numbers). Throws std::invalid_argument when newSize < 0.
    void SetSize(std::ptrdiff_t newSize, std::ptrdiff_t growBy = -1)
    {
        if (newSize < 0)
            throw std::invalid_argument("CArray::SetSize: negative size");
        if (growBy > 0)
            m_growBy = growBy;
        if (newSize == 0) {
            release();
            return;
        }
        if (newSize > m_capacity)
            reallocate(std::max(newSize, m_capacity + growStep()));
        if (newSize > m_size) {
            std::uninitialized_value_construct(m_data + m_size, m_data + newSize);
        } else {
            std::destroy(m_data + newSize, m_data + m_size);
        }
        m_size = newSize;
    }

    /// Appends one element and returns its index.
    std::ptrdiff_t Add(ARG_TYPE element)
    {
        const std::ptrdiff_t index = m_size;
        SetAtGrow(index, element);
        return index;
    }

    /// Appends the elements of source and returns the size before the call.
    std::ptrdiff_t Append(const CArray& source)
    {
        const std::ptrdiff_t oldSize = m_size;
        const std::ptrdiff_t count = source.m_size;
        if (count > 0) {
            SetSize(oldSize + count);
            // After SetSize, source.m_data is current even when source is this array.
            std::copy(source.m_data, source.m_data + count, m_data + oldSize);
        }
        return oldSize;
    }

    /// Makes this array an element-wise copy of source (the stored grow-by stays this array's).
    void Copy(const CArray& source)
    {
        if (this == &source)
            return;
        SetSize(source.m_size);
        std::copy(source.m_data, source.m_data + source.m_size, m_data);
    }

    /// Inserts count copies of element before index; an index at or past the end first grows the
    /// array to index elements. Throws std::invalid_argument for index < 0 or count < 1.
    void InsertAt(std::ptrdiff_t index, ARG_TYPE element, std::ptrdiff_t count = 1)
    {
        if (index < 0 || count < 1)
            throw std::invalid_argument("CArray::InsertAt: negative index or count below 1");
        if (count > PTRDIFF_MAX - std::max(index, m_size))
            throw std::invalid_argument("CArray::InsertAt: the size would overflow");
        const TYPE value(element);
        const std::ptrdiff_t oldSize = m_size;
        if (index >= oldSize) {
            SetSize(index + count);
        } else {
            SetSize(oldSize + count);
            std::move_backward(m_data + index, m_data + oldSize, m_data + oldSize + count);
        }
        std::fill(m_data + index, m_data + index + count, value);
    }

    /// Removes count elements from index on; the elements behind move forward. Throws
    /// std::invalid_argument unless 0 <= index, 0 <= count and index + count <= GetSize().
    void RemoveAt(std::ptrdiff_t index, std::ptrdiff_t count = 1)
    {
        if (index < 0 || count < 0 || index > m_size || count > m_size - index)
            throw std::invalid_argument("CArray::RemoveAt: index or count out of range");
        if (count == 0)
            return; // moving the tail onto itself would self-move-assign every element
        std::move(m_data + index + count, m_data + m_size, m_data + index);
        std::destroy(m_data + m_size - count, m_data + m_size);
        m_size -= count;
    }

    /// Size 0 and the block freed.
    void RemoveAll() { SetSize(0); }

    /// Sets element index, first growing the array to index + 1 elements when needed.
    /// Throws std::invalid_argument when index < 0.
    void SetAtGrow(std::ptrdiff_t index, ARG_TYPE element)
    {
        if (index < 0 || index == PTRDIFF_MAX)
            throw std::invalid_argument("CArray::SetAtGrow: index out of range");
        if (index >= m_size) {
            const TYPE value(element);
            SetSize(index + 1);
            m_data[index] = value;
        } else {
            m_data[index] = element;
        }
    }

    // Implementation details follow.
private:
    static constexpr std::ptrdiff_t m_ciAutomaticGrowBy = 0;

    std::ptrdiff_t checkedIndex(std::ptrdiff_t index, const char* operation) const
    {
        if (index < 0 || index >= m_size)
            throw std::invalid_argument(std::string(operation) + ": index out of range");
        return index;
    }

    std::ptrdiff_t growStep() const
    {
        if (m_growBy != m_ciAutomaticGrowBy)
            return m_growBy;
        return std::max<std::ptrdiff_t>(4, std::min<std::ptrdiff_t>(m_size / 8, 1024));
    }

    void reallocate(std::ptrdiff_t capacity)
    {
        TYPE* block = std::allocator<TYPE>().allocate(static_cast<std::size_t>(capacity));
        try {
            if constexpr (std::is_nothrow_move_constructible_v<TYPE>)
                std::uninitialized_move(m_data, m_data + m_size, block);
            else
                std::uninitialized_copy(m_data, m_data + m_size, block);
        } catch (...) {
            std::allocator<TYPE>().deallocate(block, static_cast<std::size_t>(capacity));
            throw;
        }
        std::destroy(m_data, m_data + m_size);
        if (m_data)
            std::allocator<TYPE>().deallocate(m_data, static_cast<std::size_t>(m_capacity));
        m_data = block;
        m_capacity = capacity;
    }

    void release() noexcept
    {
        std::destroy(m_data, m_data + m_size);
        if (m_data)
            std::allocator<TYPE>().deallocate(m_data, static_cast<std::size_t>(m_capacity));
        m_data = nullptr;
        m_size = 0;
        m_capacity = 0;
    }

    TYPE* m_data = nullptr;
    std::ptrdiff_t m_size = 0;
    std::ptrdiff_t m_capacity = 0;
    std::ptrdiff_t m_growBy = m_ciAutomaticGrowBy;
};
