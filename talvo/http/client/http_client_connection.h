// A client's connection to an HTTP server: used by one exchange after another, idle in between.
#pragma once

#include "talvo/base/failure.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/event/timer_delete.h"
#include "talvo/event/timer_wrapper_id.h"
#include "talvo/transport/tls/ssl_context.h"
#include "talvo/transport/transport_interface.h"

namespace talvo {

class CHttpClientConnection;
class CHttpClientPool;
struct CHttpConnectionRequest;
struct CHttpDestination;

// The user of a connection of the pool. Each call may do anything with the connection. If memory runs out inside
// (std::bad_alloc), the connection is closed, and OnConnectionLost comes with CM_ERROR_OUT_OF_MEMORY. The calls that report an
// end must not throw.
class IHttpConnectionUser {
public:
    // aConnection is the user's until the user gives it back, closes it or loses it. aReused: it has served other exchanges
    // before.
    virtual void OnConnectionReady(CHttpClientConnection& aConnection, CmBool aReused) = 0;
    // No connection comes: the connector's reason.
    virtual void OnConnectionFailed(CmResult aReason, const CCmFailure& aFailure) = 0;

    virtual void OnConnectionReceive(CCmMessageBlock& aData) = 0;
    virtual void OnConnectionSend() = 0;
    virtual void OnConnectionDeadline() = 0;  // the time of SetDeadline has come
    // It is closed and no longer the user's. CM_OK: the server has closed it gracefully, after all its data.
    virtual void OnConnectionLost(CmResult aReason, const CCmFailure& aFailure) = 0;

protected:
    virtual ~IHttpConnectionUser() = default;
};

// Of one thread. Reference-counted: the pool and the user hold it, and it outlives the call that releases it.
class CHttpClientConnection : public CCmReferenceControlTimerDeleteT<CCmMutexNullSingleThread>,
                              private ICmAcceptorConnectorSink,
                              private ICmTransportSink,
                              private CCmTimerWrapperIDSink {
public:
    static constexpr int64_t NEVER = INT64_MAX;
    // Microseconds of idle time after which a server may soon close it.
    static constexpr int64_t TRUSTED_USEC = 1'000'000;

    CHttpClientConnection(CHttpClientPool& aPool, const CCmString& aKey, IHttpConnectionUser& aUser);
    ~CHttpClientConnection() override;

    // For the pool.
    CmResult Connect(const CHttpConnectionRequest& aRequest);
    void Lend(IHttpConnectionUser& aUser);
    CmBool Park(int64_t aUntil);  // idle: any data closes it. FALSE: no memory for the timer
    CmBool IsFit();               // idle, and no end of the server was seen
    int64_t GetRest() const;      // idle: the idle time in microseconds
    void Cut(CmResult aReason);   // ends it and notifies the user
    void ForgetPool() { m_pPool = nullptr; }
    const CCmString& GetKey() const { return m_strKey; }
    IHttpConnectionUser* GetUser() const { return m_pUser; }
    int64_t GetDeadline() const { return m_llDeadline; }

    // For the user. Transport operations, as those of ICmTransport.
    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter& aPara);
    CmResult SetOption(CmDword aCommand, void* aArg) { return m_pTransport->SetOption(aCommand, aArg); }
    CmResult GetOption(CmDword aCommand, void* aArg) { return m_pTransport->GetOption(aCommand, aArg); }
    // Microseconds on the clock of CCmClock::GetTimeOfDayUsec. A later deadline costs nothing: the timer is re-armed lazily.
    // Throws std::bad_alloc if there is no memory for the timer.
    void SetDeadline(int64_t aMoment);
    // The answer was complete and no data follows it: another user may get the connection.
    void GiveBack();
    // Ends it. With CM_OK the data taken is sent first.
    void Close(CmResult aReason);

private:
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;
    void OnTimer(CCmTimerWrapperID* aId) override;
    void OnReferenceDestory() override;

    CmResult SetTls_i(const CHttpDestination& aTo);
    CmResult SetTunnel_i(const CHttpDestination& aTo, CCmInetAddr& aAddr);
    template <class Call>
    void Enter_i(const Call& aCall);
    void Indicate_i(CmResult aReason, const CCmFailure& aFailure);
    void Late_i();
    void Lost_i(CmResult aReason, const CCmFailure& aFailure = CCmFailure());
    IHttpConnectionUser* Leave_i(CmResult aReason);
    void Arm_i(int64_t aNow);

    CHttpClientPool* m_pPool;      // not owned; null: it is destroyed, or no longer has this connection
    IHttpConnectionUser* m_pUser;  // not owned; null while idle
    const CCmString m_strKey;
    CCmRefPtrT<CCmSslContext> m_pContext;  // of TLS; null: plain TCP. Kept because the key has its address
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pTransport;
    CCmTimerWrapperID m_Timer;
    int64_t m_llDeadline = NEVER;
    int64_t m_llTimer = NEVER;  // when the timer fires
    int64_t m_llParked = 0;
};

}  // namespace talvo
