// PDUs that are not sent yet, or not acknowledged.
#pragma once

#include <optional>

#include "talvo/base/chain_ptr.h"
#include "talvo/base/export.h"
#include "talvo/base/types.h"
#include "talvo/connection/protocol/cs_pdu.h"

namespace talvo {
class CGatherChain;
}

//  m_pFirst                      m_pCurrent                  m_pLast
//  |--- sent, to be acknowledged ---|--- to be sent ------------|         in the order of sending
//
// Owned by a connection, which adds PDUs, sends what GetData or Gather gives it, says with DataSentLen how much the transport
// took, and frees what is sent with DoACK or, where no acknowledgements come, with ClearAllSent. A PDU of which the transport
// has taken a part keeps its bytes until the rest has gone; only Reset drops it, and only DoReconnACK starts it afresh.
//
// A message costs an allocation and, beyond 1,024 bytes, a duplicate of its block. Gather allocates nothing, GetData duplicates
// the blocks of a payload behind its first. Adding, and freeing an item, take constant time. One thread.
class TALVO_API CCsSendBuf {
public:
    // Capacity in bytes, fixed parts included; at most what the sequence numbers leave, some 4 GiB.
    explicit CCsSendBuf(DWORD aMaxBufLen) : CCsSendBuf(aMaxBufLen, FIRST_SEQ) {}
    ~CCsSendBuf();
    CCsSendBuf(const CCsSendBuf&) = delete;
    CCsSendBuf& operator=(const CCsSendBuf&) = delete;

    // 0 drops everything, but for a PDU of which a part has been sent: that stays until it has gone. A capacity below what is
    // in use keeps new PDUs out and nothing else.
    void SetMaxBufLen(DWORD aMaxBufLen);
    DWORD GetMaxBufLen() const { return m_dwMaxBufLen; }

    // The connection's receive counter, for the ACK fields of what is prepared from now on.
    void SetSeq4ACK(DWORD aSeq) { m_dwSeq4ACK = aSeq; }

    // Takes the whole of aMb, a duplicate of it, and advances its read positions. Returns its length; 0, and nothing is taken:
    // no room (or memory), or aMb is null or empty. All data PDUs of a connection have or have not an ACK field.
    DWORD AddDataPDU(CCmMessageBlock* aMb, BOOL aNeedACK);
    // Returns 5, or 0 when there is no room, or something waits to be sent anyway and shows the peer the same.
    DWORD AddKeepAlivePDU();
    // The low 16 bits of aReason. Returns 3 whether there is room or not; 0: out of memory.
    DWORD AddDisconnPDU(CmResult aReason);

    static constexpr BYTE NOTHING = 15;

    // The type of the item to be sent and, in aMb, those of its bytes that have not been sent: a chain that the caller may
    // consume and not free, valid until the next call of this object. Consumed or not, only DataSentLen counts as sent.
    // NOTHING, and null, when there is nothing to be sent, or no memory for the chain of a payload of several blocks.
    BYTE GetData(CCmMessageBlock*& aMb);

    // How many bytes GetData would give, had it memory.
    DWORD GetCurrentUnsent() const;

    // Adds the bytes to be sent to an empty aChain, as many whole items as have room there. They stay valid until DataSentLen.
    // FALSE: nothing is to be sent, or the first item alone has too many pieces; send what GetData gives then.
    BOOL Gather(talvo::CGatherChain& aChain);

    // So many of the bytes that GetData or Gather gave have gone: any number of items, and a part of the next one.
    void DataSentLen(DWORD aLength);

    // Frees what is sent.
    void ClearAllSent();

    // Frees what the peer has acknowledged by a receive counter of aSeq. 0: something, or aSeq is the end of an item, or all
    // that is sent. -1: nothing. -2: there are no items.
    int DoACK(DWORD aSeq);

    // The same after a reconnection; what remains is sent again from its first byte. -1: aSeq fits no item, nothing changes.
    int DoReconnACK(DWORD aSeq);

    // As new, except for the capacity.
    void Reset();

    // Bytes that are still to be sent, and bytes of all items; fixed parts included.
    DWORD GetUnsent() const { return m_dwUnsent; }
    DWORD GetUsed() const { return m_dwUsed; }
    DWORD GetCount() const { return m_dwCount; }  // items

protected:
    // Numbers the first data PDU aFirstSeq, as if all before it had been sent and acknowledged.
    CCsSendBuf(DWORD aMaxBufLen, DWORD aFirstSeq);

private:
    static constexpr DWORD FIRST_SEQ = 1;
    static constexpr DWORD SEQ_LIMIT = 0xFFF00000;  // a data PDU that would go beyond starts again at FIRST_SEQ

    BOOL HasRoom(DWORD aFixLength, DWORD aDataLength) const;
    DWORD Append(CCsPduSendItem* aItem);
    void SetCurrent(CCsPduSendItem* aItem);
    BOOL BuildPrepared();
    void DropPrepared();
    void FreeFirst();
    void FreeAcknowledged();
    BOOL IsOfRangeBefore(const CCsPduSendItem& aItem, DWORD aSeq) const;
    void FreeItemsBut(CCsPduSendItem* aKept);

    DWORD m_dwMaxBufLen;
    CCsPduSendItem* m_pFirst = nullptr;  // the list owns its items
    CCsPduSendItem* m_pLast = nullptr;
    DWORD m_dwCount = 0;
    CCsPduSendItem* m_pCurrent = nullptr;  // first with unsent bytes, in the list; null: all is sent
    CCsPduSendItem* m_pRestart = nullptr;  // the last one of type DATA_START, in the list
    DWORD m_dwCurrentSent = 0;             // bytes of the current item that have gone
    DWORD m_dwNextSeq;
    DWORD m_dwSeqACKed;  // highest acknowledged sequence number
    DWORD m_dwSeq4ACK = 0;
    DWORD m_dwUsed = 0;
    DWORD m_dwUnsent = 0;

    // What GetData gave: views on the fixed part and on the payload's first block, and duplicates of its further blocks.
    std::optional<CCmMessageBlock> m_FixedPart;
    std::optional<CCmMessageBlock> m_FirstBlock;
    CCmChainPtr m_pFurtherBlocks;
};
