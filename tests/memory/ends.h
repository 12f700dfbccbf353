// The ends of connections, as users.
#pragma once

#include <list>
#include <string>

#include "tests/memory/world.h"

// One end of a connection: keeps what it shall send until that was taken, and what comes.
class CEnd : public ICmTransportSink {
public:
    ~CEnd() override { Close(); }

    void Open(ICmTransport* aTransport);
    void Close();
    void Flush();
    BOOL IsOver() const { return !m_pTransport; }

    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara = nullptr) override;
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara = nullptr) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;

    std::list<std::string> m_ToSend;
    std::string m_strReceived;  // on a server's side sent back
    BOOL m_bEcho = FALSE;

private:
    CCmRefPtrT<ICmTransport> m_pTransport;
};

// Echoes on every connection.
class CServer : public ICmAcceptorConnectorSink {
public:
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        const CTestCode test;
        Require(aReason == CM_OK && aTrpt, "an acceptor indicates a failure");
        CEnd& end = m_Ends.emplace_back();
        end.m_bEcho = TRUE;
        end.Open(aTrpt);
    }
    CmResult Start(DWORD aType) {
        CmResult rv = CWorld::Do([&] { return CTestNetwork::Manager().CreateConnectionServer(aType, m_pAcceptor.ParaOut()); });
        const CCmInetAddr addr(OwnLoopback(), 0);
        if (rv == CM_OK)
            rv = CWorld::Do([&] { return m_pAcceptor->StartListen(this, addr); });
        return rv == CM_OK ? CWorld::Do([&] { return m_pAcceptor->GetListenAddr(m_Addr); }) : rv;
    }
    void Stop() {
        if (m_pAcceptor)
            CWorld::Do([&] { m_pAcceptor->StopListen(CM_OK); });
        CWorld::Do([&] { m_pAcceptor.Reset(); });
    }
    void Flush() {
        for (CEnd& end : m_Ends)
            end.Flush();
    }
    bool IsOver() const {
        return std::all_of(m_Ends.begin(), m_Ends.end(), [](const CEnd& a) { return a.IsOver(); });
    }
    CCmInetAddr m_Addr;
    std::list<CEnd> m_Ends;

private:
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
};

// Connects once.
class CClient : public ICmAcceptorConnectorSink {
public:
    ~CClient() override {
        CWorld::Do([&] { m_pConnector.Reset(); });
    }
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        const CTestCode test;
        Require((aReason == CM_OK) == (aTrpt != nullptr), "an indication with half a transport");
        Require(++m_nIndications == 1, "two indications");
        if (aTrpt)
            m_End.Open(aTrpt);
    }
    // TRUE: there is a connection.
    bool Connect(CWorld& aWorld, DWORD aType, const CCmInetAddr& aAddr) {
        CCmTimeValue timeout(5);
        if (CWorld::Do([&] { return CTestNetwork::Manager().CreateConnectionClient(aType, m_pConnector.ParaOut()); }) != CM_OK)
            return false;
        CWorld::Do([&] { m_pConnector->AsycConnect(this, aAddr, &timeout); });
        Require(m_nIndications == 0, "an indication from inside AsycConnect");
        Require(aWorld.Run([&] { return m_nIndications > 0; }), "no indication");
        return !m_End.IsOver();
    }
    CEnd m_End;
    int m_nIndications = 0;

private:
    CCmRefPtrT<ICmConnector> m_pConnector;
};
