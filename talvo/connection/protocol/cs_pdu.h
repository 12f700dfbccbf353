// The PDUs of the connection protocol: what they look like on the wire, and the classes that write and read them.
#pragma once

#include "talvo/base/chain_ptr.h"
#include "talvo/base/export.h"
#include "talvo/base/types.h"

// Every PDU begins with its type; all numbers are big-endian. Nothing separates PDUs: the type gives the length of the fixed
// part, and a data PDU holds the length of what follows it.
enum ECsPduType : BYTE {
    CS_PDU_TYPE_NONE = 0,  // never sent
    CS_PDU_TYPE_CONN_REQ = 1,
    CS_PDU_TYPE_CONN_RESP = 2,
    CS_PDU_TYPE_DISCONN = 3,
    CS_PDU_TYPE_KEEPALIVE = 4,
    CS_PDU_TYPE_DATA_START = 5,  // data whose sequence numbers start again at 1
    CS_PDU_TYPE_DATA_NORMAL = 6
};

// ACK, wherever it stands, is the sender's receive counter: the sequence number of the last byte that it has received. Only the
// bytes of data PDUs have sequence numbers, their fixed parts included.
//
// Encode writes the fixed part at the block's write position, where there must be room. Decode reads and consumes. Neither
// reports anything: what could not be read or written is traced, and the fields stay as they were. So decode a PDU when its
// fixed part has arrived.
//
// One thread.

//  0      1
//  | type |
//
// Any PDU as far as its type. A value.
class TALVO_API CCsPduBase {
public:
    explicit CCsPduBase(BYTE aType) : m_byType(aType) {}
    CCsPduBase(const CCsPduBase&) = default;
    CCsPduBase& operator=(const CCsPduBase&) = default;

    virtual ~CCsPduBase() = default;
    virtual void Decode(CCmMessageBlock& aMb);
    virtual void Encode(CCmMessageBlock& aMb) const;
    // As below, for this PDU.
    virtual DWORD GetFixLength() const { return GetFixLength(m_byType, TRUE); }

    // Bytes before the payload, at most MAX_FIX_LENGTH. bNeedACK matters for data PDUs only. 0, and a line: no such type.
    static DWORD GetFixLength(BYTE byType, BOOL bNeedACK);
    static constexpr DWORD MAX_FIX_LENGTH = 9;

    BYTE GetType() const { return m_byType; }

protected:
    BYTE m_byType;
};

//  0      1              5        7          8
//  | type | ACK          | ConTag | ConnType |
//
// Connect request (type 1) and response (2). ConTag is the server's number of the connection, 0 in a client's first request.
// ConnType tells what kind of connection the sender speaks; the receiver must speak the same. A value.
class TALVO_API CCsPduConnReqResp : public CCsPduBase {
public:
    explicit CCsPduConnReqResp(DWORD aACK = 0, WORD aConTag = 0, BYTE aType = CS_PDU_TYPE_CONN_REQ, BYTE aConnType = 15)
        : CCsPduBase(aType), m_dwACK(aACK), m_wConTag(aConTag), m_byConnType(aConnType) {}

    void Decode(CCmMessageBlock& aMb) override;
    void Encode(CCmMessageBlock& aMb) const override;

    DWORD GetACK() const { return m_dwACK; }
    WORD GetConTag() const { return m_wConTag; }
    BYTE GetConnType() const { return m_byConnType; }

private:
    DWORD m_dwACK;
    WORD m_wConTag;
    BYTE m_byConnType;
};

// What a send buffer keeps: a PDU on its way, with its place in the sequence and in the list. Has room for its own encoded
// fixed part, so that it can be sent from where it is without allocating.
class TALVO_API CCsPduSendItem : public CCsPduBase {
public:
    // Owns aData from now on, a chain of DUPLICATED blocks or null, and destroys it in the end. Until then the chain is sent,
    // and sent again, through views: nobody moves its positions. aDataLen: how many unread bytes it has.
    CCsPduSendItem(BOOL aNeedACK, DWORD aACK, BYTE aType, DWORD aDataLen, CCmMessageBlock* aData)
        : CCsPduBase(aType), m_dwACK(aACK), m_dwDataLen(aDataLen), m_pOwnData(aData), m_pData(aData), m_bNeedACK(aNeedACK) {}
    CCsPduSendItem(const CCsPduSendItem&) = delete;
    CCsPduSendItem& operator=(const CCsPduSendItem&) = delete;

