#include "datalayer/algorithms/graphs/cdisjointsets.h"

#include <algorithm>

namespace DataLayer {

namespace {

std::unique_ptr<unsigned int[]> copyArray(const unsigned int* source, unsigned int n)
{
    if (!source)
        return nullptr;
    std::unique_ptr<unsigned int[]> copy(new unsigned int[n]);
    std::copy(source, source + n, copy.get());
    return copy;
}

} // namespace

// --- iterators --------------------------------------------------------------------------------------

CDisjointSets::PartitionIterator::PartitionIterator(const PartitionIterator& other)
    : m_partition(other.m_partition), m_position(other.m_position), m_numClasses(other.m_numClasses),
      m_classes(copyArray(other.m_classes.get(), other.m_numClasses))
{
}

CDisjointSets::PartitionIterator& CDisjointSets::PartitionIterator::operator=(const PartitionIterator& other)
{
    if (this != &other) {
        PartitionIterator copy(other);
        *this = std::move(copy);
    }
    return *this;
}

bool CDisjointSets::PartitionIterator::operator==(const PartitionIterator& other) const
{
    if (exhausted() || other.exhausted())
        return exhausted() && other.exhausted();
    return m_partition == other.m_partition && m_position == other.m_position;
}

CDisjointSets::ClassIterator CDisjointSets::PartitionIterator::GetClass() const
{
    return m_partition->GetClass(m_classes[m_position]);
}

CDisjointSets::ClassIterator::ClassIterator(const ClassIterator& other)
    : m_partition(other.m_partition), m_position(other.m_position), m_rep(other.m_rep), m_size(other.m_size),
      m_members(copyArray(other.m_members.get(), other.m_size))
{
}

CDisjointSets::ClassIterator& CDisjointSets::ClassIterator::operator=(const ClassIterator& other)
{
    if (this != &other) {
        ClassIterator copy(other);
        *this = std::move(copy);
    }
    return *this;
}

bool CDisjointSets::ClassIterator::operator==(const ClassIterator& other) const
{
    if (exhausted() || other.exhausted())
        return exhausted() && other.exhausted();
    return m_partition == other.m_partition && m_rep == other.m_rep && m_position == other.m_position;
}

// --- the partition ----------------------------------------------------------------------------------

CDisjointSets::CDisjointSets(unsigned int n) : m_size(n), m_numClasses(n)
{
    if (n == 0)
        return;
    m_parent.reset(new unsigned int[n]);
    m_classSize.reset(new unsigned int[n]);
    for (unsigned int i = 0; i < n; ++i) {
        m_parent[i] = i;
        m_classSize[i] = 1;
    }
}

CDisjointSets::CDisjointSets(const CDisjointSets& other)
    : m_size(other.m_size), m_numClasses(other.m_numClasses),
      m_parent(copyArray(other.m_parent.get(), other.m_size)),
      m_classSize(copyArray(other.m_classSize.get(), other.m_size))
{
}

CDisjointSets::CDisjointSets(CDisjointSets&& other) noexcept
    : m_size(other.m_size), m_numClasses(other.m_numClasses), m_parent(std::move(other.m_parent)),
      m_classSize(std::move(other.m_classSize))
{
    other.m_size = 0;
    other.m_numClasses = 0;
}

CDisjointSets& CDisjointSets::operator=(const CDisjointSets& other)
{
    if (this != &other) {
        CDisjointSets copy(other);
        *this = std::move(copy);
    }
    return *this;
}

CDisjointSets& CDisjointSets::operator=(CDisjointSets&& other) noexcept
{
    if (this != &other) {
        m_size = other.m_size;
        m_numClasses = other.m_numClasses;
        m_parent = std::move(other.m_parent);
        m_classSize = std::move(other.m_classSize);
        other.m_size = 0;
        other.m_numClasses = 0;
    }
    return *this;
}

unsigned int CDisjointSets::Unify(unsigned int a, unsigned int b)
{
    unsigned int ra = GetClassRep(a);
    unsigned int rb = GetClassRep(b);
    if (ra == rb)
        return ra;
    if (m_classSize[ra] < m_classSize[rb])
        std::swap(ra, rb);
    m_parent[rb] = ra;
    m_classSize[ra] += m_classSize[rb];
    --m_numClasses;
    return ra;
}

void CDisjointSets::DismantleClass(unsigned int x)
{
    const unsigned int root = GetClassRep(x);
    const unsigned int size = m_classSize[root];
    if (size == 1)
        return;
    // Decide membership for every element before any parent link changes.
    std::unique_ptr<unsigned int[]> members(GetClassMembers(x, nullptr));
    for (unsigned int k = 0; k < size; ++k) {
        m_parent[members[k]] = members[k];
        m_classSize[members[k]] = 1;
    }
    m_numClasses += size - 1;
}

unsigned int* CDisjointSets::GetClasses(unsigned int* out) const
{
    if (!out)
        out = new unsigned int[m_numClasses];
    unsigned int k = 0;
    for (unsigned int i = 0; i < m_size; ++i)
        if (m_parent[i] == i)
            out[k++] = i;
    return out;
}

unsigned int* CDisjointSets::GetClassMembers(unsigned int x, unsigned int* out) const
{
    const unsigned int root = GetClassRep(x);
    if (!out)
        out = new unsigned int[m_classSize[root]];
    unsigned int k = 0;
    for (unsigned int i = 0; i < m_size; ++i)
        if (GetClassRep(i) == root)
            out[k++] = i;
    return out;
}

int CDisjointSets::GetClassByIndex(unsigned int index) const
{
    if (index >= m_numClasses)
        return -1;
    unsigned int k = 0;
    for (unsigned int i = 0; i < m_size; ++i)
        if (m_parent[i] == i && k++ == index)
            return static_cast<int>(i);
    return -1;
}

int CDisjointSets::GetClassIndex(unsigned int x) const
{
    const unsigned int root = GetClassRep(x);
    int k = 0;
    for (unsigned int i = 0; i < root; ++i)
        if (m_parent[i] == i)
            ++k;
    return k;
}

unsigned int CDisjointSets::GetLargestClassRep() const
{
    if (m_size < 2)
        return 0;
    unsigned int best = 0;
    for (unsigned int i = 1; i < m_size; ++i)
        if (m_classSize[i] > m_classSize[best])
            best = i;
    return best;
}

CDisjointSets::ClassIterator CDisjointSets::GetClass(unsigned int x) const
{
    ClassIterator it;
    it.m_partition = this;
    it.m_rep = GetClassRep(x);
    it.m_size = m_classSize[it.m_rep];
    it.m_members.reset(GetClassMembers(x, nullptr));
    return it;
}

CDisjointSets::PartitionIterator CDisjointSets::begin() const
{
    PartitionIterator it;
    it.m_partition = this;
    it.m_numClasses = m_numClasses;
    if (m_numClasses > 0)
        it.m_classes.reset(GetClasses(nullptr));
    return it;
}

} // namespace DataLayer
