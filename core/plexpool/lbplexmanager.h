#pragma once
// LbPlexManager: a pool of fixed-size element slots, allocated in blocks ("plexes") and handed out
// one at a time from a free list, so that a node-based container pays no heap call per element and
// drops all its nodes with a handful of block frees.
//
// Ownership: the pool owns its blocks and frees them in its destructor. It does not know which
// slots hold live objects: the owner constructs elements in the storage from getFreeElement() and
// gives them back with releaseElement() (which runs the destructor) before the pool goes.
// Threads: the lock policy brackets each change; policy 0 takes no lock, so such a pool serves one
// thread at a time.
// Block sizes: the fixed block size when it is not 0, else 1024 elements grown by the float 1.5 per
// block already allocated, truncated at each step (1024, 1536, 2304, 3456, ...).
// Decisions: a block size above 0xFFFFFFE elements is clamped to that (the most one allocation
// holds); slots are aligned to the larger of Alignment and the element's own alignment, and are at
// least one pointer wide (the free list runs through their first word).
// Failure: when a block can't be allocated, getFreeElement() throws LbExceptionContainer and the
// pool is left exactly as it was.

#include <cstddef>
#include <cstdint>
#include <new>

#include "core/base/lbexception.h"
#include "core/plexpool/inoncopyable.h"
#include "core/plexpool/lbcriticalsectionpolicy.h"

template <typename Element, int LockPolicy = 0, std::size_t Alignment = alignof(Element),
          typename SizeType = unsigned int>
class LbPlexManager : public LbCriticalSectionPolicy<LockPolicy>, public INonCopyable
{
public:
    /// The most elements a single block allocation holds.
    static constexpr SizeType m_ciMaxBlockElements = 0xFFFFFFE;

    LbPlexManager() = default;
    virtual ~LbPlexManager() { freeBlocks(); }

    /// Uninitialised storage for one Element (construct it with placement new). Pops the free list;
    /// when that is empty, first allocates a new block and threads its slots onto the list.
    /// Throws LbExceptionContainer (source location, this function's name) when the block can't be
    /// allocated; the pool is then unchanged.
    Element* getFreeElement()
    {
        LbCriticalSectionGuard<LbCriticalSectionPolicy<LockPolicy>> guard(*this);
        if (!m_freeHead && !allocateBlock())
            throw LbExceptionContainer(__FILE__, __LINE__, __func__);
        SFreeSlot* slot = m_freeHead;
        m_freeHead = slot->next;
        slot->~SFreeSlot();
        return reinterpret_cast<Element*>(slot);
    }

    /// Destroys the element and puts its slot at the head of the free list. The slot must come from
    /// this pool's getFreeElement(). Its memory lives until the pool is destroyed.
    void releaseElement(Element* element) noexcept
    {
        element->~Element();
        returnStorage(element);
    }

    /// Puts a slot whose element was never constructed (or is already destroyed) back at the head
    /// of the free list.
    void returnStorage(void* storage) noexcept
    {
        LbCriticalSectionGuard<LbCriticalSectionPolicy<LockPolicy>> guard(*this);
        m_freeHead = ::new (storage) SFreeSlot{m_freeHead};
    }

    /// Number of blocks allocated so far.
    SizeType GetBlockCount() const noexcept { return m_blockCount; }

    /// Number of elements the next block will hold.
    SizeType GetNextBlockSize() const noexcept
    {
        if (m_fixedBlockSize != 0)
            return m_fixedBlockSize < m_ciMaxBlockElements ? m_fixedBlockSize : m_ciMaxBlockElements;
        SizeType size = m_firstBlockSize;
        for (SizeType i = 0; i < m_blockCount && size < m_ciMaxBlockElements; ++i) {
            const float grown = static_cast<float>(size) * m_growthFactor;
            size = grown >= static_cast<float>(m_ciMaxBlockElements) ? m_ciMaxBlockElements
                                                                     : static_cast<SizeType>(grown);
        }
        return size;
    }

    /// Fixed number of elements per block; 0 (the default) selects the growing sizes.
    void SetFixedBlockSize(SizeType elements) noexcept { m_fixedBlockSize = elements; }
    SizeType GetFixedBlockSize() const noexcept { return m_fixedBlockSize; }

    /// Bytes between consecutive slots of a block, and their alignment.
    static constexpr std::size_t SlotAlignment()
    {
        std::size_t a = Alignment > alignof(Element) ? Alignment : alignof(Element);
        return a > alignof(void*) ? a : alignof(void*);
    }
    static constexpr std::size_t SlotSize()
    {
        const std::size_t raw = sizeof(Element) > sizeof(void*) ? sizeof(Element) : sizeof(void*);
        return (raw + SlotAlignment() - 1) / SlotAlignment() * SlotAlignment();
    }

    // ---- implementation details follow ---------------------------------------------------------
private:
    struct SFreeSlot
    {
        SFreeSlot* next;
    };
    struct SBlock
    {
        void* memory;
        SBlock* next;
    };

    // Adds one block to the pool and its slots to the free list; false, with nothing changed, when
    // the memory can't be had.
    bool allocateBlock() noexcept
    {
        const SizeType elements = GetNextBlockSize();
        const std::size_t slot = SlotSize();
        if (static_cast<std::size_t>(elements) > SIZE_MAX / slot)
            return false;
        void* memory = ::operator new (static_cast<std::size_t>(elements) * slot,
                                       std::align_val_t{SlotAlignment()}, std::nothrow);
        if (!memory)
            return false;
        SBlock* block = new (std::nothrow) SBlock{memory, m_blocks};
        if (!block) {
            ::operator delete (memory, std::align_val_t{SlotAlignment()});
            return false;
        }
        m_blocks = block;
        // Thread the slots so that the lowest address comes out first.
        auto* bytes = static_cast<unsigned char*>(memory);
        SFreeSlot* head = m_freeHead;
        for (std::size_t i = elements; i-- > 0;)
            head = ::new (bytes + i * slot) SFreeSlot{head};
        m_freeHead = head;
        ++m_blockCount;
        return true;
    }

    void freeBlocks() noexcept
    {
        while (m_blocks) {
            SBlock* next = m_blocks->next;
            ::operator delete (m_blocks->memory, std::align_val_t{SlotAlignment()});
            delete m_blocks;
            m_blocks = next;
        }
        m_freeHead = nullptr;
    }

    SBlock* m_blocks = nullptr;
    SFreeSlot* m_freeHead = nullptr;
    SizeType m_firstBlockSize = 1024;
    SizeType m_fixedBlockSize = 0;
    SizeType m_blockCount = 0;
    float m_growthFactor = 1.5f;
};
