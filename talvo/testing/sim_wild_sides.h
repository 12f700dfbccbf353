// An acceptor and a connector that act at random.
#pragma once

#include <functional>

#include "talvo/connection/connection_manager.h"
#include "talvo/testing/sim_network.h"

// The common part of both: indications are expected or are failures of the network, and most transports are kept. All chances
// are the network's. It must live until the events that it has scheduled, at most a second ahead, have run.
class CCmSimWildSide : public ICmAcceptorConnectorSink {
public:
    // Takes a transport that was indicated and is not open yet.
    using CTake = std::function<void(ICmTransport& aTransport)>;

    // Acts no more of itself.
    void Calm() { m_bWild = CM_FALSE; }
    // An indication is due or, for an acceptor, may come.
    CmBool IsExpecting() const { return m_bExpecting; }

protected:
    CCmSimWildSide(CCmSimNetwork& aNetwork, CmDword aType, const CCmInetAddr& aAddr, CTake aTake)
        : m_Network(aNetwork), m_dwType(aType), m_Addr(aAddr), m_Take(std::move(aTake)) {}

    CmBool WildChance_i(double aShare) { return m_bWild && m_Network.Chance(aShare); }
    void Take_i(CmResult aReason, ICmTransport* aTransport);

    CCmSimNetwork& m_Network;
    const CmDword m_dwType;
    const CCmInetAddr m_Addr;
    const CTake m_Take;
    CmBool m_bWild = CM_TRUE;
    CmBool m_bExpecting = CM_FALSE;
};

// Listens. Stops at times, inside an indication and with StopListen or by releasing the acceptor, and listens again soon.
class CCmSimWildAcceptor : public CCmSimWildSide {
public:
    // aTake gets each transport that was indicated.
    CCmSimWildAcceptor(CCmSimNetwork& aNetwork, CmDword aType, const CCmInetAddr& aAddr, CTake aTake);
    void Release() { m_pAcceptor.Reset(); }  // ends it
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;

private:
    void Listen_i();

    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
};

// Connects. Cancels at times, releases the connector, and connects again from inside an indication. An indication later than
// aLimit is a failure, unless the network has jumped; so is a result of an attempt that no network causes.
class CCmSimWildConnector : public CCmSimWildSide {
public:
    // aTake gets each transport that was indicated; aLimit: the time-out of a connect.
    CCmSimWildConnector(CCmSimNetwork& aNetwork, CmDword aType, const CCmInetAddr& aAddr, const CCmTimeValue& aLimit,
                        CTake aTake);
    void Release() { m_pConnector.Reset(); }  // ends it
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;

private:
    void Start_i();
    void Cancel_i();

    const CCmTimeValue m_tvLimit;
    CCmTimeValue m_tvStarted;
    CCmRefPtrT<ICmConnector> m_pConnector;
};
