// The proxy servers that could not be reached lately.
#pragma once

#include <atomic>
#include <deque>

#include "talvo/base/mutex.h"
#include "talvo/transport/proxy_route.h"

namespace talvo {

// Of the process; any thread.
class TALVO_API CBadProxies {
public:
    static constexpr size_t MOST = 256;  // beyond that the oldest is forgotten
    static constexpr int64_t USEC = 300000000;

    static CBadProxies& Instance();

    // The servers of aRoute in the order to try: those that could not be reached lately are last. Throws std::bad_alloc.
    std::vector<CCmProxyServer> Order(const CCmProxyRoute& aRoute);
    // aServer could not be reached. DIRECT is never remembered; nor is any server if memory runs out.
    void Note(const CCmProxyServer& aServer);
    // aServer has served.
    void Forgive(const CCmProxyServer& aServer);
    void Clear();

private:
    struct CEntry {
        CCmProxyServer m_Server;
        int64_t m_llUntil;  // CCmClock::GetTimeOfDayUsec
    };

    void Add_i(const CCmProxyServer& aServer);
    BOOL IsBad_l(const CCmProxyServer& aServer) const CM_REQUIRES(m_Mutex);
    void Remove_l(const CCmProxyServer& aServer) CM_REQUIRES(m_Mutex);

    CCmMutexThread m_Mutex;
    std::deque<CEntry> m_Entries CM_GUARDED_BY(m_Mutex);  // the oldest first
    std::atomic<size_t> m_stCount{0};                     // of entries: mostly there are none, and then no lock is taken
};

}  // namespace talvo
