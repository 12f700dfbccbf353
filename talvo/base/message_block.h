// A chain of views on shared storage, which carries all data through the library.
#pragma once

#include <sys/uio.h>

#include "talvo/base/data_block.h"
#include "talvo/base/export.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

//  m_pBeginPtr       m_pReadPtr       m_pWritePtr       m_pEndPtr
//  |--- consumed ----|---- unread ----|----- space -----|           begin <= read <= write <= end
//
// One view, linked to the next of its chain. "Top-level" means this view alone, "chained" this view and all behind it. A chain
// belongs to one thread at a time; only its storage may be shared with other threads.
//
// Ownership and deletion: a block from a Duplicate... function or from Disjoint carries the bit DUPLICATED, and DestroyChained
// frees its chain. A block from a constructor belongs to its creator, and its destructor does not touch the blocks behind it. A
// layer that keeps data takes a DuplicateChained and advances the caller's read position by that many bytes.
//
// Duplicating, cutting and appending copy no payload, with one exception: a duplicate of a view on foreign memory is a copy.
class TALVO_API CCmMessageBlock {
public:
    // The bits of a block.
    enum : CmDword {
        DONT_DELETE = 0x1,      // a view on memory that it does not own
        MALLOC_AND_COPY = 0x2,  // for the constructor: allocate storage although a pointer is given
        READ_LOCKED = 0x100,
        WRITE_LOCKED = 0x200,
        DUPLICATED = 0x20000  // DestroyChained frees it
    };

    // With aData and without MALLOC_AND_COPY: a view on the caller's aSize bytes, which must outlive it. Otherwise: new storage
    // of aSize bytes, not initialised; even then the caller, not the constructor, copies aData. There is no storage for size 0
    // or if memory ran out: check GetTopLevelSpace(). The write position then advances by aAdvanceWritePtrSize, or not at all
    // if that does not fit.
    explicit CCmMessageBlock(CmDword aSize, const char* aData = nullptr, CmDword aFlag = 0, CmDword aAdvanceWritePtrSize = 0);

    // An empty view on the whole of aDb, which may be null. Holds a reference. A CCmDataBlock* converts; a plain 0 is a size.
    explicit CCmMessageBlock(CCmRefPtrT<CCmDataBlock> aDb, CmDword aFlag = 0);

    // A view on the first aLength unread bytes of aSource alone, or on all of them if there are fewer. It shares aSource's
    // storage; foreign memory is viewed, not copied. It has no space, so that a write to it or to its duplicate cannot reach
    // the bytes behind it.
    CCmMessageBlock(const CCmMessageBlock& aSource, CmDword aLength);

    ~CCmMessageBlock() = default;
    CCmMessageBlock(const CCmMessageBlock&) = delete;
    CCmMessageBlock& operator=(const CCmMessageBlock&) = delete;

    // Of this block alone: the unread bytes, and the space behind them.
    CmDword GetTopLevelLength() const { return static_cast<CmDword>(m_pWritePtr - m_pReadPtr); }
    CmDword GetTopLevelSpace() const { return static_cast<CmDword>(m_pEndPtr - m_pWritePtr); }
    // The positions: of the first unread byte, and of the first byte of the space.
    const char* GetTopLevelReadPtr() const { return m_pReadPtr; }
    char* GetTopLevelWritePtr() const { return m_pWritePtr; }
    // The next block of the chain, or null.
    CCmMessageBlock* GetNext() const { return m_pNext; }
    // The bits above.
    CmDword GetFlag() const { return m_Flag; }

    // CM_ERROR_NOT_AVAILABLE: aCount exceeds the unread bytes or the space, and nothing moves.
    CmResult AdvanceTopLevelReadPtr(CmDword aCount) {
        if (aCount > GetTopLevelLength())
            return CM_ERROR_NOT_AVAILABLE;
        m_pReadPtr += aCount;
        return CM_OK;
    }
    CmResult AdvanceTopLevelWritePtr(CmDword aCount) {
        if (aCount > GetTopLevelSpace())
            return CM_ERROR_NOT_AVAILABLE;
        m_pWritePtr += aCount;
        return CM_OK;
    }

