// Accepts protocol connections.
#pragma once

#include "talvo/connection/protocol/conn_server_list.h"
#include "talvo/transport/connect_options.h"

namespace talvo {

// The part that is independent of the connections' class.
class TALVO_API CConnAcceptorBase : public ICmAcceptor,
                                    public ICmAcceptorConnectorSink,
                                    public CConnOwner,
                                    public CCmReferenceControlT<CCmMutexNullSingleThread>,
                                    public CConnectOptions,
                                    private CCmThreadTenant {
public:
    CmDword AddReference() override { return CCmReferenceControlT::AddReference(); }
    CmDword ReleaseReference() override { return CCmReferenceControlT::ReleaseReference(); }
    CmBool IsConnector() override { return CM_FALSE; }

    CmResult StartListen(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrListen) override;
    CmResult StopListen(CmResult aReason) override;
    CmResult GetListenAddr(CCmInetAddr& aAddr) override { return m_pLower->GetListenAddr(aAddr); }

    // From the acceptor below.
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;

    void OnOpened(CConnBase& aConn, CmResult aReason) override;

protected:
    explicit CConnAcceptorBase(CCmRefPtrT<ICmAcceptor> aLower);
    ~CConnAcceptorBase() override;

    // A new connection; empty: memory ran out.
    virtual COpeningConn MakeConnection() = 0;

private:
    void OnThreadEnd() override {}
    void OnDrain(ECmDrainStage aStage) override;

    CCmFailure GetFailure() const override { return GetConnectFailure(m_pLower.Get()); }
    CmResult SetOption_i(CmDword aCommand, void* aArg) override { return SetConnectOption(m_pLower.Get(), aCommand, aArg); }
    CmResult GetOption_i(CmDword aCommand, void* aArg) override { return GetConnectOption(m_pLower.Get(), aCommand, aArg); }
    void Stop_i(CmResult aReason);

    CCmEnsureSingleThread m_Est;
    const CCmRefPtrT<ICmAcceptor> m_pLower;
    ICmAcceptorConnectorSink* m_pSink = nullptr;  // not owned; set while it listens
    CConnServerList m_Opening;
};

}  // namespace talvo

// Makes a T for each transport from the acceptor below, and indicates it when its opening has ended with CM_OK; a failed one is
// not reported. StopListen and the last release end unfinished openings without a call; indicated connections stay. Network
// thread only. T fulfils the requirements of CConnConnectorT.
template <class T>
class CConnAcceptorT final : public talvo::CConnAcceptorBase {
public:
    // aLower: the acceptor of the base type, not shared. aNeedKeepAlive: for a T that supports keep-alives.
    CConnAcceptorT(CCmRefPtrT<ICmAcceptor> aLower, CmBool aNeedKeepAlive)
        : CConnAcceptorBase(std::move(aLower)), m_bNeedKeepAlive(aNeedKeepAlive) {}

private:
    talvo::COpeningConn MakeConnection() override { return talvo::NewOpeningConn<T>(m_bNeedKeepAlive); }

    const CmBool m_bNeedKeepAlive;
};
