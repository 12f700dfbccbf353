#include "talvo/http/client/http_client_pool.h"

#include <algorithm>
#include <new>

#include "talvo/base/clock.h"
#include "talvo/base/live_counter.h"
#include "talvo/event/thread.h"
#include "talvo/http/message/http_memory.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CHttpClientPool");

thread_local CHttpClientPool* s_pPool = nullptr;

}  // namespace

CHttpClientPool::CHttpClientPool() { ++s_Live; }

CHttpClientPool::~CHttpClientPool() { --s_Live; }

CHttpClientPool* CHttpClientPool::FindOfThisThread() { return s_pPool; }

CmResult CHttpClientPool::OfThisThread(CHttpClientPool*& aPool) {
    aPool = s_pPool;
    if (s_pPool)
        return CM_OK;
    ACmThread* pThread = CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_CURRENT);
    if (!pThread || !pThread->GetEventQueue() || !pThread->GetTimerQueue())
        return CM_ERROR_NULL_POINTER;
    auto* pPool = new (std::nothrow) CHttpClientPool;
    if (!pPool)
        return CM_ERROR_OUT_OF_MEMORY;
    if (pThread->GetLink().Join(*pPool) != CM_OK) {
        delete pPool;
        return CM_ERROR_NULL_POINTER;
    }
    aPool = s_pPool = pPool;
    return CM_OK;
}

// A user with a connection keeps it, and its transport reports the end. A waiting user gets no call, because its loop has
// ended.
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

void CHttpClientPool::OnDrain(ECmDrainStage aStage) {
    const BOOL bCut = aStage == ECmDrainStage::CUT;
    if (!bCut && aStage != ECmDrainStage::FINISH && aStage != ECmDrainStage::CLOSE)
        return;
    while (!m_Unused.empty())
        Connection(m_Unused.front())->Close(CM_OK);
    if (bCut)
        WithMemory([this] { CutAll_i(); });
}

void CHttpClientPool::AddUndrained(CCmUndrained& aLeft) {
    for (const auto& [strKey, host] : m_Hosts)
        aLeft.m_dwRequests += static_cast<DWORD>(host.m_Waiting.size() + host.m_Connections.size() - host.m_Unused.size());
}

// A user that is notified may do anything, also to this pool. So it is removed before, and the next is looked up again.
void CHttpClientPool::CutAll_i() {
    while (!m_Hosts.empty()) {
        CHost& host = m_Hosts.begin()->second;
        if (!host.m_Waiting.empty()) {
            IHttpConnectionUser* pUser = host.m_Waiting.front().m_pUser;
            host.m_Waiting.pop_front();
            pUser->OnConnectionFailed(CM_ERROR_NETWORK_SOCKET_CLOSE, CCmFailure());
        } else if (!host.m_Connections.empty()) {
            Connection(host.m_Connections.back())->Cut(CM_ERROR_NETWORK_SOCKET_CLOSE);
        } else {
            m_Hosts.erase(m_Hosts.begin());
        }
    }
}

CmResult CHttpClientPool::Acquire(const CHttpConnectionRequest& aRequest) {
    const CCmString strKey = aRequest.m_To.MakeKey();
    const BOOL bNobodyWaits = m_Hosts[strKey].m_Waiting.empty();
    CmResult rv = bNobodyWaits ? Serve_i(strKey, aRequest) : CM_ERROR_WOULD_BLOCK;
    if (rv == CM_ERROR_WOULD_BLOCK)
        rv = Wait_i(strKey, aRequest);
    Settle_i(strKey);
    return rv;
}

CmResult CHttpClientPool::Wait_i(const CCmString& aKey, const CHttpConnectionRequest& aRequest) {
    const CmResult rv = m_LookTimer.Schedule(this, CCmTimeValue(1), 0);
    if (rv == CM_OK || rv == CM_ERROR_FOUND)
        m_Hosts[aKey].m_Waiting.push_back(aRequest);
    return rv == CM_ERROR_FOUND ? CM_OK : rv;
}

