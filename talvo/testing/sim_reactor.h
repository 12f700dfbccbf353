// The reactor of a simulated thread.
#pragma once

#include "talvo/event/reactor_base.h"
#include "talvo/testing/sim_schedule.h"

namespace talvo {

class CSimCore;

// Runs timers and posted events in simulated time. Watches no handles: registering one is CM_ERROR_UNEXPECTED. Its loop is that
// of the simulation, so RunEventLoop works as usual. It ends after a stop, and with CM_ERROR_TIMEOUT when no event is left.
// Another thread may post.
class CSimReactor final : public CCmReactorBase {
public:
    // Neither is owned; both live until the reactor is closed.
    CSimReactor(CSimCore& aCore, CSimSchedule& aSchedule) : m_Core(aCore), m_Schedule(aSchedule) {}
    ~CSimReactor() override;

    // For the connectors and acceptors of a simulated thread.
    CSimCore& GetCore() { return m_Core; }

    CmResult RunEventLoop() override;
    CmResult StopEventLoop() override;
    CmResult NotifyHandler(ACmEventHandler*, long) override { return CM_OK; }  // the schedule checks for events itself

    // Runs a batch of posted events. FALSE: there was none.
    BOOL RunPosted();
    // Microseconds until a timer is due; CSimSchedule::NEVER without one.
    int64_t GetTimerWait();

protected:
    CmResult OnHandleRemoved(HANDLE) override { return CM_OK; }
    CmResult OnHandleRegister(HANDLE aFd, long aMask, ACmEventHandler* aEh) override;

private:
    CSimCore& m_Core;
    CSimSchedule& m_Schedule;
    std::atomic<BOOL> m_bStop{FALSE};
};

}  // namespace talvo
