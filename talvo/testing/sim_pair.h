// A connected client and server over a simulated link, for tests of one sink or protocol.
#pragma once

#include "talvo/connection/connection_manager.h"
#include "talvo/testing/sim_network.h"
#include "talvo/testing/upcall_log.h"

// Listens, connects once and opens both transports with logs. Connecting takes one second of simulated time. Further connects
// of m_pConnector, with m_Clients as the sink, give further pairs of transports, opened with the same logs.
//
//    CCmSimNetwork network(1);
//    CCmSimPair pair(network, CCmConnectionManager::CTYPE_TCP);
//    network.SetPath({.m_ullCutAfter = 7});
//    pair.Client().SendData(block);
//    network.RunFor(CCmTimeValue(1));
//    EXPECT_EQ("receive 0123456, disconnect 20001", pair.m_Server.Take());
class CCmSimPair {
public:
    // aType: a connection type. aAddr: the server's.
    CCmSimPair(CCmSimNetwork& aNetwork, CmDword aType, const CCmInetAddr& aAddr = CCmInetAddr("10.0.0.1", 80)) : m_Addr(aAddr) {
        OpenEach_i(m_Servers, m_Server);
        OpenEach_i(m_Clients, m_Client);
        CCmConnectionManager& manager = *CCmConnectionManager::Instance();
        if (manager.CreateConnectionServer(aType, m_pAcceptor.ParaOut()) != CM_OK ||
            manager.CreateConnectionClient(aType, m_pConnector.ParaOut()) != CM_OK ||
            m_pAcceptor->StartListen(&m_Servers, aAddr) != CM_OK)
            return;
        m_pConnector->AsycConnect(&m_Clients, aAddr);
        aNetwork.RunFor(CCmTimeValue(1));
        if (!IsConnected())
            aNetwork.Fail("the pair is not connected");
    }
    CCmSimPair(const CCmSimPair&) = delete;
    CCmSimPair& operator=(const CCmSimPair&) = delete;

    // Over datagrams only the client: the server follows with the first datagram.
    CmBool IsConnected() const { return !m_Clients.m_Transports.empty(); }

    // The two ends; only of a pair that is connected.
    ICmTransport& Client() const { return *m_Clients.m_Transports.at(0); }
    ICmTransport& Server() const { return *m_Servers.m_Transports.at(0); }

    const CCmInetAddr m_Addr;               // the server's
    CCmUpcallLog m_Client;                  // of the transports
    CCmUpcallLog m_Server;                  // of the transports
    CCmConnectLog m_Clients;                // of the connector
    CCmConnectLog m_Servers;                // of the acceptor
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;    // the server's
    CCmRefPtrT<ICmConnector> m_pConnector;  // the client's

private:
    static void OpenEach_i(CCmConnectLog& aSide, CCmUpcallLog& aLog) {
        aSide.m_Indicated = [&aSide, &aLog] {
            if (aSide.m_Reasons.back() == CM_OK && !aSide.m_Transports.empty())
                aSide.m_Transports.back()->OpenWithSink(&aLog);
        };
    }
};