    using CCsPduBase::GetFixLength;
    DWORD GetFixLength() const override { return GetFixLength(m_byType, m_bNeedACK); }

    void SetACK(DWORD aACK) { m_dwACK = aACK; }
    DWORD GetACK() const { return m_dwACK; }
    DWORD GetDataLen() const { return m_dwDataLen; }
    CCmMessageBlock* GetData() const { return m_pData; }

    // The first of the sequence numbers of a data PDU; the last one follows from it, fixed part included. Nothing changes, and
    // there is a line, for any other PDU: those have no numbers, and both are 0.
    void SetSeqStart(DWORD aSeq);
    DWORD GetSeqStart() const { return m_dwSeqStart; }
    DWORD GetSeqEnd() const { return m_dwSeqEnd; }

    void SetNext(CCsPduSendItem* aNext) { m_pNext = aNext; }
    CCsPduSendItem* GetNext() const { return m_pNext; }

    // Encodes the fixed part, with this ACK, into the item's own room. A PDU of which bytes have been sent must stay as it is.
    void Prepare(DWORD aACK);
    // What Prepare left there, GetFixLength() bytes.
    const char* GetPrepared() const { return m_szPrepared; }

protected:
    void SetData(CCmChainPtr aData);

    DWORD m_dwACK;
    DWORD m_dwDataLen;
    CCmChainPtr m_pOwnData;
    CCmMessageBlock* m_pData;  // m_pOwnData, or the derived class's own block
    DWORD m_dwSeqStart = 0;
    DWORD m_dwSeqEnd = 0;
    CCsPduSendItem* m_pNext = nullptr;  // the list's, not owned
    BOOL m_bNeedACK;

private:
    char m_szPrepared[MAX_FIX_LENGTH] = {};
};

//  0      1        3
//  | type | Reason |
//
// Disconnect (type 3). Reason: the low 16 bits of the result that the sender closed with.
class TALVO_API CCsPduDisconn : public CCsPduSendItem {
public:
    explicit CCsPduDisconn(WORD aReason = 0, BYTE aType = CS_PDU_TYPE_DISCONN)
        : CCsPduSendItem(TRUE, 0, aType, 0, nullptr), m_wReason(aReason) {}

    void Decode(CCmMessageBlock& aMb) override;
    void Encode(CCmMessageBlock& aMb) const override;

    WORD GetReason() const { return m_wReason; }

private:
    WORD m_wReason;
};

//  0      1              5
//  | type | ACK          |
//
// Keep-alive (type 4).
class TALVO_API CCsPduKeepAlive : public CCsPduSendItem {
public:
    explicit CCsPduKeepAlive(DWORD aACK = 0, BYTE aType = CS_PDU_TYPE_KEEPALIVE)
        : CCsPduSendItem(TRUE, aACK, aType, 0, nullptr) {}

    void Decode(CCmMessageBlock& aMb) override;
    void Encode(CCmMessageBlock& aMb) const override;
};

//  0      1              5               9
//  | type | ACK          | DataLen       | payload ...      with acknowledgement
//
//  0      1               5
//  | type | DataLen       | payload ...                     without
//
// Data (types 5 and 6). Nothing in the PDU tells the two forms apart: both ends know it from the type of their connection.
class TALVO_API CCsPduData : public CCsPduSendItem {
public:
    // To decode, aNeedACK is all that is needed.
    explicit CCsPduData(BOOL aNeedACK, DWORD aACK = 0, DWORD aDataLen = 0, BYTE aType = CS_PDU_TYPE_DATA_NORMAL,
                        CCmMessageBlock* aData = nullptr)
        : CCsPduSendItem(aNeedACK, aACK, aType, aDataLen, aData) {}

    // Duplicates the payload for GetData and consumes it; the next PDU's bytes stay unread in aMb. Those are then blocks of
    // their own behind aMb, DUPLICATED, to be freed by the holder of the chain. GetDataLen is what the PDU says, also when
    // fewer bytes are there; GetData is null when memory ran out.
    void Decode(CCmMessageBlock& aMb) override;

    // Links the payload, uncopied and still owned by this PDU, behind aMb: duplicate the whole chain to keep it longer, and do
    // not destroy it through aMb.
    void Encode(CCmMessageBlock& aMb) const override;

    // The fixed part alone, for instance to learn the length before all has arrived.
    void DecodeWithOutData(CCmMessageBlock& aMb);
    void EncodeWithOutData(CCmMessageBlock& aMb) const;
};
