// A detection connector of the network thread, used from another thread.
#pragma once

#include <optional>

#include "talvo/transport/detection_connector.h"
#include "talvo/transport/thread_proxy/connector_proxy_core.h"

namespace talvo {

// Of StartDetectionConnect, or of AsycConnect.
struct CRaceArguments {
    static constexpr const char* CALL = "CCmDetectionConnectorThreadProxy::StartDetectionConnect";

    void Start(CCmDetectionConnector& aInner, ICmAcceptorConnectorSink& aSink) {
        aInner.Start(&aSink, m_Plan, m_Timeout ? &*m_Timeout : nullptr, m_bPeer ? &m_AddrPeer : nullptr,
                     m_AddrLocal ? &*m_AddrLocal : nullptr);
    }

    CRacePlan m_Plan;
    CCmInetAddr m_AddrPeer;
    BOOL m_bPeer = FALSE;  // m_AddrPeer is for all connections
    std::optional<CCmTimeValue> m_Timeout;
    std::optional<CCmInetAddr> m_AddrLocal;
};

// The user's side keeps the connections and their options; each race takes a copy of them.
class TALVO_API CDetectionProxyCore final : public CConnectorProxyCoreT<CCmDetectionConnector, CRaceArguments> {
public:
    CDetectionProxyCore(CCmThreadLink& aUser, CCmThreadLink& aNetwork, CRacePlan::Judge aJudge, Factory aFactory);
    ~CDetectionProxyCore() override;

    // Any thread.
    CmResult AddConnection(DWORD aType, const CCmInetAddr& aAddrPeer, const CCmTimeValue* aDelay);
    CmResult SetOption(DWORD aCommand, const void* aArg);
    CmResult GetOption(DWORD aCommand, void* aArg);
    // aAddrPeer, aTimeout and aAddrLocal may be null.
    void StartRace(ICmAcceptorConnectorSink* aSink, const CCmInetAddr* aAddrPeer, const CCmTimeValue* aTimeout,
                   const CCmInetAddr* aAddrLocal);

private:
    DWORD GetIndicatedType_i() const override { return m_pInner->GetWinnerType(); }

    CCmMutexThread m_PlanMutex;
    CRacePlan m_Plan CM_GUARDED_BY(m_PlanMutex);
};

}  // namespace talvo

// As CCmConnectorThreadProxy, for detection connectors. AddConnection does not wait for the network thread.
class TALVO_API CCmDetectionConnectorThreadProxy final
    : public talvo::CIndicatingProxyT<CCmDetectionConnectorThreadProxy, ICmDetectionConnector, talvo::CDetectionProxyCore> {
public:
    BOOL IsConnector() override { return TRUE; }
    CmResult AddConnection(DWORD aType, const CCmInetAddr& aAddrPeer, CCmTimeValue* aDelay = nullptr) override {
        return m_pCore->AddConnection(aType, aAddrPeer, aDelay);
    }
    void StartDetectionConnect(ICmAcceptorConnectorSink* aSink, CCmTimeValue* aTimeout = nullptr) override {
        m_pCore->StartRace(aSink, nullptr, aTimeout, nullptr);
    }
    void AsycConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, CCmTimeValue* aTimeout = nullptr,
                     CCmInetAddr* aAddrLocal = nullptr) override {
        m_pCore->StartRace(aSink, &aAddrPeer, aTimeout, aAddrLocal);
    }
    void CancelConnect() override { m_pCore->CancelConnect(); }

private:
    using CIndicatingProxyT::CIndicatingProxyT;
};
