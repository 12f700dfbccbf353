// Opens protocol connections.
#pragma once

#include "talvo/connection/protocol/opening_conn.h"
#include "talvo/event/later_report.h"
#include "talvo/transport/connect_options.h"

namespace talvo {

// The part that is independent of the connections' class.
class TALVO_API CConnConnectorBase : public ICmConnector,
                                     public CConnOwner,
                                     public CCmReferenceControlT<CCmMutexNullSingleThread>,
                                     public CConnectOptions,
                                     private CCmThreadTenant {
public:
    CmDword AddReference() override { return CCmReferenceControlT::AddReference(); }
    CmDword ReleaseReference() override { return CCmReferenceControlT::ReleaseReference(); }
    CmBool IsConnector() override { return CM_TRUE; }

    void AsycConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, CCmTimeValue* aTimeout = nullptr,
                     CCmInetAddr* aAddrLocal = nullptr) override;
    void CancelConnect() override;

    void OnOpened(CConnBase& aConn, CmResult aReason) override;

protected:
    explicit CConnConnectorBase(CCmRefPtrT<ICmConnector> aLower);
    ~CConnConnectorBase() override;

    // A new connection; empty: memory ran out.
    virtual COpeningConn MakeConnection() = 0;

private:
    void OnThreadEnd() override {}
    void OnDrain(ECmDrainStage aStage) override;

    CCmFailure GetFailure() const override { return m_Failure; }
    CmResult SetOption_i(CmDword aCommand, void* aArg) override { return SetConnectOption(m_pLower.Get(), aCommand, aArg); }
    CmResult GetOption_i(CmDword aCommand, void* aArg) override { return GetConnectOption(m_pLower.Get(), aCommand, aArg); }
    CCmFailure FailureOf_i(CConnBase& aConn) const;
    void Cancel_i();
    void OnNoMemory();

    CCmEnsureSingleThread m_Est;
    const CCmRefPtrT<ICmConnector> m_pLower;
    ICmAcceptorConnectorSink* m_pSink = nullptr;  // not owned; set while an attempt runs
    COpeningConn m_Opening;                       // of that attempt
    CCmFailure m_IfClosed;                        // the failure if the peer closes gracefully before the opening has ended
    CCmFailure m_Failure;
    CLaterReportT<CConnConnectorBase, &CConnConnectorBase::OnNoMemory> m_NoMemory{*this};
};

}  // namespace talvo

// Makes a T for each attempt and gives it to the connector below as its sink. OnConnectIndication passes the T on when its
// opening has ended, or reports the failure. One attempt at a time. aTimeout is for the connector below; the T itself limits
// the time afterwards. CancelConnect and the last release end the attempt without a call. Network thread only.
//
// T is a CConnBase and an ICmAcceptorConnectorSink. It has a default constructor and void CancelConnect(), which ends an
// opening without a call.
template <class T>
class CConnConnectorT final : public talvo::CConnConnectorBase {
public:
    // aLower: the connector of the base type, not shared. aNeedKeepAlive: for a T that supports keep-alives.
    CConnConnectorT(CCmRefPtrT<ICmConnector> aLower, CmBool aNeedKeepAlive)
        : CConnConnectorBase(std::move(aLower)), m_bNeedKeepAlive(aNeedKeepAlive) {}

private:
    talvo::COpeningConn MakeConnection() override { return talvo::NewOpeningConn<T>(m_bNeedKeepAlive); }

    const CmBool m_bNeedKeepAlive;
};
