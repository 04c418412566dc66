#pragma once
// DataLayer::CDisjointSets: a partition of 0..n-1 into classes with union by class size. The graph
// algorithms return their partitions in it (components, colour classes, blocks) and the spanning
// forest uses it to detect cycles.
//
// Ownership: owns its two arrays; copies are deep, a move leaves the source with no arrays.
// Threads: every look-up is const and never rewrites the structure (no path compression), so a
// const object may be shared between threads; Unify and DismantleClass need exclusive access.
// Element arguments must be below Size(); they are not checked.
// Arrays returned by GetClasses / GetClassMembers with a null target are the caller's, freed with
// delete[].
// Iteration: PartitionIterator steps through the class representatives in ascending order and
// compares equal to end() once it has passed the last; ClassIterator steps through the members of
// one class in ascending order and compares equal to a default ClassIterator once exhausted. Both
// take a snapshot of the arrays when created: they are not invalidated by later unions.

#include <memory>

namespace DataLayer {

class CDisjointSets
{
public:
    /// Walks the members of one class (snapshot at construction), ascending.
    class ClassIterator
    {
    public:
        ClassIterator() = default;
        ClassIterator(const ClassIterator& other);
        ClassIterator(ClassIterator&&) noexcept = default;
        ClassIterator& operator=(const ClassIterator& other);
        ClassIterator& operator=(ClassIterator&&) noexcept = default;

        unsigned int operator*() const { return m_members[m_position]; }
        ClassIterator& operator++()
        {
            ++m_position;
            return *this;
        }
        bool operator==(const ClassIterator& other) const;
        bool operator!=(const ClassIterator& other) const { return !(*this == other); }
        unsigned int Representative() const { return m_rep; }
        unsigned int Size() const { return m_size; }
        /// Range-for support: iterates from the current position to the end of the class.
        ClassIterator begin() const { return *this; }
        ClassIterator end() const { return ClassIterator(); }

    private:
        friend class CDisjointSets;
        bool exhausted() const { return m_position >= m_size; }

        const CDisjointSets* m_partition = nullptr;
        unsigned int m_position = 0;
        unsigned int m_rep = 0;
        unsigned int m_size = 0;
        std::unique_ptr<unsigned int[]> m_members;
    };

    /// Walks the representatives of all classes (snapshot at construction), ascending.
    class PartitionIterator
    {
    public:
        PartitionIterator() = default;
        PartitionIterator(const PartitionIterator& other);
        PartitionIterator(PartitionIterator&&) noexcept = default;
        PartitionIterator& operator=(const PartitionIterator& other);
        PartitionIterator& operator=(PartitionIterator&&) noexcept = default;

        /// The representative at the current position.
        unsigned int operator*() const { return m_classes[m_position]; }
        PartitionIterator& operator++()
        {
            ++m_position;
            return *this;
        }
        /// Two exhausted iterators are equal; otherwise same partition and position.
        bool operator==(const PartitionIterator& other) const;
        bool operator!=(const PartitionIterator& other) const { return !(*this == other); }
        /// The members of the current class.
        ClassIterator GetClass() const;

    private:
        friend class CDisjointSets;
        bool exhausted() const { return m_position >= m_numClasses; }

        const CDisjointSets* m_partition = nullptr;
        unsigned int m_position = 0;
        unsigned int m_numClasses = 0;
        std::unique_ptr<unsigned int[]> m_classes;
    };

    CDisjointSets() = default;
    /// n singleton classes.
    explicit CDisjointSets(unsigned int n);
    CDisjointSets(const CDisjointSets& other);
    CDisjointSets(CDisjointSets&& other) noexcept;
    CDisjointSets& operator=(const CDisjointSets& other);
    CDisjointSets& operator=(CDisjointSets&& other) noexcept;
    ~CDisjointSets() = default;

    unsigned int Size() const { return m_size; }
    unsigned int GetNumClasses() const { return m_numClasses; }
    /// The root of x's class tree (no path compression: the structure is never written).
    unsigned int GetClassRep(unsigned int x) const
    {
        while (m_parent[x] != x)
            x = m_parent[x];
        return x;
    }
    unsigned int GetClassSize(unsigned int x) const { return m_classSize[GetClassRep(x)]; }
    bool SameClass(unsigned int a, unsigned int b) const { return GetClassRep(a) == GetClassRep(b); }

    /// Merges the classes of a and b; the root of the larger class wins, on a tie a's root.
    /// Returns the root of the merged class.
    unsigned int Unify(unsigned int a, unsigned int b);
    /// Splits x's class into singletons.
    void DismantleClass(unsigned int x);

    /// The representatives of all classes, ascending, written to out or to a new[] array of
    /// GetNumClasses() entries owned by the caller when out is null.
    unsigned int* GetClasses(unsigned int* out) const;
    /// The members of x's class, ascending; allocation as in GetClasses with GetClassSize(x) entries.
    unsigned int* GetClassMembers(unsigned int x, unsigned int* out) const;
    /// The representative of class number index (classes numbered by ascending representative); -1
    /// when index is not below GetNumClasses().
    int GetClassByIndex(unsigned int index) const;
    /// The number of x's class in that numbering.
    int GetClassIndex(unsigned int x) const;
    /// The element with the largest class-size entry (the first on a tie); 0 when Size() < 2.
    unsigned int GetLargestClassRep() const;

    ClassIterator GetClass(unsigned int x) const;
    PartitionIterator begin() const;
    PartitionIterator end() const { return PartitionIterator(); }

private:
    unsigned int m_size = 0;
    unsigned int m_numClasses = 0;
    std::unique_ptr<unsigned int[]> m_parent;
    std::unique_ptr<unsigned int[]> m_classSize;
};

} // namespace DataLayer
