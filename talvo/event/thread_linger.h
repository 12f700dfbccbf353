// Lets a stopping thread send its remaining data.
#pragma once

#include <atomic>

#include "talvo/event/reactor.h"
#include "talvo/event/thread_link.h"

namespace talvo {

// The longest time that a connection lingers after Disconnect(CM_OK): key "LingerSeconds" in section "Proxy", default 30 s.
TALVO_API CCmTimeValue GetLingerTime();

// Runs a reactor's loop again, in its thread and after it has returned, while tenants of the thread linger and the linger time
// lasts.
class CThreadLinger final : private ICmTimerHandler {
public:
    CThreadLinger(CCmThreadLink& aLink, ICmReactor& aReactor) : m_Link(aLink), m_Reactor(aReactor) {}
    ~CThreadLinger() override;

    // Runs the loop until all events that were posted before have run: one of them may close a connection.
    void RunPosted();
    // Runs the loop and increments aLooks every 10 ms.
    void Run(std::atomic<DWORD>& aLooks);

private:
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;
    BOOL RunLoop_i(const CCmTimeValue& aTime);

    CCmThreadLink& m_Link;
    ICmReactor& m_Reactor;
    BOOL m_bScheduled = FALSE;
};

}  // namespace talvo
