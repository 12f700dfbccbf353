// The two ends of a TLS session over a pair of sockets, stepped by the test.
#pragma once

#include "talvo/transport/tls/transport_ssl.h"
#include "tests/support/event_helpers.h"
#include "tests/support/event_socket.h"

class CTlsEnd {
public:
    // aName: null for a server. aPort: of the server, as far as the client knows.
    CTlsEnd(ICmReactor& aReactor, CTestFd aFd, const CCmRefPtrT<CCmSslContext>& aContext, const char* aName, DWORD aType,
            WORD aPort = 443)
        : m_Transport(&aReactor, aType) {
        m_Transport.GetPeer().SetHandle(dup(aFd.Get()));
        m_Transport.SetPeerAddr(CCmInetAddr("127.0.0.1", aPort));
        EXPECT_EQ(CM_OK, m_Transport.Begin(aContext, aName));
    }
    talvo::CTlsSession& Session() { return *m_Transport.GetSession(); }
    // TRUE: the handshake goes on.
    BOOL Step() {
        if (m_Result == talvo::CTlsSession::WANT_READ)
            m_Result = Session().Handshake();
        return m_Result == talvo::CTlsSession::WANT_READ;
    }
    BOOL IsDone() const { return m_Result == talvo::CTlsSession::DONE; }
    // Takes what has arrived: tickets, a late refusal.
    talvo::CTlsSession::EResult Read() {
        char buffer[talvo::CTlsSession::RECORD];
        DWORD dwRead = 0;
        BOOL bMore = FALSE;
        return Session().Read(buffer, sizeof buffer, dwRead, bMore);
    }
    CCmSslInfo Info() {
        CCmSslInfo info;
        EXPECT_EQ(CM_OK, m_Transport.GetOption(CM_OPT_TRANSPORT_SSL_INFO, &info));
        return info;
    }

    CCmTransportSsl m_Transport;

private:
    talvo::CTlsSession::EResult m_Result = talvo::CTlsSession::WANT_READ;
};

// A client and a server behind their handshake, which may have failed.
struct CTlsPair {
    CTlsPair(ICmReactor& aReactor, const CCmRefPtrT<CCmSslContext>& aClient, const CCmRefPtrT<CCmSslContext>& aServer,
             const char* aName = "localhost", DWORD aType = CM_TRANSPORT_TYPE_TLS, WORD aPort = 443)
        : CTlsPair(aReactor, MakeSocketPair(), aClient, aServer, aName, aType, aPort) {}

    BOOL IsDone() const { return m_Client.IsDone() && m_Server.IsDone(); }

    CTlsEnd m_Client;
    CTlsEnd m_Server;

private:
    CTlsPair(ICmReactor& aReactor, std::pair<CTestFd, CTestFd> aSockets, const CCmRefPtrT<CCmSslContext>& aClient,
             const CCmRefPtrT<CCmSslContext>& aServer, const char* aName, DWORD aType, WORD aPort)
        : m_Client(aReactor, std::move(aSockets.first), aClient, aName, aType, aPort),
          m_Server(aReactor, std::move(aSockets.second), aServer, nullptr, CM_TRANSPORT_TYPE_TLS) {
        for (int i = 0; i < 10; ++i) {
            m_Client.Step();
            m_Server.Step();
        }
        if (m_Client.IsDone())
            m_Client.Read();
    }
};
