// Servers on this library: their main loop, and a server that listens on loopback and keeps a session for each connection until
// its peer closes.
#pragma once

#include <cstdio>
#include <list>
#include <thread>

#include "benchmarks/support/system.h"
#include "benchmarks/support/talvo_process.h"
#include "talvo/transport/tls/ssl_context.h"

namespace bench {

// Runs the main thread's loop until a signal comes.
inline void RunMainLoop(CTermination& aTermination) {
    ICmReactor* pReactor = CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN);
    std::thread end([&] {
        aTermination.Wait();
        pReactor->StopEventLoop();
    });
    pReactor->RunEventLoop();
    end.join();
}

// Presents a certificate. Ends the program if its files cannot be used.
inline CCmRefPtrT<CCmSslContext> MakeServerContext(const char* aChain, const char* aKey) {
    CCmRefPtrT<CCmSslContext> pContext(new CCmSslContext);
    if (pContext->AddCertificate(aChain, aKey) != CM_OK)
        Fail("the certificate");
    return pContext;
}

// A whole program: aServer in the network thread until a signal comes. aOpen(port), called there, makes it listen. Returns the
// exit code. No thread of the library runs before or after it.
template <class Server, class Open>
int RunNetworkServer(int aArgc, char** aArgv, Server& aServer, Open aOpen) {
    const uint16_t wPort = PortArgument(aArgc, aArgv);
    RaiseDescriptorLimit();
    CTermination termination;
    CTalvoProcess process(aArgc, aArgv);
    if (!CCmConnectionManager::Instance())
        return 1;
    ICmEventQueue& network = *CCmThreadManager::Instance()->GetThreadEventQueue(CCmThreadManager::TT_NETWORK);
    const CmResult rv = Call(network, [&] { return aOpen(wPort); });
    if (rv == CM_OK) {
        PrintReady();
        termination.Wait();
    } else {
        std::fprintf(stderr, "cannot listen on port %u: %s\n", unsigned{wPort}, cm_result_name(rv));
    }
    Call(network, [&] { aServer.Close(); });
    return rv == CM_OK ? 0 : 1;
}

template <class Session>
class CTalvoServer;

// One connection, in its server's list. Session is the class derived from this one. It is constructed from the server and the
// transport, and handles received data in OnReceive.
template <class Session>
class CTalvoSession : public ICmTransportSink {
public:
    using CPlace = typename std::list<Session>::iterator;

    CTalvoSession(CTalvoServer<Session>& aServer, ICmTransport* aTransport) : m_Server(aServer), m_pTransport(aTransport) {}
    ~CTalvoSession() override {
        m_pTransport->Disconnect(CM_OK);
        m_pRest.reset();
    }
    CTalvoSession(const CTalvoSession&) = delete;
    CTalvoSession& operator=(const CTalvoSession&) = delete;

    CmResult Open(CPlace aPlace) {
        m_Place = aPlace;
        return m_pTransport->OpenWithSink(this);
    }

    void OnSend(ICmTransport*, CCmTransportParameter*) override {
        if (!m_pRest || m_pTransport->SendData(*m_pRest) == CM_ERROR_PARTIAL_DATA)
            return;
        m_pRest.reset();
        SetPaused(FALSE);
    }

    void OnDisconnect(CmResult, ICmTransport*) override { m_Server.Forget(m_Place); }

protected:
    // Call it inside OnReceive. The rest that the transport does not take is kept, and reading is paused until it has been
    // sent.
    void Answer(CCmMessageBlock& aData) {
        if (m_pTransport->SendData(aData) != CM_ERROR_PARTIAL_DATA)
            return;
        m_pRest.reset(aData.DuplicateChained());
        SetPaused(TRUE);
    }

    ICmTransport& GetTransport() { return *m_pTransport; }

private:
    void SetPaused(BOOL aPaused) { m_pTransport->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &aPaused); }

    CTalvoServer<Session>& m_Server;
    CCmRefPtrT<ICmTransport> m_pTransport;
    CCmChainPtr m_pRest;  // not yet taken by the transport; reading is paused meanwhile
    CPlace m_Place;
};

// All in the thread that opens it, which is also the thread of the sessions.
template <class Session>
class CTalvoServer : public ICmAcceptorConnectorSink {
public:
    // aContext: of TLS.
    CmResult Open(DWORD aType, uint16_t aPort, CCmRefPtrT<CCmSslContext> aContext = {}) {
        CmResult rv = CCmConnectionManager::Instance()->CreateConnectionServer(aType, m_pAcceptor.ParaOut());
        if (rv == CM_OK && aContext)
            rv = cm_get_connect_options(m_pAcceptor.Get())->SetOption(CM_OPT_CONNECT_SSL_CONTEXT, &aContext);
        return rv == CM_OK ? m_pAcceptor->StartListen(this, CCmInetAddr("127.0.0.1", aPort)) : rv;
    }

    // The listening address; with port 0 the system chooses the port.
    CCmInetAddr GetAddr() {
        CCmInetAddr addr;
        m_pAcceptor->GetListenAddr(addr);
        return addr;
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

    void Forget(typename std::list<Session>::iterator aSession) { m_Sessions.erase(aSession); }

private:
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    std::list<Session> m_Sessions;
};

}  // namespace bench
