#include "talvo/event/home_reactor.h"

#include "talvo/base/immortal.h"

namespace talvo {

namespace {

// Stands in for a reactor that has ended.
class CEndedReactor final : public ICmReactor {
public:
    CmResult Open() override { return CM_ERROR_NOT_AVAILABLE; }
    CmResult Close() override { return CM_OK; }
    CmResult RegisterHandler(ACmEventHandler*, long) override { return CM_ERROR_NOT_INITIALIZED; }
    CmResult RemoveHandler(ACmEventHandler*, long) override { return CM_ERROR_NOT_INITIALIZED; }
    CmResult NotifyHandler(ACmEventHandler*, long) override { return CM_ERROR_NOT_INITIALIZED; }
    CmResult RunEventLoop() override { return CM_ERROR_NOT_INITIALIZED; }
    CmResult StopEventLoop() override { return CM_ERROR_NOT_INITIALIZED; }
    CmResult PostEvent(ICmEvent* aEvent, EPriority) override { return Refuse_i(aEvent); }
    CmResult SendEvent(ICmEvent* aEvent) override { return Refuse_i(aEvent); }
    DWORD GetPendingEventsCount() override { return 0; }
    CmResult ScheduleTimer(ICmTimerHandler*, void*, const CCmTimeValue&, unsigned long) override {
        return CM_ERROR_NOT_INITIALIZED;
    }
    CmResult CancelTimer(ICmTimerHandler*) override { return CM_ERROR_NOT_INITIALIZED; }

private:
    static CmResult Refuse_i(ICmEvent* aEvent) {
        if (!aEvent)
            return CM_ERROR_INVALID_ARG;
        aEvent->OnDestorySelf();
        return CM_ERROR_NOT_INITIALIZED;
    }
};

}  // namespace

ICmReactor* CHomeReactor::operator->() const {
    static CImmortalT<CEndedReactor> s_Ended;
    return IsAlive() ? m_pReactor : &*s_Ended;
}

}  // namespace talvo
