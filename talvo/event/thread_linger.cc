#include "talvo/event/thread_linger.h"

#include "talvo/base/clock.h"
#include "talvo/base/config.h"
#include "talvo/base/trace.h"

namespace talvo {

namespace {

constexpr DWORD DEFAULT_LINGER_SECONDS = 30;
const CCmTimeValue LOOK(0, 10000);

}  // namespace

CCmTimeValue GetLingerTime() {
    return CCmTimeValue(static_cast<long>(get_uint32_param("Proxy", "LingerSeconds", DEFAULT_LINGER_SECONDS)));
}

CThreadLinger::~CThreadLinger() {
    if (m_bScheduled)
        m_Reactor.CancelTimer(this);
}

void CThreadLinger::OnTimeout(const CCmTimeValue&, void*) { m_Reactor.StopEventLoop(); }

// FALSE: the loop cannot run.
BOOL CThreadLinger::RunLoop_i(const CCmTimeValue& aTime) {
    const CmResult rv = m_Reactor.ScheduleTimer(this, nullptr, aTime, 1);
    m_bScheduled = rv == CM_OK || rv == CM_ERROR_FOUND;
    return m_bScheduled && m_Reactor.RunEventLoop() == CM_OK;
}

// Consumes a pending stop first, because it would end the second run too early.
void CThreadLinger::RunPosted() {
    ICmReactor& reactor = m_Reactor;
    if (RunLoop_i(CCmTimeValue::s_tvZero) && m_Link.Post([&reactor] { reactor.StopEventLoop(); }) == CM_OK)
        m_Reactor.RunEventLoop();
}

void CThreadLinger::Run(std::atomic<DWORD>& aLooks) {
    const CCmTimeValue tvTime = GetLingerTime();
    if (tvTime == CCmTimeValue::s_tvZero || m_Link.Drain(ECmDrainStage::NONE).m_dwLingering == 0)
        return;
    CM_INFO_TRACE_THIS("CThreadLinger::Run, connections linger. seconds=" << tvTime.GetSec());
    const int64_t llEndUsec = CCmClock::GetTimeOfDayUsec() + tvTime.GetTotalInUsec();
    while (m_Link.Drain(ECmDrainStage::LINGER).m_dwLingering > 0 && CCmClock::GetTimeOfDayUsec() < llEndUsec) {
        ++aLooks;
        if (!RunLoop_i(LOOK))
            return;
    }
}

}  // namespace talvo
