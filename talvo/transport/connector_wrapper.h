// The connector that users get.
#pragma once

#include <memory>

#include "talvo/event/home_reactor.h"
#include "talvo/event/later_report.h"
#include "talvo/transport/connect_options.h"
#include "talvo/transport/connector_internal.h"

// Chooses an inner connector by type, runs the time-out, and reports every outcome with one indication, never from inside
// AsycConnect. Lives in the network thread; other threads use the connector thread proxy. May be used again after each
// indication.
class TALVO_API CCmConnectorWrapper : public ICmConnector,
                                      public ACmConnectorUpper,
                                      public ICmTimerHandler,
                                      public CCmReferenceControlT<CCmMutexNullSingleThread>,
                                      public talvo::CConnectOptions,
                                      private CCmThreadTenant {
public:
    CCmConnectorWrapper();
    ~CCmConnectorWrapper() override;

    // Once, before AsycConnect. aType: a base type. CM_ERROR_ALREADY_INITIALIZED. CM_ERROR_NOT_INITIALIZED: there is no network
    // thread. CM_ERROR_INVALID_ARG: no such type. CM_ERROR_NOT_IMPLEMENTED: a type without a maker yet.
    CmResult Init(CmDword aType);

    CmDword AddReference() override { return CCmReferenceControlT::AddReference(); }
    CmDword ReleaseReference() override { return CCmReferenceControlT::ReleaseReference(); }
    CmBool IsConnector() override { return CM_TRUE; }

    // Without Init the attempt fails at once.
    void AsycConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, CCmTimeValue* aTimeout = nullptr,
                     CCmInetAddr* aAddrLocal = nullptr) override;
    void CancelConnect() override;

    int OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ACmConnectorInternal* aId) override;
    // aArg: the reason to report.
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;

private:
    void OnThreadEnd() override {}
    void OnDrain(ECmDrainStage aStage) override;

    CCmFailure GetFailure() const override { return m_Failure; }
    // Those of the inner connector. CM_ERROR_NOT_INITIALIZED before Init.
    CmResult SetOption_i(CmDword aCommand, void* aArg) override;
    CmResult GetOption_i(CmDword aCommand, void* aArg) override;
    void Close_i();
    void OnNoMemory();
    void ReportLater_i(const CCmTimeValue& aDelay, CmResult aReason);

    CCmEnsureSingleThread m_Est;
    talvo::CHomeReactor m_pReactor = nullptr;     // the network thread's, also its timers
    ICmAcceptorConnectorSink* m_pSink = nullptr;  // not owned
    std::unique_ptr<ACmConnectorInternal> m_pConnector;
    CmDword m_Type = 0;
    CmBool m_bClosed = CM_TRUE;  // FALSE while an attempt runs
    CCmFailure m_IfLate;         // the failure if the attempt times out
    CCmFailure m_Failure;
    talvo::CLaterReportT<CCmConnectorWrapper, &CCmConnectorWrapper::OnNoMemory> m_NoMemory{*this};  // for a timer
};