    // The operations below that have a count do as much as possible. Their last parameter (out, may be null) is the count done.
    // They return CM_OK, or CM_ERROR_PARTIAL_DATA if that is less than the count asked for.

    // Copies from the whole chain to aDst (null: skips the copy) and, with aAdvance, consumes the copied bytes.
    CmResult Read(void* aDst, CmDword aCount, CmDword* aRead = nullptr, CmBool aAdvance = CM_TRUE);
    // Copies from aSrc (null: leaves the bytes unchanged) into this block alone.
    CmResult Write(const void* aSrc, CmDword aCount, CmDword* aWritten = nullptr);
    // Consumes bytes of the whole chain.
    CmResult AdvanceChainedReadPtr(CmDword aCount, CmDword* aDone = nullptr) { return Read(nullptr, aCount, aDone, CM_TRUE); }
    // For a chain that was filled in place. Also stops, with CM_ERROR_PARTIAL_DATA and a trace line, at a block that was read
    // from.
    CmResult AdvanceChainedWritePtr(CmDword aCount, CmDword* aDone = nullptr);

    // 0xFFFFFFFF: so much or more.
    // The unread bytes of the whole chain.
    CmDword GetChainedLength() const;
    static constexpr CmDword MOST_LENGTH = 0xFFFFFFFF;  // the most that GetChainedLength returns
    CmDword GetChainedSpace() const;                    // the space of the whole chain

    // Links aMb behind the last block. Does nothing for null or for a block that is in the chain already. Ownership does not
    // change: the DUPLICATED bits determine it.
    void Append(CCmMessageBlock* aMb);

    // A heap block with the same positions over the same storage, or over a copy of foreign memory. Null: memory ran out. The
    // lock bits are not inherited.
    CCmMessageBlock* DuplicateTopLevel() const;
    // The same for each block of the chain.
    CCmMessageBlock* DuplicateChained() const;

    // Cuts the chain behind aStart unread bytes and returns the second part. Every block of that part is DUPLICATED; a block
    // that was not is replaced by a duplicate, with a trace line. Null, and nothing is cut: there is no byte behind. Null also
    // if memory ran out: the chain is then whole, or ends at the cut if the replacement failed.
    CCmMessageBlock* Disjoint(CmDword aStart);

    // Frees this block and the blocks behind it up to the first that is not DUPLICATED. There it stops with a trace line; that
    // block and those behind it stay with their owner.
    void DestroyChained();

    // Removes fully read blocks from the front and frees those that are DUPLICATED. Returns the first block with unread bytes,
    // or null. A removed block that is not freed stays linked to the rest.
    CCmMessageBlock* ReclaimGarbage();

    // Makes a single block empty again. In a chain every block's write position becomes the first block's begin, so that only
    // the first is usable afterwards: rewind the blocks one by one.
    void RewindChained();

    // aIov (out): an entry for each of the first aMax non-empty blocks, in order. Returns the number of entries.
    CmDword FillIov(iovec* aIov, CmDword aMax) const;

    // All unread bytes as one string.
    CCmString FlattenChained() const;

    // Marks for the users of a block. No operation checks them.
    void LockReading() { m_Flag |= READ_LOCKED; }
    void LockWriting() { m_Flag |= WRITE_LOCKED; }

private:
    void AttachDataBlock();
    CCmMessageBlock* CutBehind(CmDword aStart);
    static CCmMessageBlock* MakeAllDuplicated(CCmMessageBlock* aHead);

    CCmMessageBlock* m_pNext = nullptr;  // owned by the chain's holder
    CCmRefPtrT<CCmDataBlock> m_pDataBlock;
    char* m_pReadPtr = nullptr;
    char* m_pWritePtr = nullptr;
    char* m_pBeginPtr = nullptr;
    char* m_pEndPtr = nullptr;
    CmDword m_Flag;
};
