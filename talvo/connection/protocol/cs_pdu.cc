#include "talvo/connection/protocol/cs_pdu.h"

#include <arpa/inet.h>

#include <cstring>

#include "talvo/base/byte_stream.h"
#include "talvo/base/trace.h"

DWORD CCsPduBase::GetFixLength(BYTE byType, BOOL bNeedACK) {
    switch (byType) {
    case CS_PDU_TYPE_NONE:
        return 1;
    case CS_PDU_TYPE_CONN_REQ:
    case CS_PDU_TYPE_CONN_RESP:
        return 8;
    case CS_PDU_TYPE_DISCONN:
        return 3;
    case CS_PDU_TYPE_KEEPALIVE:
        return 5;
    case CS_PDU_TYPE_DATA_START:
    case CS_PDU_TYPE_DATA_NORMAL:
        return bNeedACK ? 9 : 5;
    default:
        CM_ERROR_TRACE("CCsPduBase::GetFixLength(BYTE byType, BOOL bNeedACK), Invalid PDU type, byType = " << byType);
        return 0;
    }
}

void CCsPduBase::Decode(CCmMessageBlock& aMb) {
    CCmByteStreamNetwork is(aMb);
    is >> m_byType;
}

void CCsPduBase::Encode(CCmMessageBlock& aMb) const {
    CCmByteStreamNetwork os(aMb);
    os << m_byType;
}

void CCsPduConnReqResp::Decode(CCmMessageBlock& aMb) {
    CCmByteStreamNetwork is(aMb);
    is >> m_byType >> m_dwACK >> m_wConTag >> m_byConnType;
}

void CCsPduConnReqResp::Encode(CCmMessageBlock& aMb) const {
    CCmByteStreamNetwork os(aMb);
    os << m_byType << m_dwACK << m_wConTag << m_byConnType;
}

BOOL CCsConnToken::operator==(const CCsConnToken& aOther) const {
    BYTE byDifference = 0;
    for (size_t i = 0; i < sizeof m_Bytes; ++i)
        byDifference |= m_Bytes[i] ^ aOther.m_Bytes[i];
    return byDifference == 0;
}

void CCsPduConnToken::Decode(CCmMessageBlock& aMb) {
    CCsPduConnReqResp::Decode(aMb);
    CCmByteStreamNetwork is(aMb);
    is.Read(m_Token.m_Bytes, sizeof m_Token.m_Bytes);
    is >> m_dwAttempt;
}

void CCsPduConnToken::Encode(CCmMessageBlock& aMb) const {
    CCsPduConnReqResp::Encode(aMb);
    CCmByteStreamNetwork os(aMb);
    os.Write(m_Token.m_Bytes, sizeof m_Token.m_Bytes);
    os << m_dwAttempt;
}

void CCsPduSendItem::SetSeqStart(DWORD aSeq) {
    if (m_byType != CS_PDU_TYPE_DATA_START && m_byType != CS_PDU_TYPE_DATA_NORMAL) {
        CM_ERROR_TRACE_THIS("CCsPduSendItem::SetSeqStart, Only Data PDU can be set Seq#");
        return;
    }
    m_dwSeqStart = aSeq;
    m_dwSeqEnd = aSeq + GetFixLength() + m_dwDataLen - 1;
}

void CCsPduSendItem::Prepare(DWORD aACK) {
    m_dwACK = aACK;
    CCmMessageBlock mbFixed(sizeof(m_szPrepared), m_szPrepared);
    Encode(mbFixed);
}

void CCsPduSendItem::SetData(CCmChainPtr aData) {
    m_pOwnData = std::move(aData);
    m_pData = m_pOwnData.get();
}

void CCsPduDisconn::Decode(CCmMessageBlock& aMb) {
    CCmByteStreamNetwork is(aMb);
    is >> m_byType >> m_wReason;
}

void CCsPduDisconn::Encode(CCmMessageBlock& aMb) const {
    CCmByteStreamNetwork os(aMb);
    os << m_byType << m_wReason;
}

void CCsPduKeepAlive::Decode(CCmMessageBlock& aMb) {
    CCmByteStreamNetwork is(aMb);
    is >> m_byType >> m_dwACK;
}

void CCsPduKeepAlive::Encode(CCmMessageBlock& aMb) const {
    CCmByteStreamNetwork os(aMb);
    os << m_byType << m_dwACK;
}

void CCsPduData::DecodeWithOutData(CCmMessageBlock& aMb) {
    CCmByteStreamNetwork is(aMb);
    is >> m_byType;
    if (m_bNeedACK)
        is >> m_dwACK;
    is >> m_dwDataLen;
}

void CCsPduData::ReadFixed(const char* aFixed, BOOL aNeedACK, DWORD& aACK, DWORD& aDataLen) {
    const auto read = [&aFixed](DWORD& aNumber) {
        std::memcpy(&aNumber, aFixed, sizeof aNumber);
        aNumber = ntohl(aNumber);
        aFixed += sizeof aNumber;
    };
    ++aFixed;  // the type
    aACK = 0;
    if (aNeedACK)
        read(aACK);
    read(aDataLen);
}

void CCsPduData::EncodeWithOutData(CCmMessageBlock& aMb) const {
    CCmByteStreamNetwork os(aMb);
    os << m_byType;
    if (m_bNeedACK)
        os << m_dwACK;
    os << m_dwDataLen;
}

void CCsPduData::Decode(CCmMessageBlock& aMb) {
    DecodeWithOutData(aMb);
    SetData(nullptr);
    const DWORD dwUnread = aMb.GetChainedLength();
    CCmChainPtr pRest;
    if (dwUnread != m_dwDataLen) {
        CM_INFO_TRACE_THIS("CCsPduData::Decode(), need Disjoint mb.");
        pRest.reset(aMb.Disjoint(m_dwDataLen));
    }
    // If memory ran out, the rest is not cut off, and the duplicate would contain it, too.
    if (pRest || dwUnread <= m_dwDataLen)
        SetData(CCmChainPtr(aMb.DuplicateChained()));
    aMb.AdvanceChainedReadPtr(m_dwDataLen);
    aMb.Append(pRest.release());  // the caller's chain owns it again
}

void CCsPduData::Encode(CCmMessageBlock& aMb) const {
    EncodeWithOutData(aMb);
    aMb.Append(m_pData);
}
