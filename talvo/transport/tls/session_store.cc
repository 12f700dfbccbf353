#include "talvo/transport/tls/session_store.h"

#include <openssl/ssl.h>

#include <algorithm>
#include <new>
#include <string_view>
#include <utility>

#include "talvo/base/clock.h"
#include "talvo/base/ensure_single_thread.h"

namespace talvo {

namespace {

// A copy, because OpenSSL changes a session while a connection uses it.
CSslSessionPtr CopyOf(SSL_SESSION* aSession) {
    CSslSessionPtr pCopy(SSL_SESSION_dup(aSession));
    if (!pCopy)
        throw std::bad_alloc();
    return pCopy;
}

// 0: it must not be kept.
long SecondsOf(const SSL_SESSION* aSession) {
    const auto ulHint = SSL_SESSION_get_ticket_lifetime_hint(aSession);
    if (ulHint == 0 && SSL_SESSION_get_protocol_version(aSession) < TLS1_3_VERSION)
        return CSessionStore::MOST_SECONDS;  // the server does not say (RFC 5077, 3.3)
    return static_cast<long>(std::min<unsigned long>(ulHint, CSessionStore::MOST_SECONDS));
}

size_t TicketSizeOf(const SSL_SESSION* aSession) {
    const unsigned char* pTicket = nullptr;
    size_t stSize = 0;
    SSL_SESSION_get0_ticket(aSession, &pTicket, &stSize);
    return stSize;
}

std::string_view IdOf(const SSL_SESSION* aSession) {
    unsigned uLength = 0;
    const auto* pId = reinterpret_cast<const char*>(SSL_SESSION_get_id(aSession, &uLength));
    return {pId, uLength};
}

}  // namespace

void CFreeSslSession::operator()(ssl_session_st* aSession) const { SSL_SESSION_free(aSession); }

void CSessionStore::Keep(const std::string& aServer, ssl_session_st* aSession, size_t aCertificates) {
    const long lSeconds = SecondsOf(aSession);
    if (lSeconds == 0 || TicketSizeOf(aSession) + aCertificates > MOST_BYTES || !SSL_SESSION_is_resumable(aSession))
        return;
    CEntry entry{CopyOf(aSession), CCmClock::GetTimeOfDayUsec() + int64_t{lSeconds} * 1000000, nullptr};
    const CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
    CServer& server = m_Servers[aServer];
    server.m_ullUsed = ++m_ullUses;
    server.m_Sessions.push_front(std::move(entry));
    if (server.m_Sessions.size() > MOST_SESSIONS)
        server.m_Sessions.pop_back();
    if (m_Servers.size() > MOST_SERVERS)
        RemoveOldest_i();
}

void CSessionStore::RemoveOldest_i() {
    m_Servers.erase(std::min_element(m_Servers.begin(), m_Servers.end(), [](const auto& aLeft, const auto& aRight) {
        return aLeft.second.m_ullUsed < aRight.second.m_ullUsed;
    }));
}

CSslSessionPtr CSessionStore::Take(const std::string& aServer, int aLowest, int aHighest) {
    const int64_t llNow = CCmClock::GetTimeOfDayUsec();
    const CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
    const auto itServer = m_Servers.find(aServer);
    if (itServer == m_Servers.end())
        return nullptr;
    itServer->second.m_ullUsed = ++m_ullUses;
    std::deque<CEntry>& sessions = itServer->second.m_Sessions;
    std::erase_if(sessions, [&](const CEntry& aEntry) { return aEntry.m_llUntil <= llNow; });
    const auto it = std::find_if(sessions.begin(), sessions.end(), [&](const CEntry& aEntry) {
        const int nVersion = SSL_SESSION_get_protocol_version(aEntry.m_pSession.get());
        return aLowest <= nVersion && nVersion <= aHighest;
    });
    if (it == sessions.end())
        return nullptr;
    if (SSL_SESSION_get_protocol_version(it->m_pSession.get()) < TLS1_3_VERSION)
        return it->Lend();
    CSslSessionPtr pSession = std::move(it->m_pSession);
    sessions.erase(it);
    return pSession;
}

CSslSessionPtr CSessionStore::CEntry::Lend() {
    const DWORD dwThread = cm_thread_self_id();
    if (!m_pLent || m_dwThread != dwThread || !SSL_SESSION_is_resumable(m_pLent.get()))
        m_pLent = CopyOf(m_pSession.get());
    m_dwThread = dwThread;
    SSL_SESSION_up_ref(m_pLent.get());
    return CSslSessionPtr(m_pLent.get());
}

void CSessionStore::Drop(const std::string& aServer, const ssl_session_st* aSession) {
    const CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
    const auto it = m_Servers.find(aServer);
    if (it == m_Servers.end())
        return;
    std::erase_if(it->second.m_Sessions, [&](const CEntry& aEntry) { return IdOf(aEntry.m_pSession.get()) == IdOf(aSession); });
}

}  // namespace talvo
