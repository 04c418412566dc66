#pragma once
// LbArray<T>: the base library's growable contiguous array. It owns its elements (a std::vector
// underneath); copies are deep, moves take the buffer over and leave the source empty.
//
// Sizes and indices are 32-bit signed, like the rest of the library. operator[] is unchecked, as
// for std::vector and TVector (a debug build asserts the index); reserve and resize with a
// negative count throw std::invalid_argument, and push_back past INT_MAX elements
// std::length_error. Growth past the capacity may move the buffer, so
// pointers and references from data() and operator[] hold only until the next growth.
// Threads: one thread at a time per object.

#include <cassert>
#include <climits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

template <typename T> class LbArray
{
public:
    using value_type = T;
    using iterator = typename std::vector<T>::iterator;
    using const_iterator = typename std::vector<T>::const_iterator;

    LbArray() = default;

    int size() const { return static_cast<int>(m_items.size()); }
    bool empty() const { return m_items.empty(); }

    T& operator[](int i)
    {
        assert(i >= 0 && i < size());
        return m_items[static_cast<std::size_t>(i)];
    }
    const T& operator[](int i) const
    {
        assert(i >= 0 && i < size());
        return m_items[static_cast<std::size_t>(i)];
    }

    /// The first element; null when nothing was ever allocated.
    T* data() { return m_items.data(); }
    const T* data() const { return m_items.data(); }

    /// Makes room for at least n elements without changing the size.
    /// Throws std::invalid_argument when n is negative.
    void reserve(int n) { m_items.reserve(checkedCount(n, "LbArray::reserve")); }
    /// n elements: new ones are value-initialised (zeros for numbers and the Lb vectors).
    /// Throws std::invalid_argument when n is negative.
    void resize(int n) { m_items.resize(checkedCount(n, "LbArray::resize")); }

    /// Appends one element. Throws std::length_error when the array already holds INT_MAX elements.
    void push_back(const T& v)
    {
        checkRoom();
        m_items.push_back(v);
    }
    void push_back(T&& v)
    {
        checkRoom();
        m_items.push_back(std::move(v));
    }
    /// Size 0; the capacity is kept.
    void clear() { m_items.clear(); }

    iterator begin() { return m_items.begin(); }
    iterator end() { return m_items.end(); }
    const_iterator begin() const { return m_items.begin(); }
    const_iterator end() const { return m_items.end(); }

private:
    void checkRoom() const
    {
        if (m_items.size() >= static_cast<std::size_t>(INT_MAX))
            throw std::length_error("LbArray::push_back: the size would exceed INT_MAX");
    }

    static std::size_t checkedCount(int n, const char* operation)
    {
        if (n < 0)
            throw std::invalid_argument(std::string(operation) + ": negative count");
        return static_cast<std::size_t>(n);
    }

    std::vector<T> m_items;
};
