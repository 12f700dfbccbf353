// The in-process echo on this library: acceptor, connector and transports are proxies of two user threads.
#include "benchmarks/proxies/work.h"
#include "benchmarks/support/talvo_messages.h"
#include "benchmarks/support/talvo_process.h"

namespace {

using bench::Expect;

// Creates one user's connection and is its transport's sink. User's thread.
class CEnd : public ICmAcceptorConnectorSink, public ICmTransportSink, public bench::CChannel {
public:
    explicit CEnd(bench::CUser& aUser) : m_User(aUser) {}

    void Listen(CCmInetAddr& aAddr) {
        CCmRefPtrT<ICmAcceptor> pAcceptor;
        Expect(CCmConnectionManager::Instance()->CreateConnectionServer(CCmConnectionManager::CTYPE_TCP, pAcceptor.ParaOut()));
        Expect(pAcceptor->StartListen(this, CCmInetAddr("127.0.0.1", 0)));
        Expect(pAcceptor->GetListenAddr(aAddr));
        m_pAcceptor = pAcceptor;
    }

    void Connect(const CCmInetAddr& aAddr) {
        CCmRefPtrT<ICmConnector> pConnector;
        Expect(CCmConnectionManager::Instance()->CreateConnectionClient(CCmConnectionManager::CTYPE_TCP, pConnector.ParaOut()));
        pConnector->AsycConnect(this, aAddr);
        m_pConnector = pConnector;
    }

    void Close() {
        m_pTransport->Disconnect(CM_OK);
        m_pTransport.Reset();
        m_pConnector.Reset();
        m_pAcceptor.Reset();
        m_pRest.reset();
    }

    bool Send(std::string_view aMessage) override {
        if (m_pRest)
            return false;
        CCmMessageBlock block(static_cast<DWORD>(aMessage.size()));
        block.Write(aMessage.data(), static_cast<DWORD>(aMessage.size()));
        const CmResult rv = m_pTransport->SendData(block);
        if (rv == CM_ERROR_PARTIAL_DATA)
            m_pRest.reset(block.DuplicateChained());
        else
            Expect(rv);
        return true;
    }

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        Expect(aReason);
        m_pTransport = aTrpt;
        Expect(aTrpt->OpenWithSink(this));
        m_User.OnConnected(this);
    }

    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        for (const CCmMessageBlock* pBlock = &aData; pBlock; pBlock = pBlock->GetNext())
            m_User.OnBytes({pBlock->GetTopLevelReadPtr(), pBlock->GetTopLevelLength()});
    }

    void OnSend(ICmTransport* aTrptId, CCmTransportParameter*) override {
        if (!m_pRest || aTrptId->SendData(*m_pRest) == CM_ERROR_PARTIAL_DATA)
            return;
        m_pRest.reset();
        m_User.OnWritable();
    }

    void OnDisconnect(CmResult, ICmTransport*) override {}  // the other end has finished; otherwise the run would not end

private:
    bench::CUser& m_User;
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pTransport;
    CCmChainPtr m_pRest;  // refused by back-pressure
};

class CUserThread {
public:
    CUserThread() {
        if (CCmThreadManager::Instance()->CreateUserTaskThread(m_pThread) != CM_OK)
            std::exit(1);
        bench::Post(Queue(), [] { bench::PinThisThread(bench::USER_CORE); });
    }
    ~CUserThread() {
        m_pThread->Stop();
        m_pThread->Join();
        m_pThread->Destory(CM_OK);
    }
    CUserThread(const CUserThread&) = delete;
    CUserThread& operator=(const CUserThread&) = delete;

    ICmEventQueue& Queue() { return *m_pThread->GetEventQueue(); }

private:
    ACmThread* m_pThread = nullptr;  // owned, until Destory
};

}  // namespace

int main(int argc, char** argv) {
    bench::CTalvoProcess process(argc, argv);
    if (!CCmConnectionManager::Instance())
        return 1;
    bench::Post(*CCmThreadManager::Instance()->GetThreadEventQueue(CCmThreadManager::TT_NETWORK),
                [] { bench::PinThisThread(bench::NETWORK_CORE); });
    bench::CServerUser server;
    bench::CClientUser client;
    CUserThread serverThread, clientThread;
    CEnd serverEnd(server), clientEnd(client);
    CCmInetAddr addr;
    bench::Call(serverThread.Queue(), [&] { serverEnd.Listen(addr); });
    bench::Call(clientThread.Queue(), [&] { clientEnd.Connect(addr); });
    client.Print(server.WaitForEnd());
    bench::Call(clientThread.Queue(), [&] { clientEnd.Close(); });
    bench::Call(serverThread.Queue(), [&] { serverEnd.Close(); });
    return 0;
}
