#pragma once
// TMatrix<T>: the library's dense column-major matrix of double or float. Its memory form is part of
// the exported interface: a table of virtual operations with the one entry Transpose(), 32-bit
// signed rows and cols, and an owned array of rows * cols elements from new[] (null when either
// dimension is below 1). Element (r, c) stands at data[c * rows + r], always: no stride, no views.
// That is what LAPACK wants, so the facade hands data and rows straight to the drivers.
//
// Ownership: a matrix owns its array alone and every copy is deep; copy assignment always
// reallocates. The destructor is deliberately not virtual: the class is a value, not a base.
// Nothing checks an index or the agreement of two shapes: the first operand (or the result)
// drives each loop. Threads: one thread at a time per object.

#include "datalayer/algorithms/numeric/tvector.h"

template <typename T> class TMatrix
{
public:
    TMatrix() = default;
    /// rows x cols zeros; cols of -1 means square (rows x rows).
    explicit TMatrix(int rows, int cols = -1);
    TMatrix(const TMatrix& other);
    TMatrix(TMatrix&& other) noexcept;
    ~TMatrix();

    /// Deep copy; no effect on self-assignment; always reallocates otherwise.
    TMatrix& operator=(const TMatrix& other);
    /// Frees the own array and takes over the other's; the source is left 0 x 0.
    TMatrix& operator=(TMatrix&& other) noexcept;

    /// Same shape: nothing happens. Otherwise the contents are dropped and the array is all zero.
    void Resize(int rows, int cols);

    int Rows() const { return m_rows; }
    int Cols() const { return m_cols; }
    T& operator()(int r, int c) { return m_data[static_cast<long long>(c) * m_rows + r]; }
    const T& operator()(int r, int c) const { return m_data[static_cast<long long>(c) * m_rows + r]; }
    T* Data() { return m_data; }
    const T* Data() const { return m_data; }

    /// Rows of this x cols of b, the plain triple loop in column-major order.
    TMatrix operator*(const TMatrix& b) const;
    /// Vector of this matrix's rows.
    TVector<T> operator*(const TVector<T>& v) const;
    TMatrix operator*(T s) const;
    TMatrix operator+(const TMatrix& b) const;
    TMatrix operator-(const TMatrix& b) const;

    /// A new cols x rows matrix.
    TMatrix Transposed() const;
    /// In place. Square: swaps mirror elements. Otherwise copies itself and refills the same array
    /// with rows and cols swapped.
    virtual void Transpose();

    /// Row r as a vector of size cols.
    TVector<T> Row(int r) const;
    /// Copy of rows r0..r1 and columns c0..c1, both inclusive.
    TMatrix Block(int r0, int c0, int r1, int c1) const;
    /// The main diagonal, min(rows, cols) elements.
    TVector<T> Diagonal() const;
    /// The largest sum of absolute values over a row; 0 for a matrix without rows.
    T NormInf() const;

    /// In place: column i moves to position p[i]. Walks each cycle of p once, from its smallest
    /// member, swapping whole columns; p is anything with operator[](int) holding Cols() entries.
    template <typename Permutation> void PermuteColumns(const Permutation& p);

    /// a.Size() x b.Size(), element (i, j) = a[i] * b[j].
    static TMatrix Outer(const TVector<T>& a, const TVector<T>& b);
    /// 1 on the main diagonal; cols of -1 means square.
    static TMatrix Identity(int rows, int cols = -1);
    /// n x n with s on the main diagonal.
    static TMatrix ScaledIdentity(int n, T s);

private:
    void swapColumns(int a, int b);

    int m_rows = 0;
    int m_cols = 0;
    T* m_data = nullptr;
};

// Implementation details follow.

template <typename T> template <typename Permutation> void TMatrix<T>::PermuteColumns(const Permutation& p)
{
    // Walk each cycle from its smallest member: the column at position `start` travels along the
    // cycle start -> p[start] -> p[p[start]] ..., carried by swaps with the slot at `start`.
    // An entry that is no permutation (out of range, or a path that doesn't return) leaves that
    // cycle as it is instead of walking forever.
    for (int start = 0; start < m_cols; ++start) {
        int j = p[start];
        int steps = 0;
        while (j != start && j > start && j < m_cols && steps++ < m_cols)
            j = p[j];
        if (j != start)
            continue;
        for (int next = p[start]; next != start; next = p[next])
            swapColumns(start, next);
    }
}

extern template class TMatrix<double>;
extern template class TMatrix<float>;
