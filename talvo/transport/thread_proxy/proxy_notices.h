// The gaps of a reliable connection, on their way to the user's thread.
#pragma once

#include <atomic>
#include <vector>

#include "talvo/base/mutex.h"
#include "talvo/base/result.h"
#include "talvo/base/with_memory.h"

namespace talvo {

struct CProxyNotice {
    uint64_t m_ullAfter = 0;  // comes behind so many chunks
    CmBool m_bSuspended = CM_FALSE;
    CmResult m_Reason = CM_OK;     // of a suspension
    CmDword m_dwMilliseconds = 0;  // of a gap that has ended
};

// Notices in order, each with its place between the received chunks. A user that does not run gets one long gap instead of very
// many. Without memory a notice is lost. Any thread.
class CProxyNotices {
public:
    void Add(const CProxyNotice& aNotice) {
        CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        if (aNotice.m_bSuspended && m_Notices.size() >= MOST) {
            m_Notices.pop_back();  // the last gap goes on
            return;
        }
        Append(m_Notices, aNotice);
        m_bAny = !m_Notices.empty();
    }

    CmBool HasAny() const { return m_bAny; }

    // Takes the first one that is due behind so many chunks. FALSE: there is none. Costs next to nothing without notices.
    CmBool Take(uint64_t aChunks, CProxyNotice& aNotice) {
        if (!m_bAny)
            return CM_FALSE;
        CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        if (m_Notices.empty() || m_Notices.front().m_ullAfter > aChunks)
            return CM_FALSE;
        aNotice = m_Notices.front();
        m_Notices.erase(m_Notices.begin());
        m_bAny = !m_Notices.empty();
        return CM_TRUE;
    }

private:
    static void Append(std::vector<CProxyNotice>& aNotices, const CProxyNotice& aNotice) {
        WithMemory([&] { aNotices.push_back(aNotice); });
    }

    static constexpr size_t MOST = 64;  // even: the last of so many ends a gap

    CCmMutexThread m_Mutex;
    std::vector<CProxyNotice> m_Notices CM_GUARDED_BY(m_Mutex);  // takes no memory until a notice comes
    std::atomic<bool> m_bAny{false};
};

}  // namespace talvo
