#include "talvo/transport/bad_proxies.h"

#include <algorithm>

#include "talvo/base/clock.h"
#include "talvo/base/immortal.h"
#include "talvo/base/with_memory.h"

namespace talvo {

CBadProxies& CBadProxies::Instance() {
    static CImmortalT<CBadProxies> s_Instance;
    return *s_Instance;
}

std::vector<CCmProxyServer> CBadProxies::Order(const CCmProxyRoute& aRoute) {
    std::vector<CCmProxyServer> servers(aRoute.GetServers().begin(), aRoute.GetServers().end());
    if (m_stCount == 0)
        return servers;
    CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
    while (!m_Entries.empty() && m_Entries.front().m_llUntil <= CCmClock::GetTimeOfDayUsec())
        m_Entries.pop_front();
    m_stCount = m_Entries.size();
    std::vector<CCmProxyServer> ordered;
    for (const BOOL bBad : {FALSE, TRUE}) {
        for (const CCmProxyServer& server : servers) {
            if (IsBad_l(server) == bBad)
                ordered.push_back(server);
        }
    }
    return ordered;
}

void CBadProxies::Note(const CCmProxyServer& aServer) {
    if (!aServer.IsDirect())
        WithMemory([&] { Add_i(aServer); });
}

void CBadProxies::Add_i(const CCmProxyServer& aServer) {
    CEntry entry{aServer, CCmClock::GetTimeOfDayUsec() + USEC};
    entry.m_Server.SetCredentials("", "");
    CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
    Remove_l(aServer);
    m_Entries.push_back(std::move(entry));
    if (m_Entries.size() > MOST)
        m_Entries.pop_front();
    m_stCount = m_Entries.size();
}

void CBadProxies::Forgive(const CCmProxyServer& aServer) {
    if (m_stCount == 0)
        return;
    CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
    Remove_l(aServer);
}

void CBadProxies::Clear() {
    CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
    m_Entries.clear();
    m_stCount = 0;
}

BOOL CBadProxies::IsBad_l(const CCmProxyServer& aServer) const {
    return std::ranges::find(m_Entries, aServer, &CEntry::m_Server) != m_Entries.end();
}

void CBadProxies::Remove_l(const CCmProxyServer& aServer) {
    std::erase_if(m_Entries, [&](const CEntry& a) { return a.m_Server == aServer; });
    m_stCount = m_Entries.size();
}

}  // namespace talvo
