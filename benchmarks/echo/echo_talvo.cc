// Echo server on this library, in its network thread: no proxy, no user thread. Takes any number of connections, holds back a
// client that does not read, and ends in order on SIGTERM. TCP_NODELAY is what the library's transports set by themselves.
#include <cstdio>
#include <list>

#include "benchmarks/support/system.h"
#include "benchmarks/support/talvo_process.h"

namespace {

class CEchoServer;

// One connection; lives in the server's list until the peer goes.
class CEchoSession : public ICmTransportSink {
public:
    CEchoSession(CEchoServer& aServer, ICmTransport* aTransport) : m_Server(aServer), m_pTransport(aTransport) {}
    ~CEchoSession() override {
        m_pTransport->Disconnect(CM_OK);
        DropRest();
    }

    CmResult Open(std::list<CEchoSession>::iterator aSelf) {
        m_Self = aSelf;
        return m_pTransport->OpenWithSink(this);
    }

    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter*) override {
        if (aTrptId->SendData(aData) != CM_ERROR_PARTIAL_DATA)
            return;
        m_pRest = aData.DuplicateChained();
        SetPaused(TRUE);
    }

    void OnSend(ICmTransport* aTrptId, CCmTransportParameter*) override {
        if (!m_pRest || aTrptId->SendData(*m_pRest) == CM_ERROR_PARTIAL_DATA)
            return;
        DropRest();
        SetPaused(FALSE);
    }

    void OnDisconnect(CmResult, ICmTransport*) override;

private:
    void SetPaused(BOOL aPaused) { m_pTransport->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &aPaused); }
    void DropRest() {
        if (m_pRest)
            m_pRest->DestroyChained();
        m_pRest = nullptr;
    }

    CEchoServer& m_Server;
    CCmRefPtrT<ICmTransport> m_pTransport;
    CCmMessageBlock* m_pRest = nullptr;  // owned; received and not yet taken by the peer; reading is paused while there is any
    std::list<CEchoSession>::iterator m_Self;
};

class CEchoServer : public ICmAcceptorConnectorSink {
public:
    CmResult Open(uint16_t aPort) {
        const CmResult rv =
            CCmConnectionManager::Instance()->CreateConnectionServer(CCmConnectionManager::CTYPE_TCP, m_pAcceptor.ParaOut());
        return rv == CM_OK ? m_pAcceptor->StartListen(this, CCmInetAddr("127.0.0.1", aPort)) : rv;
    }

    void Close() {
        m_pAcceptor.Reset();
        m_Sessions.clear();
    }

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        if (aReason != CM_OK)
            return;
        m_Sessions.emplace_front(*this, aTrpt);
        if (m_Sessions.front().Open(m_Sessions.begin()) != CM_OK)
            m_Sessions.pop_front();
    }

    void Forget(std::list<CEchoSession>::iterator aSession) { m_Sessions.erase(aSession); }

private:
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    std::list<CEchoSession> m_Sessions;
};

void CEchoSession::OnDisconnect(CmResult, ICmTransport*) { m_Server.Forget(m_Self); }

}  // namespace

int main(int argc, char** argv) {
    const uint16_t wPort = bench::PortArgument(argc, argv);
    bench::RaiseDescriptorLimit();
    bench::CTermination termination;
    bench::CTalvoProcess process(argc, argv);
    if (!CCmConnectionManager::Instance())
        return 1;
    ICmEventQueue& network = *CCmThreadManager::Instance()->GetThreadEventQueue(CCmThreadManager::TT_NETWORK);

    CEchoServer server;
    const CmResult rv = bench::Call(network, [&] { return server.Open(wPort); });
    if (rv == CM_OK) {
        bench::PrintReady();
        termination.Wait();
    } else {
        std::fprintf(stderr, "cannot listen on port %u: %s\n", unsigned{wPort}, cm_result_name(rv));
    }
    bench::Call(network, [&] { server.Close(); });
    return rv == CM_OK ? 0 : 1;
}
