#include "talvo/testing/sim_peer.h"

#include <utility>

namespace {

constexpr size_t NUMBER_LENGTH = 4;

DWORD NumberOf(const std::string& aText) {
    DWORD dwNumber = 0;
    for (size_t i = 0; i < NUMBER_LENGTH && i < aText.size(); ++i)
        dwNumber |= DWORD{static_cast<BYTE>(aText[i])} << (8 * i);
    return dwNumber;
}

}  // namespace

std::string CCmSimFlow::TextOf(DWORD aNumber, DWORD aLength) {
    std::string strText(aLength, '\0');
    for (DWORD i = 0; i < aLength; ++i)
        strText[i] = static_cast<char>(i < NUMBER_LENGTH ? aNumber >> (8 * i) : (aNumber * 2654435761u + i * 31) >> 7);
    return strText;
}

void CCmSimFlow::OnTaken(DWORD aNumber, DWORD aLength) {
    if (aLength > 0)
        m_Taken[aNumber] = aLength;
}

BOOL CCmSimFlow::OnArrived(const std::string& aText, BOOL aDatagrams) {
    const auto it = aDatagrams ? m_Taken.find(NumberOf(aText)) : m_Taken.upper_bound(m_dwLastArrived);
    if (it == m_Taken.end() || aText != TextOf(it->first, it->second))
        return FALSE;
    m_dwLastArrived = it->first;
    return TRUE;
}

CCmSimPeer::CCmSimPeer(CCmSimNetwork& aNetwork, ICmTransport& aTransport, CCmSimFlow& aOut, CCmSimFlow& aIn, std::string aName)
    : m_Network(aNetwork), m_pTransport(&aTransport), m_Out(aOut), m_In(aIn), m_strName(std::move(aName)) {
    aTransport.GetOption(CM_OPT_TRANSPORT_LOCAL_ADDR, &m_AddrLocal);
    aTransport.GetOption(CM_OPT_TRANSPORT_PEER_ADDR, &m_AddrPeer);
    const CCmSimEnd* pBelow = FindBelow();
    m_bDatagrams = pBelow && pBelow->m_bDatagrams;
}

void CCmSimPeer::Open() {
    if (m_pTransport->OpenWithSink(this) != CM_OK)
        Fail("OpenWithSink fails");
}

void CCmSimPeer::Note(const std::string& aText) { m_Network.Note(m_strName + " " + aText); }
void CCmSimPeer::Fail(const std::string& aText) { m_Network.Fail(m_strName + ": " + aText); }

// As a chain of two blocks; the second owns its storage.
CmResult CCmSimPeer::Send(DWORD aLength) {
    if (!m_bOpen)
        return CM_ERROR_NOT_AVAILABLE;
    const DWORD dwNumber = m_Out.NewNumber();
    const std::string strText = CCmSimFlow::TextOf(dwNumber, aLength);
    const auto dwFirst = static_cast<DWORD>(m_Network.Random(aLength + 1));
    CCmMessageBlock first(dwFirst, strText.data(), CCmMessageBlock::DONT_DELETE, dwFirst);
    CCmMessageBlock rest(aLength - dwFirst + 100);
    rest.Write(strText.data() + dwFirst, aLength - dwFirst);
    first.Append(&rest);

    DWORD dwMax = 0xFFFFFFFF;
    m_pTransport->GetOption(CM_OPT_TRANSPORT_MAX_MESSAGE, &dwMax);
    const CmResult rv = m_pTransport->SendData(first);
    Note("sends message " + std::to_string(dwNumber) + ", result " + std::to_string(rv));
    if (!m_bOpen)
        return rv;
    if (first.GetChainedLength() != (rv == CM_OK ? 0 : aLength))
        Fail("a part of a message was taken");
    if ((rv == CM_ERROR_INVALID_ARG) != (aLength > dwMax) || rv == CM_ERROR_NOT_AVAILABLE)
        Fail("length " + std::to_string(aLength) + " gives " + std::to_string(rv));
    if (rv == CM_OK)
        m_Out.OnTaken(dwNumber, aLength);
    m_bOwedSend = m_bOwedSend || rv == CM_ERROR_PARTIAL_DATA;
    return rv;
}

void CCmSimPeer::Ending_i(CmResult aReason) {
    if (m_bOpen)
        OnEnding(aReason);
    m_bOpen = FALSE;
}

void CCmSimPeer::End(CmResult aReason) {
    Ending_i(aReason);
    if (m_pTransport)
        m_pTransport->Disconnect(aReason);
}

void CCmSimPeer::Release() {
    Ending_i(CM_OK);
    m_pTransport.Reset();
}

void CCmSimPeer::CheckStep() {
    if (!m_bOpen)
        return;
    const CCmSimEnd* pBelow = FindBelow();
    if (!pBelow)
        Fail("OnDisconnect is owed: the link's end is closed");
    else if (m_bOwedSend && !pBelow->m_bOwesSend && !pBelow->m_bBroken)
        Fail("OnSend is owed, and no transport will bring it");
}

void CCmSimPeer::Upcall_i(const char* aName) {
    Note(std::string("gets ") + aName);
    if (!m_bOpen)
        Fail(std::string(aName) + " after the end");
}

void CCmSimPeer::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    Upcall_i("OnReceive");
    const std::string strText = aData.FlattenChained();
    if (!m_In.OnArrived(strText, m_bDatagrams))
        Fail("a message of " + std::to_string(strText.size()) + " bytes that was not sent, or out of turn");
}

void CCmSimPeer::OnSend(ICmTransport*, CCmTransportParameter*) {
    Upcall_i("OnSend");
    m_bOwedSend = FALSE;
}

void CCmSimPeer::OnDisconnect(CmResult, ICmTransport*) {
    Upcall_i("OnDisconnect");
    m_bOpen = FALSE;
}
