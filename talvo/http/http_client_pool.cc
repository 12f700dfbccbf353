#include "talvo/http/http_client_pool.h"

#include <algorithm>
#include <new>

#include "talvo/base/clock.h"
#include "talvo/base/live_counter.h"
#include "talvo/event/thread.h"
#include "talvo/http/http_text.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CHttpClientPool");

thread_local CHttpClientPool* s_pPool = nullptr;

CCmString KeyOf(const CHttpConnectionRequest& aRequest) {
    CCmString strKey = aRequest.m_strHost;
    std::transform(strKey.begin(), strKey.end(), strKey.begin(), lower_case);
    return strKey + ":" + std::to_string(aRequest.m_wPort);
}

}  // namespace

CHttpClientPool::CHttpClientPool() { ++s_Live; }

CHttpClientPool::~CHttpClientPool() { --s_Live; }

CHttpClientPool* CHttpClientPool::FindOfThisThread() { return s_pPool; }

CHttpClientPool* CHttpClientPool::OfThisThread() {
    if (s_pPool)
        return s_pPool;
    ACmThread* pThread = CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_CURRENT);
    if (!pThread || !pThread->GetEventQueue() || !pThread->GetTimerQueue())
        return nullptr;
    auto* pPool = new (std::nothrow) CHttpClientPool;
    if (pPool && pThread->GetLink().Join(*pPool) == CM_OK)
        return s_pPool = pPool;
    delete pPool;
    return nullptr;
}

// Who still has a connection keeps it, and hears of its end from the transport; who waits hears nothing, since the loop in
// which he would is over.
void CHttpClientPool::OnThreadEnd() {
    s_pPool = nullptr;
    for (auto& [strKey, host] : m_Hosts) {
        for (const Connection& pConnection : host.m_Connections) {
            pConnection->ForgetPool();
            if (!pConnection->GetUser())
                pConnection->Close(CM_OK);
        }
    }
    delete this;
}

CmResult CHttpClientPool::Acquire(const CHttpConnectionRequest& aRequest) {
    const CCmString strKey = KeyOf(aRequest);
    const BOOL bNobodyWaits = m_Hosts[strKey].m_Waiting.empty();
    const CmResult rv = bNobodyWaits ? Serve_i(strKey, aRequest) : CM_ERROR_WOULD_BLOCK;
    if (rv == CM_ERROR_WOULD_BLOCK)
        m_Hosts[strKey].m_Waiting.push_back(aRequest);
    Settle_i(strKey);
    return rv == CM_ERROR_WOULD_BLOCK ? CM_OK : rv;
}

// CM_ERROR_WOULD_BLOCK: there is no room. The user is told last, since it may do anything, to this pool too: a host is looked
// up anew after whatever may have removed it.
CmResult CHttpClientPool::Serve_i(const CCmString& aKey, const CHttpConnectionRequest& aRequest) {
    while (!m_Hosts[aKey].m_Unused.empty()) {
        const Connection pConnection(m_Hosts[aKey].m_Unused.back());
        if (pConnection->GetRest() >= aRequest.m_llMaxRest)
            break;  // the others have rested longer
        if (!pConnection->IsFit()) {
            pConnection->Close(CM_OK);
            continue;
        }
        Use_i(*pConnection);
        pConnection->Lend(*aRequest.m_pUser);
        aRequest.m_pUser->OnConnectionReady(*pConnection, TRUE);
        return CM_OK;
    }
    if (m_Hosts[aKey].m_Connections.size() >= m_Limits.m_dwMaxPerHost) {
        if (m_Hosts[aKey].m_Unused.empty())
            return CM_ERROR_WOULD_BLOCK;
        Connection(m_Hosts[aKey].m_Unused.front())->Close(CM_OK);
    }
    const Connection pConnection(new (std::nothrow) CHttpClientConnection(*this, aKey, *aRequest.m_pUser));
    if (!pConnection)
        return CM_ERROR_OUT_OF_MEMORY;
    m_Hosts[aKey].m_Connections.push_back(pConnection);
    const CmResult rv = pConnection->Connect(aRequest.m_strHost, aRequest.m_wPort, aRequest.m_dwTimeoutMs);
    if (rv != CM_OK)
        pConnection->Close(CM_OK);
    return rv;
}

