#pragma once
// DataLayer::CIntegerPartition2D: cuts an inclusive integer rectangle of pixels into a grid of cells
// (row after row) that overlap by a margin, keeps the cell widths on a quantisation step, and
// colours the cells as a checkerboard. The grid is fixed at construction.
//
// Ownership: owns its cell array; copies are deep. Const after construction, so any number of
// threads may read one object.
//
// Decisions where the behaviour was open:
// - Arguments outside the contract (count 0, quantization below 1, a grid of 0 columns or rows, or a
//   region with fewer pixels along an axis than the grid has cells after it is cut to the step) give
//   an empty partition: no cells, GetNumPartitions() 0, FindPartition() and
//   CalculatePartitionIndex() -1, the outer bounds and sizes 0, IsBlack/IsWhite(index) false.
// - The witnesses of the primality test come from a local engine with a fixed seed (no global
//   rand()), and the modular powers are computed exactly in 64 bits for every 32-bit count.
// - The overlap reported by GetOverlap() is raised to the first value that shares no bit with the
//   quantization, as the step-by-one search would find, but computed by jumps.

#include <memory>

namespace DataLayer {

class CIntegerPartition2D
{
public:
    /// One cell: the inclusive rectangle with its margin, the margin on each side and whether that
    /// side's margin was cut off at the region's border.
    struct SPartition
    {
        int minX = 0;
        int minY = 0;
        int maxX = 0;
        int maxY = 0;
        int overlapLeft = 0;
        int overlapTop = 0;
        int overlapRight = 0;
        int overlapBottom = 0;
        bool atLeftBorder = false;
        bool atTopBorder = false;
        bool atRightBorder = false;
        bool atBottomBorder = false;
    };

    CIntegerPartition2D() = default;
    CIntegerPartition2D(const CIntegerPartition2D& other);
    CIntegerPartition2D& operator=(const CIntegerPartition2D& other);
    ~CIntegerPartition2D() = default;

    /// About `count` cells (a prime count above 5 becomes count + 1), in the grid shape whose cells
    /// are as square as the prime factors of the count allow.
    CIntegerPartition2D(unsigned int count, int minX, int minY, int maxX, int maxY, int overlap,
                        int quantization);
    /// A grid of numColumns x numRows cells.
    CIntegerPartition2D(unsigned int numColumns, unsigned int numRows, int minX, int minY, int maxX, int maxY,
                        int overlap, int quantization);

    int GetNumPartitions() const { return m_numColumns * m_numRows; }
    int GetNumColumns() const { return m_numColumns; }
    int GetNumRows() const { return m_numRows; }

    /// Outer bounds: the first cell's minimum and the last cell's maximum (0 without cells).
    int GetMinX() const;
    int GetMinY() const;
    int GetMaxX() const;
    int GetMaxY() const;
    /// Maximum - minimum + 1 of the outer bounds (0 without cells).
    int GetWidth() const;
    int GetHeight() const;

    /// Bounds of a cell, with its margin or of its core. Indices are not checked.
    int GetMinX(int index, bool withOverlap) const;
    int GetMinY(int index, bool withOverlap) const;
    int GetMaxX(int index, bool withOverlap) const;
    int GetMaxY(int index, bool withOverlap) const;
    int GetWidth(int index, bool withOverlap) const;
    int GetWidth(int row, int column, bool withOverlap) const;
    int GetHeight(int index, bool withOverlap) const;
    int GetHeight(int row, int column, bool withOverlap) const;
    void GetPartition(int index, int& minX, int& minY, int& maxX, int& maxY, bool withOverlap) const;
    void GetPartition(int row, int column, int& minX, int& minY, int& maxX, int& maxY,
                      bool withOverlap) const;

    /// The overlap value of the construction, raised until it shares no bit with the quantization.
    int GetOverlap() const { return m_overlap; }
    void GetOverlap(int index, int& left, int& top, int& right, int& bottom) const;
    void GetOverlap(int row, int column, int& left, int& top, int& right, int& bottom) const;

    /// The first cell (in index order) whose core holds the point, or -1.
    int FindPartition(int x, int y) const;
    /// The cell of the point by arithmetic on the unquantised grid; -1 when the computed index lies
    /// outside the grid (column and row are not checked by themselves).
    int CalculatePartitionIndex(int x, int y) const;

    /// Checkerboard: black when row + column is odd.
    bool IsBlack(int row, int column) const { return ((row + column) & 1) != 0; }
    bool IsWhite(int row, int column) const { return ((row + column) & 1) == 0; }
    bool IsBlack(int index) const;
    bool IsWhite(int index) const;

private:
    void construct(unsigned int count, unsigned int numColumns, unsigned int numRows, int minX, int minY,
                   int maxX, int maxY, int overlap, int quantization);
    void computeNumberOfPartitionsXY(unsigned int count, int width, int height);
    void generatePartition(int minX, int minY, int maxX, int maxY, int overlap);
    void adjustForQuantization(int quantization);
    const SPartition& cell(int index) const { return m_partitions[static_cast<std::size_t>(index)]; }
    void reset();

    int m_numColumns = 0;
    int m_numRows = 0;
    int m_overlap = 0;
    std::unique_ptr<SPartition[]> m_partitions;
};

} // namespace DataLayer
