// A race of connectors, as users get it.
#pragma once

#include "talvo/transport/connect_options.h"
#include "talvo/transport/race_run.h"

// Keeps the connections of the user's races, and one race under way. Lives in the network thread; other threads use its thread
// proxy. The last release ends a race without a call.
class TALVO_API CCmDetectionConnector final : public ICmDetectionConnector,
                                              public CCmReferenceControlT<CCmMutexNullSingleThread>,
                                              public talvo::CConnectOptions,
                                              private talvo::CRaceRun::IUser,
                                              private CCmThreadTenant {
public:
    // aJudge, aFactory: of its connections. Null: memory ran out.
    static CCmRefPtrT<CCmDetectionConnector> Make(talvo::CRacePlan::Judge aJudge, talvo::CRaceRun::Factory aFactory);

    DWORD AddReference() override { return CCmReferenceControlT::AddReference(); }
    DWORD ReleaseReference() override { return CCmReferenceControlT::ReleaseReference(); }
    BOOL IsConnector() override { return TRUE; }

    CmResult AddConnection(DWORD aType, const CCmInetAddr& aAddrPeer, CCmTimeValue* aDelay = nullptr) override;
    void StartDetectionConnect(ICmAcceptorConnectorSink* aSink, CCmTimeValue* aTimeout = nullptr) override {
        Start(aSink, m_Plan, aTimeout, nullptr, nullptr);
    }
    void AsycConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, CCmTimeValue* aTimeout = nullptr,
                     CCmInetAddr* aAddrLocal = nullptr) override {
        Start(aSink, m_Plan, aTimeout, &aAddrPeer, aAddrLocal);
    }
    void CancelConnect() override;

    // From now on options go to all connections, not to the last one.
    void ShareOptions() { m_Plan.ShareOptions(); }
    // Starts a race of another plan's connections. Those after aPlan may be null, see talvo::CRaceRun::Start.
    void Start(ICmAcceptorConnectorSink* aSink, const talvo::CRacePlan& aPlan, const CCmTimeValue* aTimeout,
               const CCmInetAddr* aAddrPeer, const CCmInetAddr* aAddrLocal);
    // The connection type of the indicated transport.
    DWORD GetWinnerType() const { return m_pRun->GetWinnerType(); }

private:
    CCmDetectionConnector(talvo::CRacePlan::Judge aJudge, talvo::CRaceRun::Factory aFactory);
    ~CCmDetectionConnector() override;

    void OnRaceOver(CmResult aReason, ICmTransport* aTrpt) override;
    void OnThreadEnd() override {}
    void OnDrain(ECmDrainStage aStage) override;

    CCmFailure GetFailure() const override { return m_Failure; }
    CmResult SetOption_i(DWORD aCommand, void* aArg) override { return m_Plan.SetOption(aCommand, aArg); }
    CmResult GetOption_i(DWORD aCommand, void* aArg) override { return m_Plan.GetOption(aCommand, aArg); }

    CCmEnsureSingleThread m_Est;
    talvo::CRacePlan m_Plan;
    const CCmRefPtrT<talvo::CRaceRun> m_pRun;
    ICmAcceptorConnectorSink* m_pSink = nullptr;  // not owned; of the race under way
    CCmFailure m_Failure;
};