// CM_ERROR_WOULD_BLOCK: the limits leave no room. The user is notified last, because it may do anything, also to this pool: a
// host is looked up again after each call that may have removed it.
CmResult CHttpClientPool::Serve_i(const CCmString& aKey, const CHttpConnectionRequest& aRequest) {
    const CmResult rv = ServeUnused_i(aKey, aRequest);
    if (rv != CM_ERROR_WOULD_BLOCK)
        return rv;
    CHost& host = m_Hosts[aKey];
    if (!HasRoom_i(host))
        return rv;
    if (host.m_Connections.size() >= m_Limits.m_dwMaxPerHost)
        Connection(host.m_Unused.front())->Close(CM_OK);
    return ServeNew_i(aKey, aRequest);
}

// CM_ERROR_WOULD_BLOCK: no unused connection is suitable.
CmResult CHttpClientPool::ServeUnused_i(const CCmString& aKey, const CHttpConnectionRequest& aRequest) {
    while (!m_Hosts[aKey].m_Unused.empty()) {
        const Connection pConnection(m_Hosts[aKey].m_Unused.back());
        if (pConnection->GetRest() >= aRequest.m_llMaxRest)
            break;  // the others have been idle longer
        if (!pConnection->IsFit()) {
            pConnection->Close(CM_OK);
            continue;
        }
        Use_i(*pConnection);
        pConnection->Lend(*aRequest.m_pUser);
        aRequest.m_pUser->OnConnectionReady(*pConnection, TRUE);
        return CM_OK;
    }
    return CM_ERROR_WOULD_BLOCK;
}

// Room is reserved in advance: neither a release nor a return of a connection needs memory.
CmResult CHttpClientPool::ServeNew_i(const CCmString& aKey, const CHttpConnectionRequest& aRequest) {
    CHost& host = m_Hosts[aKey];
    host.m_Connections.reserve(host.m_Connections.size() + 1);
    host.m_Unused.reserve(host.m_Connections.size() + 1);
    m_Unused.reserve(m_stConnections + 1);
    const Connection pConnection(new CHttpClientConnection(*this, aKey, *aRequest.m_pUser));
    host.m_Connections.push_back(pConnection);
    ++m_stConnections;
    const CmResult rv = ResultWithMemory([&] { return pConnection->Connect(aRequest); });
    if (rv != CM_OK)
        pConnection->Close(CM_OK);
    return rv;
}

void CHttpClientPool::Cancel(IHttpConnectionUser& aUser) {
    for (auto itHost = m_Hosts.begin(); itHost != m_Hosts.end();) {
        CHost& host = itHost->second;
        host.m_Waiting.remove_if([&](const CHttpConnectionRequest& aRequest) { return aRequest.m_pUser == &aUser; });
        const auto itOwn = std::find_if(host.m_Connections.begin(), host.m_Connections.end(),
                                        [&](const Connection& aConnection) { return aConnection->GetUser() == &aUser; });
        if (itOwn != host.m_Connections.end()) {
            Connection(*itOwn)->Close(CM_ERROR_NETWORK_SOCKET_CLOSE);  // may remove the host
            itHost = m_Hosts.begin();
        } else {
            itHost = host.IsEmpty() ? m_Hosts.erase(itHost) : std::next(itHost);
        }
    }
}

void CHttpClientPool::SetLimits(const CCmHttpPoolLimits& aLimits) {
    m_Limits = aLimits;
    for (auto itHost = m_Hosts.begin(); itHost != m_Hosts.end();) {
        if (CloseSurplus_i(itHost->second))
            itHost = m_Hosts.begin();
        else
            ++itHost;
    }
    ServeSoon_i();
}

void CHttpClientPool::TakeBack(CHttpClientConnection& aConnection) {
    const auto itHost = m_Hosts.find(aConnection.GetKey());
    itHost->second.m_Unused.push_back(&aConnection);
    m_Unused.push_back(&aConnection);
    if (!aConnection.Park(CCmClock::GetTimeOfDayUsec() + int64_t{m_Limits.m_dwIdleTimeout} * 1000))
        aConnection.Close(CM_OK);
    else
        Settle_i(aConnection.GetKey());
}

