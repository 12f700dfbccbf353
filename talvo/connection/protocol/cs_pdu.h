// The PDUs of the connection protocol: their wire formats, and the classes that write and read them.
#pragma once

#include "talvo/base/chain_ptr.h"
#include "talvo/base/export.h"
#include "talvo/base/types.h"

// Every PDU begins with its type; all numbers are big-endian. There is no separator between PDUs: the type defines the length
// of the fixed part, and a data PDU contains the length of its payload.
enum ECsPduType : CmByte {
    CS_PDU_TYPE_NONE = 0,  // never sent
    CS_PDU_TYPE_CONN_REQ = 1,
    CS_PDU_TYPE_CONN_RESP = 2,
    CS_PDU_TYPE_DISCONN = 3,
    CS_PDU_TYPE_KEEPALIVE = 4,
    CS_PDU_TYPE_DATA_START = 5,  // data whose sequence numbers start again at 1
    CS_PDU_TYPE_DATA_NORMAL = 6
};

// ACK is always the sender's receive counter: the sequence number of the last byte that it has received. Only the bytes of data
// PDUs have sequence numbers, their fixed parts included.
//
// Encode writes the fixed part at the block's write position, where there must be room. Decode reads and consumes. Neither
// returns a result: a failure is traced, and the fields do not change. So decode a PDU after its fixed part has arrived.
//
// One thread.

//  0      1
//  | type |
//
// Any PDU as far as its type. A value.
class TALVO_API CCsPduBase {
public:
    explicit CCsPduBase(CmByte aType) : m_byType(aType) {}  // aType: one of CS_PDU_TYPE_...
    CCsPduBase(const CCsPduBase&) = default;
    CCsPduBase& operator=(const CCsPduBase&) = default;

    virtual ~CCsPduBase() = default;
    // See above.
    virtual void Decode(CCmMessageBlock& aMb);
    virtual void Encode(CCmMessageBlock& aMb) const;
    // As below, for this PDU.
    virtual CmDword GetFixLength() const { return GetFixLength(m_byType, CM_TRUE); }

    // Bytes before the payload, at most MAX_FIX_LENGTH. bNeedACK is for data PDUs only. 0, with a trace line: no such type.
    static CmDword GetFixLength(CmByte byType, CmBool bNeedACK);
    static constexpr CmDword MAX_FIX_LENGTH = 9;  // the longest fixed part

    CmByte GetType() const { return m_byType; }  // one of CS_PDU_TYPE_...

protected:
    CmByte m_byType;
};

//  0      1              5        7          8
//  | type | ACK          | ConTag | ConnType |
//
// Connect request (type 1) and response (2). ConTag is the server's number of the connection, 0 in a client's first request.
// ConnType is the sender's kind of connection; the receiver's must be the same. A value.
class TALVO_API CCsPduConnReqResp : public CCsPduBase {
public:
    // aType: CS_PDU_TYPE_CONN_REQ or CS_PDU_TYPE_CONN_RESP. The arguments do not matter to Decode.
    explicit CCsPduConnReqResp(CmDword aACK = 0, CmWord aConTag = 0, CmByte aType = CS_PDU_TYPE_CONN_REQ, CmByte aConnType = 15)
        : CCsPduBase(aType), m_dwACK(aACK), m_wConTag(aConTag), m_byConnType(aConnType) {}

    void Decode(CCmMessageBlock& aMb) override;
    void Encode(CCmMessageBlock& aMb) const override;

    // The fields.
    CmDword GetACK() const { return m_dwACK; }
    CmWord GetConTag() const { return m_wConTag; }
    CmByte GetConnType() const { return m_byConnType; }

private:
    CmDword m_dwACK;
    CmWord m_wConTag;
    CmByte m_byConnType;
};

// The secret of a connection. A value.
struct CCsConnToken {
    CmByte m_Bytes[16] = {};  // random

    // In constant time.
    CmBool operator==(const CCsConnToken& aOther) const;
};

//  0                8               24        28
//  | as above       | Token         | Attempt |
//
// Connect request and response of the token form. Token: the secret that the first response gives, 0 in the first request.
// Attempt: the number of the request, which grows with each; the response repeats it. A value.
class TALVO_API CCsPduConnToken : public CCsPduConnReqResp {
public:
    static constexpr CmByte CONN_TYPE = 31;  // the ConnType of the token form
    static constexpr CmDword LENGTH = 28;    // the length of the whole PDU

    using CCsPduBase::GetFixLength;
    using CCsPduConnReqResp::CCsPduConnReqResp;
    CmDword GetFixLength() const override { return LENGTH; }
    void Decode(CCmMessageBlock& aMb) override;
    void Encode(CCmMessageBlock& aMb) const override;

    CCsConnToken m_Token;     // the secret
    CmDword m_dwAttempt = 0;  // the number of the request
};

// An entry of a send buffer: a PDU with its place in the sequence and in the list. It has room for its own encoded fixed part,
// so that it can be sent in place without an allocation.
class TALVO_API CCsPduSendItem : public CCsPduBase {
public:
    // Takes ownership of aData, a chain of DUPLICATED blocks or null. The chain is sent, also repeatedly, through views: its
    // own positions do not move. aDataLen: the number of its unread bytes.
    CCsPduSendItem(CmBool aNeedACK, CmDword aACK, CmByte aType, CmDword aDataLen, CCmMessageBlock* aData)
        : CCsPduBase(aType), m_dwACK(aACK), m_dwDataLen(aDataLen), m_pOwnData(aData), m_pData(aData), m_bNeedACK(aNeedACK) {}
    CCsPduSendItem(const CCsPduSendItem&) = delete;
    CCsPduSendItem& operator=(const CCsPduSendItem&) = delete;

