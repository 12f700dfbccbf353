// Carries a sent event across threads and its result back.
#pragma once

#include <atomic>

#include "talvo/base/synchronization.h"
#include "talvo/event/event_queue.h"

// Made by the sender, posted to the owner's queue, waited for by the sender. Two sides hold it, the queue and the sender; the
// one that lets go last deletes it, so neither ever touches freed memory, whichever way the queue ends. A sender whose event
// never ran gets CM_ERROR_NOT_AVAILABLE.
class TALVO_API CCmEventSynchronous final : public ICmEvent {
public:
    // aEvent belongs to this object; it is destroyed in the owner's thread, or wherever the queue refuses or drops this one.
    explicit CCmEventSynchronous(ICmEvent* aEvent) : m_pEventWrapped(aEvent) {}

    // Owner's thread: runs the wrapped event, keeps its result and lets the sender go on. CM_ERROR_NULL_POINTER without one.
    CmResult OnEventFire() override;
    // The queue lets go.
    void OnDestorySelf() override;

    // Sender's thread, once, also when the post was refused: waits without limit for the result, then lets go.
    CmResult WaitResultAndDeleteThis();

private:
    ~CCmEventSynchronous() override = default;
    void LetGo();

    ICmEvent* m_pEventWrapped;  // owned until it was destroyed by OnDestorySelf
    CmResult m_Result = CM_ERROR_NOT_AVAILABLE;
    CCmEventThread m_SendEvent;
    std::atomic<int> m_nHolders{2};
};
