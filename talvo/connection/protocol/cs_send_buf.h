// PDUs that are unsent or unacknowledged.
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
// A connection owns it and adds PDUs. It sends the bytes from GetData or Gather, and reports the number that the transport took
// with DataSentLen. DoACK frees sent PDUs, or ClearAllSent if there are no acknowledgements. A PDU that is partly sent keeps
// its bytes until the rest is sent. Only Reset drops it, and only DoReconnACK restarts it.
//
// A message costs an allocation and, beyond 1,024 bytes, a duplicate of its block. Gather allocates nothing; GetData duplicates
// the blocks of a payload after its first. Adding, and freeing an item, take constant time. One thread.
class TALVO_API CCsSendBuf {
public:
    static constexpr DWORD SEQ_LIMIT = 0xFFF00000;  // a data PDU that would go beyond restarts the numbers at 1

    // For tests of the restart: aLimit takes the place of SEQ_LIMIT in all send buffers. Each must fit into a quarter of it.
    static void LimitNumbers(DWORD aLimit = SEQ_LIMIT);

    // Capacity in bytes, fixed parts included; at most the range of the sequence numbers, some 4 GiB.
    explicit CCsSendBuf(DWORD aMaxBufLen) : CCsSendBuf(aMaxBufLen, FIRST_SEQ) {}
    ~CCsSendBuf();
    CCsSendBuf(const CCsSendBuf&) = delete;
    CCsSendBuf& operator=(const CCsSendBuf&) = delete;

    // 0 drops everything except a partly sent PDU, which stays until it is sent. A capacity below the bytes in use only refuses
    // new PDUs.
    void SetMaxBufLen(DWORD aMaxBufLen);
    DWORD GetMaxBufLen() const { return m_dwMaxBufLen; }

    // The connection's receive counter, for the ACK fields of PDUs prepared from now on.
    void SetSeq4ACK(DWORD aSeq) { m_dwSeq4ACK = aSeq; }

    // Takes the whole of aMb, as a duplicate or, up to 1,024 bytes, a copy (WRITE_LOCKED: up to 128 bytes), and advances its
    // read positions. Returns its length. 0: there is no room (or memory), or aMb is null or empty; no data is taken. Either
    // all data PDUs of a connection have an ACK field, or none.
    DWORD AddDataPDU(CCmMessageBlock* aMb, BOOL aNeedACK);
    // Returns 5, or 0: there is no room, or other data is due and serves the same purpose.
    DWORD AddKeepAlivePDU();
    // The low 16 bits of aReason. Returns 3 with or without room; 0: out of memory.
    DWORD AddDisconnPDU(CmResult aReason);

    static constexpr BYTE NOTHING = 15;

    // Returns the type of the current item. aMb (out): its unsent bytes, a chain that the caller may consume and not free,
    // valid until the next call of this object. Only DataSentLen counts as sent, not the consumption. NOTHING, and null: there
    // is no data to send, or no memory for the chain of a payload of several blocks.
    BYTE GetData(CCmMessageBlock*& aMb);

    // The number of bytes of GetData, also if it has no memory.
    DWORD GetCurrentUnsent() const;

    // Adds the unsent bytes to an empty aChain, as many whole items as fit. They stay valid until DataSentLen. FALSE: there is
    // no data to send, or the first item alone has too many pieces; then use GetData.
    BOOL Gather(talvo::CGatherChain& aChain);

    // That many of the bytes from GetData or Gather are sent: any number of items, and a part of the next one.
    void DataSentLen(DWORD aLength);

    // Frees the sent items.
    void ClearAllSent();

    // Frees the items that the peer acknowledges with a receive counter of aSeq. 0: it freed items, or aSeq is the end of an
    // item, or of all sent data. -1: no effect. -2: there are no items.
    int DoACK(DWORD aSeq);

    // The same after a reconnection; the rest is sent again from its first byte. -1: aSeq fits no item, and the state is
    // unchanged.
    int DoReconnACK(DWORD aSeq);

    // Reliable connections only: TRUE: a peer may state aSeq as its receive counter after a reconnection. It is the last
    // acknowledged number, or the end of a kept data PDU that was handed whole to a transport.
    BOOL IsResumePoint(DWORD aSeq) const;
    // TRUE: aSeq is not beyond the data that was handed whole to a transport, so a peer may acknowledge it.
    BOOL IsSent(DWORD aSeq) const;

    // The transport is lost. The next item to send is the first that was never handed whole to any transport, from its first
    // byte. A late request with an old counter therefore rewinds the buffer for its own transport only.
    void OnTransportLost();

    // As new, except for the capacity.
    void Reset();

    // The value in the ACK field that was sent last, in a PDU of this buffer or elsewhere.
    DWORD GetACKSent() const { return m_dwACKSent; }
    void SetACKSent(DWORD aSeq) { m_dwACKSent = aSeq; }

    // Bytes of items that were handed whole to a transport before and are to be sent again.
    DWORD GetRepeated() const;

    // Bytes still to send, and bytes of all items; fixed parts included.
    DWORD GetUnsent() const { return m_dwUnsent; }
    DWORD GetUsed() const { return m_dwUsed; }
    DWORD GetCount() const { return m_dwCount; }  // items

protected:
    // Numbers the first data PDU aFirstSeq, as if all before it had been sent and acknowledged.
    CCsSendBuf(DWORD aMaxBufLen, DWORD aFirstSeq);

private:
    static constexpr DWORD FIRST_SEQ = 1;

    BOOL HasRoom(DWORD aFixLength, DWORD aDataLength) const;
    DWORD Append(CCsPduSendItem* aItem);
    void SetCurrent(CCsPduSendItem* aItem);
    BOOL BuildPrepared();
    void DropPrepared();
    void FreeFirst();
    void FreeAcknowledged();
    void OnItemSent(const CCsPduSendItem& aItem);
    BOOL IsOfRangeBefore(const CCsPduSendItem& aItem, DWORD aSeq) const;
    void FreeItemsBut(CCsPduSendItem* aKept);

    DWORD m_dwMaxBufLen;
    CCsPduSendItem* m_pFirst = nullptr;  // the list owns its items
    CCsPduSendItem* m_pLast = nullptr;
    DWORD m_dwCount = 0;
    CCsPduSendItem* m_pCurrent = nullptr;  // first with unsent bytes, in the list; null: all is sent
    CCsPduSendItem* m_pNew = nullptr;      // first that was never handed whole to a transport, in the list; null: all were
    CCsPduSendItem* m_pRestart = nullptr;  // the last one of type DATA_START, in the list
    DWORD m_dwCurrentSent = 0;             // sent bytes of the current item
    DWORD m_dwSeqSent;                     // last number of the items before m_pNew
    DWORD m_dwSeqBeforeRestart = 0;        // last number before m_pRestart
    DWORD m_dwACKSent = 0;
    DWORD m_dwNextSeq;
    DWORD m_dwSeqACKed;  // highest acknowledged sequence number
    DWORD m_dwSeq4ACK = 0;
    DWORD m_dwUsed = 0;
    DWORD m_dwUnsent = 0;

    // The chain of GetData: views on the fixed part and on the payload's first block, and duplicates of its further blocks.
    std::optional<CCmMessageBlock> m_FixedPart;
    std::optional<CCmMessageBlock> m_FirstBlock;
    CCmChainPtr m_pFurtherBlocks;
};
