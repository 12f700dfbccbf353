// Sends all data of clients back, in a thread of its own:   echo_server [PORT [CLIENTS]]
//
// The thread that creates an acceptor gets all its callbacks. Here that is a user thread, so the main thread is free for other
// work. Without arguments: a port that the system chooses, one client. Ends when all clients have left.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>

#include "talvo/talvo.h"

class EchoServer;

// One client. All its callbacks come in the server's thread.
class EchoClient : public ICmTransportSink {
public:
    EchoClient(EchoServer& aServer, ICmTransport* aTransport) : m_Server(aServer), m_pTransport(aTransport) {}
    ~EchoClient() override { m_pTransport->Disconnect(CM_OK); }

    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        if (m_pTransport->SendData(aData) != CM_ERROR_PARTIAL_DATA)
            return;
        // The client is slow: keep the rest, and pause reading until it has been sent.
        m_pRest.reset(aData.DuplicateChained());
        SetPause(TRUE);
    }

    void OnSend(ICmTransport*, CCmTransportParameter*) override {
        if (m_pRest && m_pTransport->SendData(*m_pRest) == CM_ERROR_PARTIAL_DATA)
            return;
        m_pRest.reset();
        SetPause(FALSE);
    }

    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;

private:
    void SetPause(BOOL aPause) { m_pTransport->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &aPause); }

    EchoServer& m_Server;
    CCmRefPtrT<ICmTransport> m_pTransport;
    CCmChainPtr m_pRest;  // not yet taken by the transport
};

class EchoServer : public ICmAcceptorConnectorSink {
public:
    EchoServer(WORD aPort, int aClients) : m_wPort(aPort), m_nClientsLeft(aClients) {}

    void Start() {
        CCmConnectionManager* pManager = CCmConnectionManager::Instance();
        CmResult rv = pManager->CreateConnectionServer(CCmConnectionManager::CTYPE_TCP, m_pAcceptor.ParaOut());
        if (rv == CM_OK)
            rv = m_pAcceptor->StartListen(this, CCmInetAddr("127.0.0.1", m_wPort));
        CCmInetAddr addr;
        if (rv == CM_OK)
            rv = m_pAcceptor->GetListenAddr(addr);
        if (rv != CM_OK) {
            CCmFailure failure;
            cm_get_connect_options(m_pAcceptor.Get())->GetOption(CM_OPT_CONNECT_FAILURE, &failure);
            std::fprintf(stderr, "cannot %s\n", failure.ToString().c_str());
            return Stop();
        }
        std::printf("listening on %s\n", cm_address_text(addr).c_str());
        std::fflush(stdout);
    }

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        if (aReason != CM_OK)
            return;
        auto pClient = std::make_unique<EchoClient>(*this, aTrpt);
        if (aTrpt->OpenWithSink(pClient.get()) == CM_OK)
            m_Clients.insert(std::move(pClient));
    }

    void Remove(EchoClient* aClient) {
        std::erase_if(m_Clients, [=](const auto& a) { return a.get() == aClient; });
        if (--m_nClientsLeft == 0)
            Stop();
    }

private:
    // Releases all objects in the thread that they belong to; then the main thread may end.
    void Stop() {
        m_Clients.clear();
        m_pAcceptor.Reset();
        CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN)->StopEventLoop();
    }

    const WORD m_wPort;
    int m_nClientsLeft;
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    std::set<std::unique_ptr<EchoClient>> m_Clients;
};

void EchoClient::OnDisconnect(CmResult, ICmTransport*) { m_Server.Remove(this); }

// Starts the server in its thread.
class StartEvent : public ICmEvent {
public:
    explicit StartEvent(EchoServer& aServer) : m_Server(aServer) {}
    CmResult OnEventFire() override {
        m_Server.Start();
        return CM_OK;
    }

private:
    EchoServer& m_Server;
};

int main(int argc, char** argv) {
    CCmThreadManager* pThreads = CCmThreadManager::Instance();
    EchoServer server(static_cast<WORD>(argc > 1 ? std::atoi(argv[1]) : 0), argc > 2 ? std::atoi(argv[2]) : 1);
    ACmThread* pServerThread = nullptr;
    if (pThreads->InitMainThread(argc, argv) != CM_OK || pThreads->CreateUserTaskThread(pServerThread) != CM_OK)
        return 1;
    pServerThread->GetEventQueue()->PostEvent(new StartEvent(server));
    pThreads->GetThreadReactor(CCmThreadManager::TT_MAIN)->RunEventLoop();

    CCmConnectionManager::Instance()->Drain(nullptr);
    pThreads->StopAllThreads(nullptr);
    pThreads->JoinAllThreads();
    pServerThread->Destory(CM_OK);
    CCmConnectionManager::CleanupInstance();
    pThreads->GetThread(CCmThreadManager::TT_MAIN)->Destory(CM_OK);
    return 0;
}
