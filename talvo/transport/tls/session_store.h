// The sessions that a client may resume.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <string>

#include "talvo/base/export.h"
#include "talvo/base/mutex.h"
#include "talvo/base/types.h"

struct ssl_session_st;

namespace talvo {

struct TALVO_API CFreeSslSession {
    void operator()(ssl_session_st* aSession) const;
};
using CSslSessionPtr = std::unique_ptr<ssl_session_st, CFreeSslSession>;

// By server: its name and port. Any thread.
class TALVO_API CSessionStore {
public:
    static constexpr size_t MOST_SERVERS = 1024;  // beyond that the one leaves that was used least recently
    static constexpr size_t MOST_SESSIONS = 4;    // of a server; the oldest leaves
    static constexpr long MOST_SECONDS = 7200;
    static constexpr size_t MOST_BYTES = 16384;  // ticket and certificates of a session; a larger one is not kept

    // A copy of aSession. aCertificates: the bytes of the peer's. Throws std::bad_alloc.
    void Keep(const std::string& aServer, ssl_session_st* aSession, size_t aCertificates);
    // The newest one of a version from aLowest to aHighest, for connections of the calling thread; null: none. One of TLS 1.3
    // leaves the store, since an observer could link a second use to the first. Throws std::bad_alloc.
    CSslSessionPtr Take(const std::string& aServer, int aLowest, int aHighest);
    // Forgets a session of TLS 1.2 that was taken: the server did not resume it.
    void Drop(const std::string& aServer, const ssl_session_st* aSession);

private:
    // The connections of a thread share a copy of a session of TLS 1.2. OpenSSL marks it when one of them fails, so the next
    // connection gets a fresh one.
    struct CEntry {
        CSslSessionPtr Lend();

        CSslSessionPtr m_pSession;
        int64_t m_llUntil;       // CCmClock::GetTimeOfDayUsec
        CSslSessionPtr m_pLent;  // null: none
        DWORD m_dwThread = 0;    // of m_pLent
    };
    struct CServer {
        std::deque<CEntry> m_Sessions;  // the newest first
        uint64_t m_ullUsed = 0;         // the number of the last use
    };
    void RemoveOldest_i() CM_REQUIRES(m_Mutex);

    CCmMutexThread m_Mutex;
    std::map<std::string, CServer> m_Servers CM_GUARDED_BY(m_Mutex);
    uint64_t m_ullUses CM_GUARDED_BY(m_Mutex) = 0;
};

}  // namespace talvo
