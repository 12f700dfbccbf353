// The connections of a thread's HTTP client channels.
#pragma once

#include <list>
#include <unordered_map>
#include <vector>

#include "talvo/event/thread_link.h"
#include "talvo/http/client/http_client_connection.h"
#include "talvo/http/client/http_destination.h"
#include "talvo/http/client/http_pool_limits.h"

namespace talvo {

// A user's request to the pool.
struct CHttpConnectionRequest {
    IHttpConnectionUser* m_pUser = nullptr;
    CHttpDestination m_To;
    DWORD m_dwTimeoutMs = 0;
    int64_t m_llMaxRest = 0;  // microseconds: a reused connection must have been idle for less than this
};

// One a thread; the first channel makes it, the thread's end destroys it. An unused connection serves the next request for its
// destination. If the limit of connections is reached, requests wait in turn.
class CHttpClientPool : private CCmThreadTenant, private CCmTimerWrapperIDSink {
public:
    // aPool (out): the calling thread's. CM_ERROR_NULL_POINTER: it has no event queue or no timer queue.
    // CM_ERROR_OUT_OF_MEMORY.
    static CmResult OfThisThread(CHttpClientPool*& aPool);
    // The same if it exists, else null.
    static CHttpClientPool* FindOfThisThread();

    // CM_OK: OnConnectionReady or OnConnectionFailed follows, the first perhaps inside this call. Any other result: a
    // connection is impossible, and the user gets no call. If memory runs out (std::bad_alloc), the user must cancel, and close
    // the connection that it may have got.
    CmResult Acquire(const CHttpConnectionRequest& aRequest);
    // For a request that still waits; the user itself closes a connection that it has.
    void Cancel(IHttpConnectionUser& aUser);

    const CCmHttpPoolLimits& GetLimits() const { return m_Limits; }
    void SetLimits(const CCmHttpPoolLimits& aLimits);

    // TRUE: the thread finishes exchanges in progress and begins no new ones.
    using CCmThreadTenant::IsDraining;

    // From the connections: for reuse, or closed.
    void TakeBack(CHttpClientConnection& aConnection);
    void Forget(CHttpClientConnection& aConnection);

private:
    using Connection = CCmRefPtrT<CHttpClientConnection>;

    struct CHost {
        BOOL IsEmpty() const { return m_Connections.empty() && m_Waiting.empty(); }

        std::vector<Connection> m_Connections;         // all
        std::vector<CHttpClientConnection*> m_Unused;  // the idle ones, most recent last; has room for all
        std::list<CHttpConnectionRequest> m_Waiting;
    };
    using Hosts = std::unordered_map<CCmString, CHost>;

    CHttpClientPool();
    ~CHttpClientPool() override;
    void OnThreadEnd() override;
    void OnDrain(ECmDrainStage aStage) override;
    void AddUndrained(CCmUndrained& aLeft) override;
    void OnTimer(CCmTimerWrapperID* aId) override;

    CmResult Serve_i(const CCmString& aKey, const CHttpConnectionRequest& aRequest);
    CmResult ServeUnused_i(const CCmString& aKey, const CHttpConnectionRequest& aRequest);
    CmResult ServeNew_i(const CCmString& aKey, const CHttpConnectionRequest& aRequest);
    CmResult Wait_i(const CCmString& aKey, const CHttpConnectionRequest& aRequest);
    void ServeFirst_i(Hosts::iterator aHost);
    Hosts::iterator FindServable_i();
    BOOL HasRoom_i(const CHost& aHost) const;
    void Use_i(CHttpClientConnection& aConnection);
    void Settle_i(const CCmString& aKey);
    BOOL CloseSurplus_i(CHost& aHost);
    void ServeSoon_i();
    void CutAll_i();

    CCmHttpPoolLimits m_Limits;
    Hosts m_Hosts;                                 // by the key of their requests
    std::vector<CHttpClientConnection*> m_Unused;  // of all hosts, most recent last; has room for all
    size_t m_stConnections = 0;                    // of all hosts
    CCmTimerWrapperID m_Timer;                     // serves waiting users, outside the calls that made room
    CCmTimerWrapperID m_LookTimer;                 // armed while a user waits, in case memory runs out for m_Timer
    BOOL m_bServing = FALSE;
};

}  // namespace talvo
