#pragma once
// DataLayer::TPermutation<T> (used with T = int): a permutation p of size n that maps position i
// to p[i], 0-based. It has the memory form of TVector<int> (a 32-bit signed size and an owned
// array) and no virtual operations. The directed graph exchanges it for every renumbering.
//
// Ownership: owns its array, copies deeply. Nothing checks that the entries form a permutation;
// Inverse() and Invert() on entries that are none end without reading out of range, with an
// unspecified result. Threads: one thread at a time per object.

#include "datalayer/algorithms/numeric/tvector.h"

namespace DataLayer {

template <typename T> class TPermutation
{
public:
    TPermutation() = default;
    /// The identity of size n: p[i] = i.
    explicit TPermutation(int n) : m_map(n)
    {
        for (int i = 0; i < n; ++i)
            m_map[i] = static_cast<T>(i);
    }

    int Size() const { return m_map.Size(); }
    T& operator[](int i) { return m_map[i]; }
    const T& operator[](int i) const { return m_map[i]; }
    T* Data() { return m_map.Data(); }
    const T* Data() const { return m_map.Data(); }

    /// q with q[p[i]] = i.
    TPermutation Inverse() const
    {
        TPermutation q(*this);
        q.Invert();
        return q;
    }

    /// Inverts in place without a second array, marking visited entries by their bitwise complement.
    void Invert()
    {
        const int n = Size();
        T* p = m_map.Data();
        for (int i = 0; i < n; ++i) {
            if (p[i] < 0)
                continue; // already written as a complement: its cycle is done
            T prev = static_cast<T>(i);
            T cur = p[i];
            while (cur != static_cast<T>(i) && cur >= 0 && cur < n && p[cur] >= 0) {
                const T next = p[cur];
                p[cur] = ~prev;
                prev = cur;
                cur = next;
            }
            p[i] = ~prev;
        }
        for (int i = 0; i < n; ++i)
            p[i] = ~p[i];
    }

private:
    TVector<T> m_map;
};

} // namespace DataLayer
