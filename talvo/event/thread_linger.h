// A thread that stops and still has data to bring out.
#pragma once

#include <atomic>

#include "talvo/event/reactor.h"
#include "talvo/event/thread_link.h"

namespace talvo {

// How long a connection lingers after Disconnect(CM_OK): key "LingerSeconds" in section "Proxy", 30 s unless set.
TALVO_API CCmTimeValue GetLingerTime();

// Runs a reactor's loop on, in its thread and after it has returned, while tenants of the thread linger and the linger time is
// not over.
class CThreadLinger final : private ICmTimerHandler {
public:
    CThreadLinger(CCmThreadLink& aLink, ICmReactor& aReactor) : m_Link(aLink), m_Reactor(aReactor) {}
    ~CThreadLinger() override;

    // Runs the loop until all has run that was posted before: the end of a connection may be among it.
    void RunPosted();
    // Adds one to aLooks every 10 ms.
    void Run(std::atomic<DWORD>& aLooks);

private:
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;
    BOOL RunLoop_i(const CCmTimeValue& aTime);

    CCmThreadLink& m_Link;
    ICmReactor& m_Reactor;
    BOOL m_bScheduled = FALSE;
};

}  // namespace talvo
