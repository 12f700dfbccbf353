// PDUs that are unsent or unacknowledged.
#pragma once

#include <memory>
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
// A message costs an allocation and, beyond 1,024 bytes, a duplicate of its block. Gather allocates nothing; GetData allocates
// at its first call, and duplicates the blocks of a payload after its first. Adding, and freeing an item, take constant time.
// One thread.
class TALVO_API CCsSendBuf {
public:
    static constexpr CmDword SEQ_LIMIT = 0xFFF00000;  // a data PDU that would go beyond restarts the numbers at 1

    // For tests of the restart: aLimit takes the place of SEQ_LIMIT in all send buffers. Each must fit into a quarter of it.
    static void LimitNumbers(CmDword aLimit = SEQ_LIMIT);

    // Capacity in bytes, fixed parts included; at most the range of the sequence numbers, some 4 GiB.
    explicit CCsSendBuf(CmDword aMaxBufLen) : CCsSendBuf(aMaxBufLen, FIRST_SEQ) {}
    ~CCsSendBuf();
    CCsSendBuf(const CCsSendBuf&) = delete;
    CCsSendBuf& operator=(const CCsSendBuf&) = delete;

    // 0 drops everything except a partly sent PDU, which stays until it is sent. A capacity below the bytes in use only refuses
    // new PDUs.
    void SetMaxBufLen(CmDword aMaxBufLen);
    // The capacity.
    CmDword GetMaxBufLen() const { return m_dwMaxBufLen; }

    // The connection's receive counter, for the ACK fields of PDUs prepared from now on.
    void SetSeq4ACK(CmDword aSeq) { m_dwSeq4ACK = aSeq; }

    // Takes the whole of aMb, as a duplicate or, up to 1,024 bytes, a copy (WRITE_LOCKED: up to 128 bytes), and advances its
    // read positions. Returns its length. 0: there is no room (or memory), or aMb is null or empty; no data is taken. Either
    // all data PDUs of a connection have an ACK field, or none.
    CmDword AddDataPDU(CCmMessageBlock* aMb, CmBool aNeedACK);
    // Returns 5, or 0: there is no room, or other data is due and serves the same purpose.
    CmDword AddKeepAlivePDU();
    // The low 16 bits of aReason. Returns 3 with or without room; 0: out of memory.
    CmDword AddDisconnPDU(CmResult aReason);

    static constexpr CmByte NOTHING = 15;  // no type of a PDU

    // Returns the type of the current item. aMb (out): its unsent bytes, a chain that the caller may consume and not free,
    // valid until the next call of this object. Only DataSentLen counts as sent, not the consumption. NOTHING, and null: there
    // is no data to send, or no memory for the chain of a payload of several blocks.
    CmByte GetData(CCmMessageBlock*& aMb);

    // The number of bytes of GetData, also if it has no memory.
    CmDword GetCurrentUnsent() const;

    // Adds the unsent bytes to an empty aChain, as many whole items as fit. They stay valid until DataSentLen. FALSE: there is
    // no data to send, or the first item alone has too many pieces; then use GetData.
    CmBool Gather(talvo::CGatherChain& aChain);

    // That many of the bytes from GetData or Gather are sent: any number of items, and a part of the next one.
    void DataSentLen(CmDword aLength);

    // Frees the sent items.
    void ClearAllSent();

    // Frees the items that the peer acknowledges with a receive counter of aSeq. 0: it freed items, or aSeq is the end of an
    // item, or of all sent data. -1: no effect. -2: there are no items.
    int DoACK(CmDword aSeq);

    // The same after a reconnection; the rest is sent again from its first byte. -1: aSeq fits no item, and the state is
    // unchanged.
    int DoReconnACK(CmDword aSeq);

    // Reliable connections only: TRUE: a peer may state aSeq as its receive counter after a reconnection. It is the last
    // acknowledged number, or the end of a kept data PDU that was handed whole to a transport.
    CmBool IsResumePoint(CmDword aSeq) const;
    // TRUE: aSeq is not beyond the data that was handed whole to a transport, so a peer may acknowledge it.
    CmBool IsSent(CmDword aSeq) const;

    // The transport is lost. The next item to send is the first that was never handed whole to any transport, from its first
    // byte. A late request with an old counter therefore rewinds the buffer for its own transport only.
    void OnTransportLost();

    // As new, except for the capacity.
    void Reset();

    // The value in the ACK field that was sent last, in a PDU of this buffer or elsewhere.
    CmDword GetACKSent() const { return m_dwACKSent; }
    void SetACKSent(CmDword aSeq) { m_dwACKSent = aSeq; }

    // Bytes of items that were handed whole to a transport before and are to be sent again.
    CmDword GetRepeated() const;

    // Bytes still to send, and bytes of all items; fixed parts included.
    CmDword GetUnsent() const { return m_dwUnsent; }
    CmDword GetUsed() const { return m_dwUsed; }
    CmDword GetCount() const { return m_dwCount; }  // items

protected:
    // Numbers the first data PDU aFirstSeq, as if all before it had been sent and acknowledged.
    CCsSendBuf(CmDword aMaxBufLen, CmDword aFirstSeq);

private:
    static constexpr CmDword FIRST_SEQ = 1;

    CmBool HasRoom(CmDword aFixLength, CmDword aDataLength) const;
    CmDword Append(CCsPduSendItem* aItem);
    void SetCurrent(CCsPduSendItem* aItem);
    CmBool BuildPrepared();
    void DropPrepared();
    void FreeFirst();
    void FreeAcknowledged();
    void OnItemSent(const CCsPduSendItem& aItem);
    CmBool IsOfRangeBefore(const CCsPduSendItem& aItem, CmDword aSeq) const;
    void FreeItemsBut(CCsPduSendItem* aKept);

    CmDword m_dwMaxBufLen;
    CCsPduSendItem* m_pFirst = nullptr;  // the list owns its items
    CCsPduSendItem* m_pLast = nullptr;
    CmDword m_dwCount = 0;
    CCsPduSendItem* m_pCurrent = nullptr;  // first with unsent bytes, in the list; null: all is sent
    CCsPduSendItem* m_pNew = nullptr;      // first that was never handed whole to a transport, in the list; null: all were
    CCsPduSendItem* m_pRestart = nullptr;  // the last one of type DATA_START, in the list
    CmDword m_dwCurrentSent = 0;           // sent bytes of the current item
    CmDword m_dwSeqSent;                   // last number of the items before m_pNew
    CmDword m_dwSeqBeforeRestart = 0;      // last number before m_pRestart
    CmDword m_dwACKSent = 0;
    CmDword m_dwNextSeq;
    CmDword m_dwSeqACKed;  // highest acknowledged sequence number
    CmDword m_dwSeq4ACK = 0;
    CmDword m_dwUsed = 0;
    CmDword m_dwUnsent = 0;

    // The chain of GetData: views on the fixed part and on the payload's first block, and duplicates of its further blocks.
    struct CPrepared {
        std::optional<CCmMessageBlock> m_FixedPart;
        std::optional<CCmMessageBlock> m_FirstBlock;
        CCmChainPtr m_pFurtherBlocks;
    };
    std::unique_ptr<CPrepared> m_pPrepared;  // null: GetData has not been called, as in most connections
};
