// Real TLS before the servers of scripts.
#pragma once

#include "talvo/testing/scripted_http.h"
#include "talvo/transport/connect_options.h"
#include "talvo/transport/tls/acceptor_ssl.h"
#include "talvo/transport/tls/connector_ssl.h"
#include "tests/support/network_fixture.h"
#include "tests/support/tls_certificates.h"

// The server's end of one TLS connection over a socket. It passes the bytes to and from the peer of a script.
class CTlsFrontPeer : private ICmAcceptorConnectorSink, private ICmTransportSink {
public:
    CTlsFrontPeer(CCmRefPtrT<CCmScriptedHttpPeer> aPeer, CCmRefPtrT<CCmSslContext> aContext) : m_pPeer(std::move(aPeer)) {
        EXPECT_EQ(CM_OK, talvo::SetConnectOption(m_pAcceptor.Get(), CM_OPT_CONNECT_SSL_CONTEXT, &aContext));
        CCmString strAlpn = "h2,http/1.1";
        EXPECT_EQ(CM_OK, talvo::SetConnectOption(m_pAcceptor.Get(), CM_OPT_CONNECT_ALPN, &strAlpn));
        EXPECT_EQ(CM_OK, m_pAcceptor->StartListen(this, Loopback()));
        EXPECT_EQ(CM_OK, m_pAcceptor->GetListenAddr(m_Addr));
        m_pPeer->OpenWithSink(this);
    }

    CCmInetAddr m_Addr;

private:
    void OnConnectIndication(CmResult, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        m_pTls = aTrpt;
        Set(*m_pTls, CM_OPT_TRANSPORT_TELL_END, TRUE);
        EXPECT_EQ(CM_OK, m_pTls->OpenWithSink(this));
        Flush();
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrpt, CCmTransportParameter*) override {
        const BOOL bEnd = aData.GetChainedLength() == 0, bScript = aTrpt == m_pPeer.Get();
        if (bScript) {
            m_strOut += aData.FlattenChained();
            m_bEnd = bEnd;
            Flush();
        } else if (bEnd) {
            m_pPeer->Disconnect(CM_OK);
            m_pTls->Disconnect(CM_OK);
        } else {
            m_pPeer->SendData(aData, nullptr);
        }
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override { Flush(); }
    // The script resets: the stream is cut.
    void OnDisconnect(CmResult aReason, ICmTransport* aTrpt) override {
        if (aTrpt == m_pPeer.Get())
            m_pTls->Disconnect(CM_ERROR_FAILURE);
        else
            m_pPeer->Disconnect(aReason);
    }
    void Flush() {
        if (!m_pTls)
            return;
        CCmMessageBlock block = ViewOf(m_strOut);
        m_pTls->SendData(block);
        m_strOut.erase(0, m_strOut.size() - block.GetTopLevelLength());
        if (m_strOut.empty() && m_bEnd)
            Set(*m_pTls, CM_OPT_TRANSPORT_END_SENDING, TRUE);
    }

    const CCmRefPtrT<CCmScriptedHttpPeer> m_pPeer;
    const CCmRefPtrT<ICmAcceptor> m_pAcceptor = CTestNetwork::MakeAcceptor(CM_TRANSPORT_TYPE_TLS);
    CCmRefPtrT<ICmTransport> m_pTls;
    std::string m_strOut;
    BOOL m_bEnd = FALSE;
};

// While in scope, TLS connections of channels lead to the scripted servers over sockets. Make it after CCmScriptedHttp.
class CTlsFront {
public:
    CTlsFront() {
        s_pFront = this;
        cm_offer_base_type(CM_TRANSPORT_TYPE_TLS, {CConnector::Make, CCmAcceptorSsl::Make});
    }
    ~CTlsFront() { cm_offer_base_type(CM_TRANSPORT_TYPE_TLS, {}); }

    CCmRefPtrT<CCmSslContext> m_pServer = CTestCertificates::Get().MakeServer();
    CCmRefPtrT<CCmSslContext> m_pClient = CTestCertificates::Get().MakeClient();  // instead of the process's default

private:
    class CConnector : public ACmConnectorInternal, private ACmConnectorUpper {
    public:
        explicit CConnector(const CCmConnectorSettings& aSettings) : m_Upper(*aSettings.m_pUpper) {
            m_pLower = CCmConnectorSsl::Make({aSettings.m_dwType, aSettings.m_pReactor, this});
        }
        static std::unique_ptr<ACmConnectorInternal> Make(const CCmConnectorSettings& aSettings) {
            return std::make_unique<CConnector>(aSettings);
        }
        int Connect(const CCmInetAddr& aAddr, CCmInetAddr* aAddrLocal) override {
            auto pPeer = CCmScriptedHttp::ConnectTo(aAddr.GetPort());
            if (!pPeer)
                return m_pLower->Connect(aAddr, aAddrLocal);
            s_pFront->m_Peers.push_back(std::make_unique<CTlsFrontPeer>(std::move(pPeer), s_pFront->m_pServer));
            return m_pLower->Connect(s_pFront->m_Peers.back()->m_Addr, aAddrLocal);
        }
        void Close() override { m_pLower->Close(); }
        CmResult SetOption(DWORD aCommand, void* aArg) override {
            if (aCommand == CM_OPT_CONNECT_SSL_CONTEXT &&
                *static_cast<CCmRefPtrT<CCmSslContext>*>(aArg) == CCmSslContext::GetDefault())
                aArg = &s_pFront->m_pClient;
            return m_pLower->SetOption(aCommand, aArg);
        }

    private:
        int OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ACmConnectorInternal*) override {
            m_Failure = m_pLower->GetFailure();
            return m_Upper.OnConnectIndication(aReason, aTrpt, this);
        }

        ACmConnectorUpper& m_Upper;
        std::unique_ptr<ACmConnectorInternal> m_pLower;
    };

    inline static CTlsFront* s_pFront = nullptr;
    std::vector<std::unique_ptr<CTlsFrontPeer>> m_Peers;
};
