// Decides the stages of a graceful end.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/event/orderly_end.h"

namespace talvo {

//            no request is left           nothing is left
//   FINISH -------------------> CLOSE ---------------------> NONE     CM_OK, after a loss CM_ERROR_NETWORK_SOCKET_ERROR
//      |                          |
//      +------ the time is over --+------------------------> CUT      CM_ERROR_TIMEOUT
//
// Independent of threads and timers. The times are those of CCmClock::GetTimeOfDayUsec.
class TALVO_API CDrainRule {
public:
    explicit CDrainRule(int64_t aDeadlineUsec) : m_llDeadlineUsec(aDeadlineUsec) {}

    ECmDrainStage GetStage() const { return m_Stage; }
    BOOL IsOver() const { return m_Stage == ECmDrainStage::NONE || m_Stage == ECmDrainStage::CUT; }
    // aLeft: the unfinished work at the end.
    CmResult GetResult(const CCmUndrained& aLeft) const {
        if (m_Stage != ECmDrainStage::NONE)
            return CM_ERROR_TIMEOUT;
        return aLeft.m_dwLost == 0 ? CM_OK : CM_ERROR_NETWORK_SOCKET_ERROR;
    }

    // The work left at aNowUsec. aAll: every thread has the stage and has answered.
    void OnLook(const CCmUndrained& aLeft, BOOL aAll, int64_t aNowUsec) {
        if (aAll && m_Stage == ECmDrainStage::CLOSE && aLeft.IsNothing())
            m_Stage = ECmDrainStage::NONE;
        else if (aNowUsec >= m_llDeadlineUsec)
            m_Stage = ECmDrainStage::CUT;
        else if (aAll && m_Stage == ECmDrainStage::FINISH && aLeft.m_dwRequests == 0)
            m_Stage = ECmDrainStage::CLOSE;
    }

private:
    const int64_t m_llDeadlineUsec;
    ECmDrainStage m_Stage = ECmDrainStage::FINISH;
};

}  // namespace talvo
