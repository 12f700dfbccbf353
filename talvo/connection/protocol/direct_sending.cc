#include "talvo/connection/protocol/direct_sending.h"

namespace talvo {

namespace {

constexpr int CONNECT_TRIES = 3;

// A PDU without payload, encoded into its own bytes.
class CEncoded {
public:
    explicit CEncoded(const CCsPduBase& aPdu) : m_Block(sizeof m_szBytes, m_szBytes) { aPdu.Encode(m_Block); }
    const char* GetBytes() const { return m_Block.GetTopLevelReadPtr(); }
    DWORD GetLength() const { return m_Block.GetTopLevelLength(); }

private:
    char m_szBytes[CCsPduBase::MAX_FIX_LENGTH] = {};
    CCmMessageBlock m_Block;
};

CEncoded DataHeader(BOOL aNeedACK, DWORD aLength) {
    return CEncoded(CCsPduData(aNeedACK, 0, aLength, CS_PDU_TYPE_DATA_NORMAL, nullptr));
}

}  // namespace

void CDirectSending::SetTransport(ICmTransport* aTransport, BOOL aDatagrams) {
    m_Pending.Clear();
    m_Pending.SetDatagrams(aDatagrams);
    m_pTransport = aTransport;
    m_bDatagrams = aDatagrams != FALSE;
    m_bBroken = FALSE;
}

CmResult CDirectSending::SendData(CCmMessageBlock& aData) {
    if (!MayGather()) {
        if (const CmResult rv = Flush(); rv != CM_OK)
            return rv;
    }
    if (m_bCorked)
        return GatherData(aData, TRUE);
    const CmResult rv = SendFrame(CCsPduData(TRUE, 0, aData.GetChainedLength(), CS_PDU_TYPE_DATA_NORMAL, nullptr), aData);
    return rv == CM_ERROR_OUT_OF_MEMORY ? rv : CM_OK;
}

CmResult CDirectSending::GatherData(CCmMessageBlock& aData, BOOL aNeedACK) {
    const DWORD dwLength = aData.GetChainedLength();
    const CEncoded header = DataHeader(aNeedACK, dwLength);
    const CmResult rv = m_Pending.Add(header.GetBytes(), header.GetLength(), aData);
    if (rv == CM_OK)
        aData.AdvanceChainedReadPtr(dwLength);
    return rv;
}

CmResult CDirectSending::SendFrames(CCmMessageBlock& aFrames, const IFrameLengths& aLengths, DWORD& aTaken) {
    const CmResult rv = m_Pending.SendFrames(*m_pTransport, aFrames, aLengths, aTaken);
    if (rv == CM_ERROR_OUT_OF_MEMORY && aTaken > 0)
        m_bBroken = TRUE;
    if (aTaken > 0)
        m_Liveness.OnSent();
    return rv;
}

CmResult CDirectSending::SendPdu(const CCsPduBase& aPdu) {
    CCmMessageBlock nothing(DWORD{0});
    return SendFrame(aPdu, nothing);
}

CmResult CDirectSending::SendFrame(const CCsPduBase& aHeader, CCmMessageBlock& aPayload) {
    const CEncoded header(aHeader);
    const CmResult rv = m_Pending.Send(*m_pTransport, header.GetBytes(), header.GetLength(), aPayload);
    if (rv == CM_ERROR_OUT_OF_MEMORY && !m_bDatagrams)
        m_bBroken = TRUE;  // a part of it may be sent
    return Sent(rv);
}

// A stream has no repeat for it, so the rest after the last try is pending.
CmResult CDirectSending::SendConnectPdu(const CCmMessageBlock& aPdu) {
    CCmMessageBlock rest(aPdu, aPdu.GetTopLevelLength());
    Flush();
    CmResult rv = CM_ERROR_PARTIAL_DATA;
    for (int i = 0; i < CONNECT_TRIES && rv != CM_OK && m_Pending.IsEmpty(); ++i)
        rv = m_pTransport->SendData(rest);
    if (rv != CM_OK && !m_bDatagrams && rest.GetTopLevelLength() > 0 && m_Pending.Keep(rest) != CM_OK)
        return CM_ERROR_OUT_OF_MEMORY;
    return Sent(rv);
}

CmResult CDirectSending::Flush() { return m_Pending.IsEmpty() ? CM_OK : Sent(m_Pending.Flush(*m_pTransport)); }

CmResult CDirectSending::Sent(CmResult aResult) {
    if (aResult == CM_OK)
        m_Liveness.OnSent();
    return aResult;
}

}  // namespace talvo
