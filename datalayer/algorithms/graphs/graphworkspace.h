#pragma once
// Working containers of the graph algorithms (namespace DataLayer::detail, not for clients): a ring
// buffer of fixed capacity that is filled and emptied at either end, and a binary heap of fixed
// capacity with a caller-given order. Their exact stepping fixes the visiting order of the frontier
// walk, the bandwidth ordering and the spanning forest, so they are kept as plain as described.
// Ownership: each owns its array. Threads: one thread at a time.

#include <utility>
#include <vector>

namespace DataLayer::detail {

template <typename T> class TRingBuffer
{
public:
    explicit TRingBuffer(int capacity) : m_items(capacity > 0 ? capacity : 1) {}

    int Count() const { return m_count; }
    bool Empty() const { return m_count == 0; }
    void Clear() { m_head = m_tail = m_count = 0; }

    /// Stores x behind the newest entry; when full, the oldest entry is dropped.
    void PushBack(const T& x)
    {
        const int capacity = static_cast<int>(m_items.size());
        if (m_count > 0) {
            m_tail = m_tail + 1 == capacity ? 0 : m_tail + 1;
            if (m_count == capacity)
                m_head = m_head + 1 == capacity ? 0 : m_head + 1;
        }
        m_items[m_tail] = x;
        if (m_count < capacity)
            ++m_count;
    }
    /// The newest entry. The buffer must not be empty.
    T PopBack()
    {
        const T x = m_items[m_tail];
        m_tail = m_tail == 0 ? static_cast<int>(m_items.size()) - 1 : m_tail - 1;
        popped();
        return x;
    }
    /// The oldest entry. The buffer must not be empty.
    T PopFront()
    {
        const T x = m_items[m_head];
        m_head = m_head + 1 == static_cast<int>(m_items.size()) ? 0 : m_head + 1;
        popped();
        return x;
    }

private:
    void popped()
    {
        if (--m_count == 0)
            m_head = m_tail = 0;
    }

    std::vector<T> m_items;
    int m_head = 0;
    int m_tail = 0;
    int m_count = 0;
};

/// Binary min-heap under Less with a fixed capacity; Push on a full heap is ignored.
template <typename T, typename Less> class TBoundedHeap
{
public:
    TBoundedHeap(int capacity, Less less) : m_capacity(capacity > 0 ? capacity : 0), m_less(std::move(less))
    {
        m_items.reserve(m_capacity);
    }

    int Count() const { return static_cast<int>(m_items.size()); }
    bool Empty() const { return m_items.empty(); }

    void Push(const T& x)
    {
        if (Count() >= m_capacity)
            return;
        m_items.push_back(x);
        int i = Count() - 1;
        while (i > 0) {
            const int parent = (i - 1) / 2;
            if (!m_less(m_items[i], m_items[parent]))
                break;
            std::swap(m_items[i], m_items[parent]);
            i = parent;
        }
    }
    /// The root. The heap must not be empty.
    T Pop()
    {
        T top = m_items.front();
        m_items.front() = m_items.back();
        m_items.pop_back();
        const int n = Count();
        int i = 0;
        for (;;) {
            const int left = 2 * i + 1;
            const int right = left + 1;
            int best = left < n && m_less(m_items[left], m_items[i]) ? left : i;
            if (right < n && m_less(m_items[right], m_items[best]))
                best = right;
            if (best == i)
                break;
            std::swap(m_items[i], m_items[best]);
            i = best;
        }
        return top;
    }

private:
    int m_capacity;
    Less m_less;
    std::vector<T> m_items;
};

} // namespace DataLayer::detail
