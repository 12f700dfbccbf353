// The ends of connections, as users.
#pragma once

#include <list>
#include <string>

#include "talvo/transport/proxy_route.h"
#include "talvo/transport/tls/ssl_context.h"
#include "tests/memory/world.h"
#include "tests/support/tls_certificates.h"

// The files of TLS. The system's roots take long to read.
struct CTestTls {
    static const CTestTls& Get() {
        static const CTestTls s_Tls;
        return s_Tls;
    }
    CTestTls() { setenv("SSL_CERT_FILE", m_strRoot.c_str(), 1); }

    const std::string m_strChain = CTestCertificates::Get().PathOf("server.pem");
    const std::string m_strKey = CTestCertificates::Get().PathOf("server.key");
    const std::string m_strRoot = CTestCertificates::Get().PathOf("root.pem");
};

// One end of a connection: keeps what it shall send until that was taken, and what comes.
class CEnd : public ICmTransportSink {
public:
    explicit CEnd(BOOL aEcho = FALSE, BOOL aTls = FALSE) : m_bEcho(aEcho), m_bTls(aTls) {}
    ~CEnd() override { Close(); }

    void Open(ICmTransport* aTransport) {
        m_pTransport = aTransport;
        if (CWorld::Do([&] { return m_pTransport->OpenWithSink(this); }) != CM_OK)
            Close();
    }
    void Close() {
        if (const CCmRefPtrT<ICmTransport> pTransport = std::move(m_pTransport))
            CWorld::Do([&] { pTransport->Disconnect(CM_OK); });
    }
    void Flush() {
        for (CmResult rv = CM_OK; rv == CM_OK && m_pTransport && !m_ToSend.empty();) {
            std::string& strFirst = m_ToSend.front();
            CCmMessageBlock block = ViewOf(strFirst);
            const CCmRefPtrT<ICmTransport> pTransport = m_pTransport;
            rv = CWorld::Do([&] { return pTransport->SendData(block); });
            strFirst.erase(0, strFirst.size() - block.GetChainedLength());
            if (rv == CM_OK)
                m_ToSend.pop_front();
        }
    }
    // The network breaks the connection: both ends notice.
    void Cut() {
        HANDLE fd = CM_INVALID_HANDLE;
        if (m_pTransport && CWorld::Do([&] { return m_pTransport->GetOption(CM_OPT_TRANSPORT_FD, &fd); }) == CM_OK)
            shutdown(fd, SHUT_RDWR);
    }
    BOOL IsOver() const { return !m_pTransport; }

    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        const CCmSafeCode safe;
        Require(!IsOver(), "OnReceive behind the end");
        m_strReceived += aData.FlattenChained();
        if (m_bEcho)
            m_ToSend.push_back(std::exchange(m_strReceived, {}));
        Flush();
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {
        const CCmSafeCode safe;
        Require(!IsOver(), "OnSend behind the end");
        Flush();
    }
    void OnDisconnect(CmResult aReason, ICmTransport*) override {
        const CCmSafeCode safe;
        Require(!m_bTls || aReason == CM_ERROR_NETWORK_SOCKET_ERROR || aReason == CM_ERROR_NETWORK_TLS_CUT,
                "an end of TLS with another reason");
        Require(!IsOver(), "OnDisconnect behind the end");
        m_pTransport.Reset();
    }

    std::list<std::string> m_ToSend;
    std::string m_strReceived;

private:
    const BOOL m_bEcho;
    const BOOL m_bTls;
    CCmRefPtrT<ICmTransport> m_pTransport;
};

