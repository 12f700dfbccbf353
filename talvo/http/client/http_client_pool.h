// The connections of a thread's HTTP client channels.
#pragma once

#include <list>
#include <unordered_map>
#include <vector>

#include "talvo/event/thread_link.h"
#include "talvo/http/client/http_client_connection.h"
#include "talvo/http/client/http_pool_limits.h"

namespace talvo {

// What a user wants of the pool.
struct CHttpConnectionRequest {
    IHttpConnectionUser* m_pUser = nullptr;
    CCmString m_strHost;  // as it is looked up
    WORD m_wPort = 0;     // host order
    DWORD m_dwTimeoutMs = 0;
    int64_t m_llMaxRest = 0;  // microseconds: one that others have used must have been unused for less than that
};

// One a thread, made when the first channel asks and gone with the thread. An unused connection serves the next request for
// its host and port; when as many as are allowed are in use, requests wait in turn.
class CHttpClientPool : private CCmThreadTenant, private CCmTimerWrapperIDSink {
public:
    // The calling thread's. CM_ERROR_NULL_POINTER: it has no event queue or no timer queue. CM_ERROR_OUT_OF_MEMORY.
    static CmResult OfThisThread(CHttpClientPool*& aPool);
    // The same if there is one already.
    static CHttpClientPool* FindOfThisThread();

    // CM_OK: OnConnectionReady or OnConnectionFailed will follow, the first perhaps inside this call. Anything else: there can
    // be no connection, and the user hears nothing. When memory runs out (std::bad_alloc) the user cancels, and closes the
    // connection that it has perhaps been given.
    CmResult Acquire(const CHttpConnectionRequest& aRequest);
    // For a request that still waits; a connection that the user has is closed by the user.
    void Cancel(IHttpConnectionUser& aUser);

    const CCmHttpPoolLimits& GetLimits() const { return m_Limits; }
    void SetLimits(const CCmHttpPoolLimits& aLimits);

    // Whether the thread finishes what has begun and begins nothing new.
    using CCmThreadTenant::IsDraining;

    // From the connections: to be used by others, or closed.
    void TakeBack(CHttpClientConnection& aConnection);
    void Forget(CHttpClientConnection& aConnection);

private:
    using Connection = CCmRefPtrT<CHttpClientConnection>;

    struct CHost {
        BOOL IsEmpty() const { return m_Connections.empty() && m_Waiting.empty(); }

        std::vector<Connection> m_Connections;         // all
        std::vector<CHttpClientConnection*> m_Unused;  // those that are idle; the last was so most recently; has room for all
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
    Hosts m_Hosts;                                 // by host in lower case and port
    std::vector<CHttpClientConnection*> m_Unused;  // of all hosts; the last was so most recently; has room for all
    size_t m_stConnections = 0;                    // of all hosts
    CCmTimerWrapperID m_Timer;                     // serves those who wait, outside the calls that made room
    CCmTimerWrapperID m_LookTimer;                 // while somebody waits, for want of memory for that one
    BOOL m_bServing = FALSE;
};

}  // namespace talvo
