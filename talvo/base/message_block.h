// What every byte travels in: a chain of views on shared storage.
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
// belongs to one thread at a time; only the storage behind it may be shared with other threads.
//
// Who frees what: a block made by a Duplicate... or by Disjoint carries the bit DUPLICATED, and its chain is freed with
// DestroyChained. A block made by its constructor belongs to whoever made it, and its destructor leaves the chain behind it
// alone. A layer that keeps data keeps a DuplicateChained and advances the caller's read position by what it took.
//
// Duplicating, cutting and appending copy no payload, except that a view on foreign memory is copied when it is duplicated.
class TALVO_API CCmMessageBlock {
public:
    enum : DWORD {
        DONT_DELETE = 0x1,      // views memory that it does not own
        MALLOC_AND_COPY = 0x2,  // for the constructor: own storage even though a pointer is given
        READ_LOCKED = 0x100,
        WRITE_LOCKED = 0x200,
        DUPLICATED = 0x20000  // freed by DestroyChained
    };

    // With aData and without MALLOC_AND_COPY: a view on the caller's aSize bytes, which must outlive it. Otherwise new storage
    // of aSize bytes, not initialised (aData is not copied even then: the caller writes), or none for size 0 or when memory
    // ran out: GetTopLevelSpace() tells. The write position then advances by aAdvanceWritePtrSize, or not at all if that does
    // not fit.
    explicit CCmMessageBlock(DWORD aSize, const char* aData = nullptr, DWORD aFlag = 0, DWORD aAdvanceWritePtrSize = 0);

    // An empty view on the whole of aDb, which may be null; holds a reference. A CCmDataBlock* will do; a plain 0 is a size.
    explicit CCmMessageBlock(CCmRefPtrT<CCmDataBlock> aDb, DWORD aFlag = 0);

    // A view on the first aLength unread bytes (or as many as there are) of aSource alone, sharing its storage or, if that is
    // foreign, viewing it likewise. It has no space behind them: who writes to it, or to a duplicate, cannot reach what
    // follows.
    CCmMessageBlock(const CCmMessageBlock& aSource, DWORD aLength);

    ~CCmMessageBlock() = default;
    CCmMessageBlock(const CCmMessageBlock&) = delete;
    CCmMessageBlock& operator=(const CCmMessageBlock&) = delete;

    DWORD GetTopLevelLength() const { return static_cast<DWORD>(m_pWritePtr - m_pReadPtr); }
    DWORD GetTopLevelSpace() const { return static_cast<DWORD>(m_pEndPtr - m_pWritePtr); }
    const char* GetTopLevelReadPtr() const { return m_pReadPtr; }
    char* GetTopLevelWritePtr() const { return m_pWritePtr; }
    CCmMessageBlock* GetNext() const { return m_pNext; }
    DWORD GetFlag() const { return m_Flag; }

    // CM_ERROR_NOT_AVAILABLE, and nothing moves, beyond the unread bytes or the space.
    CmResult AdvanceTopLevelReadPtr(DWORD aCount) {
        if (aCount > GetTopLevelLength())
            return CM_ERROR_NOT_AVAILABLE;
        m_pReadPtr += aCount;
        return CM_OK;
    }
    CmResult AdvanceTopLevelWritePtr(DWORD aCount) {
        if (aCount > GetTopLevelSpace())
            return CM_ERROR_NOT_AVAILABLE;
        m_pWritePtr += aCount;
        return CM_OK;
    }

    // The operations below that take a count do as much as there is, store it in their last DWORD* (may be null) and return
    // CM_OK, or CM_ERROR_PARTIAL_DATA when that was not all.

    // Copies from the whole chain to aDst (null: nowhere) and, with aAdvance, consumes what it copied.
    CmResult Read(void* aDst, DWORD aCount, DWORD* aRead = nullptr, BOOL aAdvance = TRUE);
    // Copies from aSrc (null: leaves the bytes as they are) into this block alone.
    CmResult Write(const void* aSrc, DWORD aCount, DWORD* aWritten = nullptr);
    CmResult AdvanceChainedReadPtr(DWORD aCount, DWORD* aDone = nullptr) { return Read(nullptr, aCount, aDone, TRUE); }
    // For a chain that was filled in place. Also stops, with CM_ERROR_PARTIAL_DATA and a line, at a block that was read from.
    CmResult AdvanceChainedWritePtr(DWORD aCount, DWORD* aDone = nullptr);

    DWORD GetChainedLength() const;
    DWORD GetChainedSpace() const;

    // Links aMb behind the last block; nothing happens for null or a block that the chain holds already. Ownership is not
    // touched: the DUPLICATED bits say who frees what.
    void Append(CCmMessageBlock* aMb);

    // A heap block with the same positions over the same storage (over a copy of it, when it is foreign memory); null when
    // memory ran out. The lock bits are not inherited.
    CCmMessageBlock* DuplicateTopLevel() const;
    CCmMessageBlock* DuplicateChained() const;

    // Cuts the chain behind aStart unread bytes and returns the second part, all of it DUPLICATED (blocks that were not are
    // replaced by duplicates, with a line). Null, and nothing is cut, when there is nothing behind. Null also when memory ran
    // out: the chain is then whole, or ends at the cut if replacing is what failed.
    CCmMessageBlock* Disjoint(DWORD aStart);

    // Frees this block and those behind it as far as they are DUPLICATED. Stops with a line at the first that is not: that one
    // and what hangs behind it stay with their owner.
    void DestroyChained();

    // Drops fully read blocks from the front, freeing those that are DUPLICATED, and returns the first with unread bytes, null
    // if there is none. A block that is not freed stays linked to what remains.
    CCmMessageBlock* ReclaimGarbage();

    // Makes a single block empty again. On a chain every block gets the write position of the first one's begin, so that only
    // the first is usable afterwards: rewind blocks one by one.
    void RewindChained();

    // Up to aMax entries for the non-empty blocks, in order; how many were filled.
    DWORD FillIov(iovec* aIov, DWORD aMax) const;

    // All unread bytes as one string.
    CCmString FlattenChained() const;

    // Marks for the users of a block; no operation tests them.
    void LockReading() { m_Flag |= READ_LOCKED; }
    void LockWriting() { m_Flag |= WRITE_LOCKED; }

private:
    void AttachDataBlock();
    CCmMessageBlock* CutBehind(DWORD aStart);
    static CCmMessageBlock* MakeAllDuplicated(CCmMessageBlock* aHead);

    CCmMessageBlock* m_pNext = nullptr;  // owned by the chain's holder
    CCmRefPtrT<CCmDataBlock> m_pDataBlock;
    char* m_pReadPtr = nullptr;
    char* m_pWritePtr = nullptr;
    char* m_pBeginPtr = nullptr;
    char* m_pEndPtr = nullptr;
    DWORD m_Flag;
};