// Gives an acceptor its certificate, or a connector its root, if aType is that of TLS.
inline CmResult UseTls(DWORD aType, ICmAcceptorConnectorId& aId, BOOL aServer) {
    if (aType != CM_TRANSPORT_TYPE_TLS)
        return CM_OK;
    const CTestTls& tls = CTestTls::Get();
    CCmRefPtrT<CCmSslContext> pContext(new (std::nothrow) CCmSslContext);
    if (!pContext)
        return CM_ERROR_OUT_OF_MEMORY;
    const CmResult rv = aServer ? pContext->AddCertificate(tls.m_strChain.c_str(), tls.m_strKey.c_str())
                                : pContext->SetTrust(tls.m_strRoot.c_str());
    Require(rv != CM_OK || !aServer || pContext->HasCertificate(), "a setting that failed has a good result");
    return rv == CM_OK ? cm_get_connect_options(&aId)->SetOption(CM_OPT_CONNECT_SSL_CONTEXT, &pContext) : rv;
}

// The ends of what a listener or a connector indicates.
class CSide : public ICmAcceptorConnectorSink {
public:
    explicit CSide(BOOL aEcho) : m_bEcho(aEcho) {}
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        const CCmSafeCode safe;
        Require((aReason == CM_OK) == (aTrpt != nullptr), "an indication with half a transport");
        ++m_nIndications;
        if (!aTrpt)
            return;
        CEnd& end = m_Ends.emplace_back(m_bEcho, m_dwType == CM_TRANSPORT_TYPE_TLS);
        if (!m_strGreeting.empty())
            end.m_ToSend.push_back(m_strGreeting);
        end.Open(aTrpt);
        end.Flush();
    }

    std::list<CEnd> m_Ends;
    int m_nIndications = 0;
    std::string m_strGreeting;  // sent on each connection

protected:
    DWORD m_dwType = 0;

private:
    const BOOL m_bEcho;
};

// Echoes on every connection.
class CServer : public CSide {
public:
    CServer() : CSide(TRUE) {}
    CmResult Start(DWORD aType) {
        m_dwType = aType;
        const CCmInetAddr addr(OwnLoopback(), 0);
        return CWorld::Do([&] {
            CmResult rv = CTestNetwork::Manager().CreateConnectionServer(aType, m_pAcceptor.ParaOut());
            rv = rv == CM_OK ? UseTls(aType, *m_pAcceptor, TRUE) : rv;
            rv = rv == CM_OK ? m_pAcceptor->StartListen(this, addr) : rv;
            return rv == CM_OK ? m_pAcceptor->GetListenAddr(m_Addr) : rv;
        });
    }
    void Stop() {
        CWorld::Do([&] {
            if (m_pAcceptor)
                m_pAcceptor->StopListen(CM_OK);
            m_pAcceptor.Reset();
        });
    }

    CCmInetAddr m_Addr;

private:
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
};

// Connects once.
class CClient : public CSide {
public:
    CClient() : CSide(FALSE) {}
    ~CClient() override {
        CWorld::Do([&] { m_pConnector.Reset(); });
    }
    // TRUE: there is a connection, the first end.
    bool Connect(CWorld& aWorld, DWORD aType, const CCmInetAddr& aAddr) {
        CCmTimeValue timeout(5);
        m_dwType = aType;
        const CmResult rv = CWorld::Do([&] {
            const CmResult rvMade = CTestNetwork::Manager().CreateConnectionClient(aType, m_pConnector.ParaOut());
            return rvMade == CM_OK ? UseTls(aType, *m_pConnector, FALSE) : rvMade;
        });
        if (rv != CM_OK)
            return false;
        CWorld::Do([&] {
            CCmProxyRoute route;
            if (!m_strRoute.empty() && CCmProxyRoute::FromUris(m_strRoute, route) == CM_OK)
                cm_get_connect_options(m_pConnector.Get())->SetOption(CM_OPT_CONNECT_ROUTE, &route);
            m_pConnector->AsycConnect(this, aAddr, &timeout);
        });
        Require(m_nIndications == 0, "an indication from inside AsycConnect");
        Require(aWorld.Run([&] { return m_nIndications > 0; }), "no indication");
        Require(m_nIndications <= 1, "two indications");
        return !m_Ends.empty() && !m_Ends.front().IsOver();
    }

    std::string m_strRoute;  // URIs; "": none

private:
    CCmRefPtrT<ICmConnector> m_pConnector;
};