    using CCsPduBase::GetFixLength;
    CmDword GetFixLength() const override { return GetFixLength(m_byType, m_bNeedACK); }

    // The ACK field.
    void SetACK(CmDword aACK) { m_dwACK = aACK; }
    CmDword GetACK() const { return m_dwACK; }
    CmDword GetDataLen() const { return m_dwDataLen; }    // bytes of the payload
    CCmMessageBlock* GetData() const { return m_pData; }  // the payload, not consumed; null: none

    // The first sequence number of a data PDU; the last one follows from it, fixed part included. Any other PDU has no numbers:
    // both are 0. The call then changes no field, and is traced.
    void SetSeqStart(CmDword aSeq);
    CmDword GetSeqStart() const { return m_dwSeqStart; }
    CmDword GetSeqEnd() const { return m_dwSeqEnd; }

    // The place in the list of a send buffer.
    void SetNext(CCsPduSendItem* aNext) { m_pNext = aNext; }
    CCsPduSendItem* GetNext() const { return m_pNext; }

    // Encodes the fixed part, with this ACK, into the item's own room. Not for a PDU with bytes already sent.
    void Prepare(CmDword aACK);
    // The result of Prepare, GetFixLength() bytes.
    const char* GetPrepared() const { return m_szPrepared; }

protected:
    void SetData(CCmChainPtr aData);

    CmDword m_dwACK;
    CmDword m_dwDataLen;
    CCmChainPtr m_pOwnData;
    CCmMessageBlock* m_pData;  // m_pOwnData, or the derived class's own block
    CmDword m_dwSeqStart = 0;
    CmDword m_dwSeqEnd = 0;
    CCsPduSendItem* m_pNext = nullptr;  // the list's, not owned
    CmBool m_bNeedACK;

private:
    char m_szPrepared[MAX_FIX_LENGTH] = {};
};

//  0      1        3
//  | type | Reason |
//
// Disconnect (type 3). Reason: the low 16 bits of the result that the sender closed with.
class TALVO_API CCsPduDisconn : public CCsPduSendItem {
public:
    // The arguments do not matter to Decode.
    explicit CCsPduDisconn(CmWord aReason = 0, CmByte aType = CS_PDU_TYPE_DISCONN)
        : CCsPduSendItem(CM_TRUE, 0, aType, 0, nullptr), m_wReason(aReason) {}

    void Decode(CCmMessageBlock& aMb) override;
    void Encode(CCmMessageBlock& aMb) const override;

    CmWord GetReason() const { return m_wReason; }  // the low 16 bits

private:
    CmWord m_wReason;
};

//  0      1              5
//  | type | ACK          |
//
// Keep-alive (type 4).
class TALVO_API CCsPduKeepAlive : public CCsPduSendItem {
public:
    // The arguments do not matter to Decode.
    explicit CCsPduKeepAlive(CmDword aACK = 0, CmByte aType = CS_PDU_TYPE_KEEPALIVE)
        : CCsPduSendItem(CM_TRUE, aACK, aType, 0, nullptr) {}

    void Decode(CCmMessageBlock& aMb) override;
    void Encode(CCmMessageBlock& aMb) const override;
};

//  0      1              5               9
//  | type | ACK          | DataLen       | payload ...      with acknowledgement
//
//  0      1               5
//  | type | DataLen       | payload ...                     without
//
// Data (types 5 and 6). The PDU does not show its form: both ends know the form from the type of their connection.
class TALVO_API CCsPduData : public CCsPduSendItem {
public:
    // To decode, give aNeedACK only.
    explicit CCsPduData(CmBool aNeedACK, CmDword aACK = 0, CmDword aDataLen = 0, CmByte aType = CS_PDU_TYPE_DATA_NORMAL,
                        CCmMessageBlock* aData = nullptr)
        : CCsPduSendItem(aNeedACK, aACK, aType, aDataLen, aData) {}

    // Duplicates the payload for GetData and consumes it; the next PDU's bytes stay unread in aMb. These are then separate
    // DUPLICATED blocks after aMb; the holder of the chain frees them. GetDataLen is the length in the PDU, even if fewer bytes
    // are there. GetData is null if memory ran out.
    void Decode(CCmMessageBlock& aMb) override;

    // Links the payload after aMb, uncopied and still owned by this PDU. Duplicate the whole chain to keep it longer, and do
    // not destroy the payload through aMb.
    void Encode(CCmMessageBlock& aMb) const override;

    // Only the fixed part, for example to get the length before all has arrived.
    void DecodeWithOutData(CCmMessageBlock& aMb);
    void EncodeWithOutData(CCmMessageBlock& aMb) const;
    // The same numbers from the GetFixLength bytes at aFixed, for receivers of many small messages. aACK (out): 0 without an
    // ACK field.
    static void ReadFixed(const char* aFixed, CmBool aNeedACK, CmDword& aACK, CmDword& aDataLen);
};
