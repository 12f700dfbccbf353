// Sinks that record their upcalls, for tests of code that uses connections.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "talvo/connection/drain_sink.h"
#include "talvo/event/thread_manager.h"
#include "talvo/transport/transport_interface.h"

// A transport's sink. Upcalls come, and members may be used, in the thread that has made it. A callable runs inside each
// upcall, after it has been recorded, and may release the transport:
//
//    CCmUpcallLog log;
//    log.m_Receive = [&] { pTransport.Reset(); };
//    pTransport->OpenWithSink(&log);
//    ... run the loop ...
//    EXPECT_EQ("receive hello", log.Take());
class CCmUpcallLog : public ICmTransportSink {
public:
    // The upcalls since the last call, in order: "receive DATA, send, disconnect REASON". Data that was received in a row is
    // one entry.
    std::string Take() { return std::exchange(m_strLog, {}); }
    // Breaches of the contract: upcalls after OnDisconnect, in another thread or without a transport. Empty: none.
    const std::string& GetFaults() const { return m_strFaults; }
    int Upcalls() const { return m_nReceives + m_nSends + m_nDisconnects; }  // the number of all

    std::vector<std::string> m_Received;  // the data of each OnReceive
    std::string m_strReceived;            // all of it
    // The numbers of upcalls.
    int m_nReceives = 0;
    int m_nSends = 0;
    int m_nDisconnects = 0;
    CmResult m_Reason = CM_OK;  // of OnDisconnect
    CmBool m_bEcho = CM_FALSE;  // OnReceive sends the data back; the rest of a partial send is lost
    // Run inside the upcalls.
    std::function<void()> m_Receive = [] {};
    std::function<void()> m_Send = [] {};
    std::function<void()> m_Disconnect = [] {};

    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter*) override {
        Record(aTrptId, m_bReceiving && !m_strLog.empty() ? "" : "receive ");
        m_bReceiving = CM_TRUE;
        ++m_nReceives;
        m_Received.push_back(aData.FlattenChained());
        m_strReceived += m_Received.back();
        m_strLog += m_Received.back();
        if (m_bEcho)
            aTrptId->SendData(aData);
        m_Receive();
    }
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter*) override {
        Record(aTrptId, "send");
        ++m_nSends;
        m_Send();
    }
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override {
        Record(aTrptId, "disconnect " + std::to_string(aReason));
        ++m_nDisconnects;
        m_Reason = aReason;
        m_Disconnect();
    }

private:
    void Record(ICmTransport* aTrptId, const std::string& aUpcall) {
        if (m_nDisconnects > 0)
            m_strFaults += aUpcall + " after the end. ";
        if (m_dwThread != CCmThreadManager::GetThreadSelfId())
            m_strFaults += aUpcall + " in another thread. ";
        if (!aTrptId)
            m_strFaults += aUpcall + " without a transport. ";
        m_strLog += (m_strLog.empty() || aUpcall.empty() ? "" : ", ") + aUpcall;
        m_bReceiving = CM_FALSE;
    }

    const CmDword m_dwThread = CCmThreadManager::GetThreadSelfId();
    std::string m_strLog, m_strFaults;
    CmBool m_bReceiving = CM_FALSE;
};

// The sink of a drain. Allocates no memory.
class CCmDrainLog : public ICmDrainSink {
public:
    void OnDrained(CmResult aReason, const CCmUndrained& aLeft) override {
        ++m_nCalls;
        m_Reason = aReason;
        m_Left = aLeft;
    }
    int m_nCalls = 0;           // of OnDrained
    CmResult m_Reason = CM_OK;  // of the last one
    CCmUndrained m_Left;        // of the last one
};

// The sink of an acceptor or a connector: keeps the transports, unless set otherwise. One thread at a time.
class CCmConnectLog : public ICmAcceptorConnectorSink {
public:
    size_t Count() const { return m_Reasons.size(); }  // the number of indications

    CmBool m_bKeep = CM_TRUE;                            // FALSE: transports are closed at once
    std::vector<CmResult> m_Reasons;                     // of each indication
    std::vector<CCmRefPtrT<ICmTransport>> m_Transports;  // of the successful ones
    ICmAcceptorConnectorId* m_pLastId = nullptr;         // the acceptor or connector of the last one
    std::function<void()> m_Indicated = [] {};           // runs inside each upcall

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override {
        m_Reasons.push_back(aReason);
        m_pLastId = aRequestId;
        if (aTrpt && m_bKeep)
            m_Transports.emplace_back(aTrpt);
        m_Indicated();
    }
};