void CHttpClientPool::Forget(CHttpClientConnection& aConnection) {
    const Connection pKept(&aConnection);
    Use_i(aConnection);
    const auto itHost = m_Hosts.find(aConnection.GetKey());
    if (itHost != m_Hosts.end())
        m_stConnections -= std::erase(itHost->second.m_Connections, pKept);
    Settle_i(aConnection.GetKey());
}

void CHttpClientPool::Use_i(CHttpClientConnection& aConnection) {
    std::erase(m_Unused, &aConnection);
    const auto itHost = m_Hosts.find(aConnection.GetKey());
    if (itHost != m_Hosts.end())
        std::erase(itHost->second.m_Unused, &aConnection);
}

// After each change at a host: waiting users get free connections, outside the calls that freed them; else connections beyond
// the limits are closed.
void CHttpClientPool::Settle_i(const CCmString& aKey) {
    const auto itHost = m_Hosts.find(aKey);
    if (itHost == m_Hosts.end() || CloseSurplus_i(itHost->second))
        return;
    if (itHost->second.IsEmpty())
        m_Hosts.erase(itHost);
    else if (!itHost->second.m_Waiting.empty() && HasRoom_i(itHost->second))
        ServeSoon_i();
}

// TRUE: closed one, which has called Settle_i again.
BOOL CHttpClientPool::CloseSurplus_i(CHost& aHost) {
    if (!aHost.m_Waiting.empty())
        return FALSE;
    CHttpClientConnection* pSurplus = nullptr;
    if (aHost.m_Unused.size() > m_Limits.m_dwMaxIdlePerHost)
        pSurplus = aHost.m_Unused.front();
    else if (m_Unused.size() > m_Limits.m_dwMaxIdle)
        pSurplus = m_Unused.front();
    if (pSurplus)
        Connection(pSurplus)->Close(CM_OK);
    return pSurplus != nullptr;
}

BOOL CHttpClientPool::HasRoom_i(const CHost& aHost) const {
    return !aHost.m_Unused.empty() || aHost.m_Connections.size() < m_Limits.m_dwMaxPerHost;
}

void CHttpClientPool::ServeSoon_i() {
    if (m_bServing)
        return;
    const CmResult rv = m_Timer.Schedule(this, CCmTimeValue::s_tvZero, 1);
    m_bServing = rv == CM_OK || rv == CM_ERROR_FOUND;
}

void CHttpClientPool::OnTimer(CCmTimerWrapperID*) {
    m_bServing = FALSE;
    for (auto itHost = FindServable_i(); itHost != m_Hosts.end(); itHost = FindServable_i())
        ServeFirst_i(itHost);
    const BOOL bWaiting =
        std::any_of(m_Hosts.begin(), m_Hosts.end(), [](const auto& a) { return !a.second.m_Waiting.empty(); });
    if (!bWaiting)
        m_LookTimer.Cancel();
}

CHttpClientPool::Hosts::iterator CHttpClientPool::FindServable_i() {
    return std::find_if(m_Hosts.begin(), m_Hosts.end(),
                        [this](const auto& aHost) { return !aHost.second.m_Waiting.empty() && HasRoom_i(aHost.second); });
}

// The request is removed from the list before its user is notified. If memory runs out, the request fails.
void CHttpClientPool::ServeFirst_i(Hosts::iterator aHost) {
    std::list<CHttpConnectionRequest> first;
    first.splice(first.begin(), aHost->second.m_Waiting, aHost->second.m_Waiting.begin());
    const CmResult rv = ResultWithMemory([&] {
        const CCmString strKey = aHost->first;
        const CmResult served = Serve_i(strKey, first.front());
        if (served == CM_ERROR_WOULD_BLOCK) {
            std::list<CHttpConnectionRequest>& waiting = m_Hosts[strKey].m_Waiting;
            waiting.splice(waiting.begin(), first);
        }
        Settle_i(strKey);
        return served;
    });
    if (rv != CM_OK && !first.empty())
        first.front().m_pUser->OnConnectionFailed(rv, CCmFailure());
}

}  // namespace talvo
