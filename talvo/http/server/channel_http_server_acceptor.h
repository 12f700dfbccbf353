// Listens, and holds the connections of an HTTP server.
#pragma once

#include <vector>

#include "talvo/base/failure.h"
#include "talvo/event/thread_link.h"
#include "talvo/event/timer_delete.h"
#include "talvo/event/timer_wrapper_id.h"
#include "talvo/http/server/http_server_owner.h"
#include "talvo/transport/option_values.h"
#include "talvo/transport/tls/ssl_context.h"

// CCmChannelManager::CreateHttpAcceptor makes it. One timer, once a second, checks all time-outs.
class TALVO_API CCmChannelHttpServerAcceptor final : public ICmChannelServerAcceptor,
                                                     private ICmAcceptorConnectorSink,
                                                     private CCmTimerWrapperIDSink,
                                                     private talvo::CHttpServerOwner,
                                                     private CCmThreadTenant,
                                                     private CCmReferenceControlTimerDeleteT<CCmMutexNullSingleThread> {
public:
    // aFlags: no flags are defined; they are ignored.
    explicit CCmChannelHttpServerAcceptor(CmDword aFlags);
    ~CCmChannelHttpServerAcceptor() override;

    CmDword AddReference() override { return CCmReferenceControlTimerDeleteT::AddReference(); }
    CmDword ReleaseReference() override { return CCmReferenceControlTimerDeleteT::ReleaseReference(); }

    CmResult StartListen(ICmChannelServerAcceptorSink* aSink, const CCmInetAddr& aAddrListen) override;
    CmResult StopListen(CmResult aReason) override;
    CmResult GetListenAddr(CCmInetAddr& aAddr) override;
    CmResult SetOption(CmDword aCommand, void* aArg) override;
    CmResult GetOption(CmDword aCommand, void* aArg) override;
    CmDword GetConnections() const override { return static_cast<CmDword>(m_Connections.size()); }

    // Serves a connection that was made elsewhere, as if it had been accepted.
    void Serve(ICmTransport* aTransport);

private:
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;
    void OnTimer(CCmTimerWrapperID* aId) override;
    void OnReferenceDestory() override;
    void OnThreadEnd() override { DropAll_i(); }
    void OnDrain(ECmDrainStage aStage) override;
    void AddUndrained(CCmUndrained& aLeft) override { aLeft.m_dwRequests += GetConnections(); }

    const talvo::CHttpServerSettings& GetSettings() const override { return m_Settings; }
    CmDword GetLooks() const override { return m_dwLooks; }
    std::string_view GetTail(CmBool aKeepAlive) override;
    void OnRequest(ICmChannelHttpServer& aChannel) override;
    void OnRequestLost(CmResult aReason, ICmChannelHttpServer& aChannel) override;
    void OnClientEnd(ICmChannelHttpServer& aChannel) override;
    void OnRefused(int aStatus, const CCmHttpRequestHead& aRequest, const CCmInetAddr& aPeer, CmDword aBytes) override;
    void Remove(talvo::CHttpServerConnection& aConnection) override;

    using Connection = CCmRefPtrT<talvo::CHttpServerConnection>;

    CmResult Listen_i(const CCmInetAddr& aAddrListen);
    CmResult SetTls_i();
    CmResult SetContext_i(const CCmRefPtrT<CCmSslContext>& aContext);
    template <class Visit>
    void ForEach_i(const Visit& aVisit);
    void Look_i();
    CmBool PrintTails_i();
    void Stopped_i();
    void DropAll_i();
    CmDword* GetNumber_i(CmDword aCommand);

    talvo::CHttpServerSettings m_Settings;
    ICmChannelServerAcceptorSink* m_pSink = nullptr;  // not owned; from StartListen to OnStopped
    ICmHttpRefusalSink* m_pRefusalSink = nullptr;     // not owned; set by SetOption
    CCmRefPtrT<CCmSslContext> m_pContext;             // null: plain http
    talvo::COptionValues m_Handshakes;                // the limits of those of TLS
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;              // while listening
    std::vector<Connection> m_Connections;            // each stores its place
    CCmTimerWrapperID m_LookTimer;
    CCmTimerWrapperID m_StoppedTimer;
    CmDword m_dwLooks = 0;
    CmDword m_dwStopDeadline = 0;  // in looks
    CmBool m_bStopping = CM_FALSE;
    CCmFailure m_Failure;         // of the last StartListen
    int64_t m_llTailSecond = -1;  // when the tails were last requested
    CCmString m_strTailKeep;
    CCmString m_strTailClose;
};