void CHttpClientPool::Cancel(IHttpConnectionUser& aUser) {
    std::vector<Connection> connections;
    for (auto& [strKey, host] : m_Hosts) {
        std::erase_if(host.m_Waiting, [&](const CHttpConnectionRequest& aRequest) { return aRequest.m_pUser == &aUser; });
        for (const Connection& pConnection : host.m_Connections) {
            if (pConnection->GetUser() == &aUser)
                connections.push_back(pConnection);
        }
    }
    for (const Connection& pConnection : connections)
        pConnection->Close(CM_ERROR_NETWORK_SOCKET_CLOSE);
    std::erase_if(m_Hosts, [](const auto& aItem) { return aItem.second.IsEmpty(); });
}

void CHttpClientPool::SetLimits(const CCmHttpPoolLimits& aLimits) {
    m_Limits = aLimits;
    std::vector<CCmString> keys;
    for (const auto& [strKey, host] : m_Hosts)
        keys.push_back(strKey);
    for (const CCmString& strKey : keys)
        Settle_i(strKey);
}

void CHttpClientPool::TakeBack(CHttpClientConnection& aConnection) {
    aConnection.Park(CCmClock::GetTimeOfDayUsec() + int64_t{m_Limits.m_dwIdleTimeout} * 1000);
    m_Hosts[aConnection.GetKey()].m_Unused.push_back(&aConnection);
    m_Unused.push_back(&aConnection);
    Settle_i(aConnection.GetKey());
}

void CHttpClientPool::Forget(CHttpClientConnection& aConnection) {
    const Connection pKept(&aConnection);
    Use_i(aConnection);
    std::erase(m_Hosts[aConnection.GetKey()].m_Connections, pKept);
    Settle_i(aConnection.GetKey());
}

void CHttpClientPool::Use_i(CHttpClientConnection& aConnection) {
    std::erase(m_Unused, &aConnection);
    std::erase(m_Hosts[aConnection.GetKey()].m_Unused, &aConnection);
}

// After each change at a host: who waits gets what there is, outside the calls that made room; otherwise what is beyond the
// limits is closed.
void CHttpClientPool::Settle_i(const CCmString& aKey) {
    CHost& host = m_Hosts[aKey];
    if (host.m_Waiting.empty()) {
        if (host.m_Unused.size() > m_Limits.m_dwMaxIdlePerHost)
            Connection(host.m_Unused.front())->Close(CM_OK);  // comes here again
        else if (m_Unused.size() > m_Limits.m_dwMaxIdle)
            Connection(m_Unused.front())->Close(CM_OK);
        else if (host.m_Connections.empty())
            m_Hosts.erase(aKey);
        return;
    }
    const BOOL bRoom = !host.m_Unused.empty() || host.m_Connections.size() < m_Limits.m_dwMaxPerHost;
    if (bRoom && !m_bServing) {
        m_bServing = TRUE;
        m_Timer.Schedule(this, CCmTimeValue::s_tvZero, 1);
    }
}

void CHttpClientPool::OnTimer(CCmTimerWrapperID*) {
    m_bServing = FALSE;
    std::vector<CCmString> keys;
    for (const auto& [strKey, host] : m_Hosts) {
        if (!host.m_Waiting.empty())
            keys.push_back(strKey);
    }
    for (const CCmString& strKey : keys) {
        while (ServeFirst_i(strKey))
            continue;
        Settle_i(strKey);
    }
}

// FALSE: nobody waits any more, or there is no room.
BOOL CHttpClientPool::ServeFirst_i(const CCmString& aKey) {
    std::deque<CHttpConnectionRequest>& waiting = m_Hosts[aKey].m_Waiting;
    if (waiting.empty())
        return FALSE;
    const CHttpConnectionRequest request = waiting.front();
    waiting.pop_front();
    const CmResult rv = Serve_i(aKey, request);
    if (rv == CM_ERROR_WOULD_BLOCK)
        m_Hosts[aKey].m_Waiting.push_front(request);
    else if (rv != CM_OK)
        request.m_pUser->OnConnectionFailed(rv);
    return rv != CM_ERROR_WOULD_BLOCK;
}

}  // namespace talvo
