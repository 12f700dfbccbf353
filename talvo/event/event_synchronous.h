// Carries a sent event to another thread and its result back.
#pragma once

#include <atomic>

#include "talvo/base/synchronization.h"
#include "talvo/event/event_queue.h"

// The sender creates it, posts it to the owner's queue and waits for it. The queue and the sender both hold it; the last to
// release it deletes it, so that neither uses freed memory, however the queue ends. If the event never ran, the sender gets
// CM_ERROR_NOT_AVAILABLE.
class TALVO_API CCmEventSynchronous final : public ICmEvent {
public:
    // Takes over aEvent, and destroys it in the owner's thread or in the thread where the queue refuses or drops this object.
    explicit CCmEventSynchronous(ICmEvent* aEvent) : m_pEventWrapped(aEvent) {}

    // Owner's thread: runs the wrapped event, stores its result and signals the sender. CM_ERROR_NULL_POINTER: there is none.
    CmResult OnEventFire() override;
    // Releases the queue's hold.
    void OnDestorySelf() override;

    // Sender's thread, once, even if the post was refused: waits without limit for the result, then releases the sender's hold.
    CmResult WaitResultAndDeleteThis();

private:
    ~CCmEventSynchronous() override = default;
    void LetGo();

    ICmEvent* m_pEventWrapped;  // owned until OnDestorySelf destroys it
    CmResult m_Result = CM_ERROR_NOT_AVAILABLE;
    CCmEventThread m_SendEvent;
    std::atomic<int> m_nHolders{2};
};
