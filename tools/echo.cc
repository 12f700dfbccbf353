#include <memory>
#include <unordered_map>

#include "tools/application.h"
#include "tools/commands.h"
#include "tools/listening.h"
#include "tools/memory.h"
#include "tools/outbox.h"

namespace tool {

namespace {

class EchoSession;

class EchoServer : public ICmAcceptorConnectorSink {
public:
    ~EchoServer() override;
    bool Start(const Arguments& aArguments, Console& aConsole) {
        return StartListening(aArguments, this, aConsole, m_pAcceptor);
    }
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;
    void Remove(EchoSession* aSession) { m_Sessions.erase(aSession); }

private:
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    std::unordered_map<EchoSession*, std::unique_ptr<EchoSession>> m_Sessions;
};

// One client, or peer. While it does not read its own bytes, no more are read from it, so that memory stays limited to one
// read.
class EchoSession : public ICmTransportSink {
public:
    EchoSession(EchoServer& aServer, ICmTransport* aTransport) : m_Server(aServer), m_pTransport(aTransport) {}
    ~EchoSession() override { m_pTransport->Disconnect(CM_OK); }

    CmResult Open() { return m_pTransport->OpenWithSink(this); }

    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        const CmResult rv = m_Outbox.Send(*m_pTransport, aData);
        if (rv == CM_ERROR_PARTIAL_DATA)
            PauseReading(TRUE);
        else if (rv != CM_OK)
            m_Server.Remove(this);
    }

    void OnSend(ICmTransport*, CCmTransportParameter*) override {
        const CmResult rv = m_Outbox.SendRest(*m_pTransport);
        if (rv == CM_OK)
            PauseReading(FALSE);
        else if (rv != CM_ERROR_PARTIAL_DATA)
            m_Server.Remove(this);
    }

    void OnDisconnect(CmResult, ICmTransport*) override { m_Server.Remove(this); }

private:
    void PauseReading(BOOL aPause) { m_pTransport->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &aPause); }

    EchoServer& m_Server;
    CCmRefPtrT<ICmTransport> m_pTransport;
    Outbox m_Outbox;
};

EchoServer::~EchoServer() {
    if (m_pAcceptor)
        m_pAcceptor->StopListen(CM_OK);
}

void EchoServer::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    if (aReason != CM_OK)
        return;
    // Without memory for it the client is disconnected. The others stay.
    talvo::WithMemory([&] {
        auto pSession = std::make_unique<EchoSession>(*this, aTrpt);
        if (pSession->Open() == CM_OK)
            m_Sessions.emplace(pSession.get(), std::move(pSession));
    });
}

}  // namespace

// The main thread is also the network thread: bytes are sent back in the thread that received them.
int RunEcho(const Arguments& aArguments) {
    Application::RaiseDescriptorLimit();
    Console console(aArguments.m_bJson);
    Application application(CCmThreadManager::NETWORK_THREAD_MAIN);
    EchoServer server;
    if (application.IsStarted() && !server.Start(aArguments, console))
        return EXIT_FAILED;
    const int nStatus = application.Run();
    application.Drain();
    return nStatus;
}

}  // namespace tool
