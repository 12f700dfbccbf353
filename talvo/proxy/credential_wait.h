// A request's wait for an answer of the user.
#pragma once

#include "talvo/event/event_queue.h"
#include "talvo/event/thread_link.h"
#include "talvo/event/timer_wrapper_id.h"
#include "talvo/transport/proxy_credentials.h"

namespace talvo {

class CCredentialDesk;

// Belongs to the thread of its request. The desk's mutex guards the members marked *. Until it is answered, the desk's list
// owns the object; then the event queue of the thread does, so that an answer needs no memory.
class CCredentialWait final : public ICmEvent, private CCmTimerWrapperIDSink {
public:
    CCredentialWait(CCredentialDesk& aDesk, ICmProxyCredentialsSink& aSink, CCmThreadLink& aLink, DWORD aQuestion)
        : m_Desk(aDesk), m_pLink(&aLink), m_pSink(&aSink), m_dwQuestion(aQuestion) {}

    // The thread has no timer queue: CM_ERROR_NULL_POINTER. CM_ERROR_OUT_OF_MEMORY.
    CmResult StartTimer(int64_t aUsec);

    CCmThreadLink& GetLink() const { return *m_pLink; }

    CmResult OnEventFire() override;
    void OnDestorySelf() override;

    // Not the memory of events: it may live for minutes.
    static void* operator new(size_t aSize) { return ::operator new(aSize); }
    static void operator delete(void* aMemory) { ::operator delete(aMemory); }

private:
    friend class CCredentialDesk;

    void OnTimer(CCmTimerWrapperID* aId) override;

    CCredentialDesk& m_Desk;
    const CCmRefPtrT<CCmThreadLink> m_pLink;
    ICmProxyCredentialsSink* m_pSink;  // * not owned; null: cancelled
    const DWORD m_dwQuestion;
    BOOL m_bAnswered = FALSE;  // *
    CmResult m_Result = CM_OK;
    CCmCredentials m_Credentials;
    CCredentialWait* m_pNext = nullptr;  // in a list of answered ones that are not posted yet
    CCmTimerWrapperID m_Timer;
};

}  // namespace talvo
