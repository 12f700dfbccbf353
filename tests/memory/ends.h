// The ends of connections, as users.
#pragma once

#include <list>
#include <string>

#include "tests/memory/world.h"

// One end of a connection: keeps what it shall send until that was taken, and what comes.
class CEnd : public ICmTransportSink {
public:
    explicit CEnd(BOOL aEcho = FALSE) : m_bEcho(aEcho) {}
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
    void OnDisconnect(CmResult, ICmTransport*) override {
        const CCmSafeCode safe;
        Require(!IsOver(), "OnDisconnect behind the end");
        m_pTransport.Reset();
    }

    std::list<std::string> m_ToSend;
    std::string m_strReceived;

private:
    const BOOL m_bEcho;
    CCmRefPtrT<ICmTransport> m_pTransport;
};

// The ends of what a listener or a connector indicates.
class CSide : public ICmAcceptorConnectorSink {
public:
    explicit CSide(BOOL aEcho) : m_bEcho(aEcho) {}
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        const CCmSafeCode safe;
        Require((aReason == CM_OK) == (aTrpt != nullptr), "an indication with half a transport");
        ++m_nIndications;
        if (aTrpt)
            m_Ends.emplace_back(m_bEcho).Open(aTrpt);
    }

    std::list<CEnd> m_Ends;
    int m_nIndications = 0;

private:
    const BOOL m_bEcho;
};

// Echoes on every connection.
class CServer : public CSide {
public:
    CServer() : CSide(TRUE) {}
    CmResult Start(DWORD aType) {
        const CCmInetAddr addr(OwnLoopback(), 0);
        return CWorld::Do([&] {
            CmResult rv = CTestNetwork::Manager().CreateConnectionServer(aType, m_pAcceptor.ParaOut());
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
        if (CWorld::Do([&] { return CTestNetwork::Manager().CreateConnectionClient(aType, m_pConnector.ParaOut()); }) != CM_OK)
            return false;
        CWorld::Do([&] { m_pConnector->AsycConnect(this, aAddr, &timeout); });
        Require(m_nIndications == 0, "an indication from inside AsycConnect");
        Require(aWorld.Run([&] { return m_nIndications > 0; }), "no indication");
        Require(m_nIndications <= 1, "two indications");
        return !m_Ends.empty() && !m_Ends.front().IsOver();
    }

private:
    CCmRefPtrT<ICmConnector> m_pConnector;
};
