#include "tests/memory/ends.h"

void CEnd::Open(ICmTransport* aTransport) {
    m_pTransport = aTransport;
    if (CWorld::Do([&] { return m_pTransport->OpenWithSink(this); }) != CM_OK)
        Close();
}

void CEnd::Close() {
    if (const CCmRefPtrT<ICmTransport> pTransport = std::move(m_pTransport))
        CWorld::Do([&] { pTransport->Disconnect(CM_OK); });
}

void CEnd::Flush() {
    while (m_pTransport && !m_ToSend.empty()) {
        CCmMessageBlock block = ViewOf(m_ToSend.front());
        const CCmRefPtrT<ICmTransport> pTransport = m_pTransport;
        const CmResult rv = CWorld::Do([&] { return pTransport->SendData(block); });
        if (rv == CM_OK)
            m_ToSend.pop_front();
        else
            m_ToSend.front().erase(0, m_ToSend.front().size() - block.GetChainedLength());
        if (rv != CM_OK)
            return;
    }
}

void CEnd::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    const CTestCode test;
    Require(bool{m_pTransport}, "OnReceive behind the end");
    if (m_bEcho)
        m_ToSend.push_back(aData.FlattenChained());
    else
        m_strReceived += aData.FlattenChained();
    Flush();
}

void CEnd::OnSend(ICmTransport*, CCmTransportParameter*) {
    const CTestCode test;
    Require(bool{m_pTransport}, "OnSend behind the end");
    Flush();
}

void CEnd::OnDisconnect(CmResult, ICmTransport*) {
    const CTestCode test;
    Require(bool{m_pTransport}, "OnDisconnect behind the end");
    m_pTransport.Reset();
}
