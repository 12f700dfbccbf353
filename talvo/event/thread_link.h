// The way to a thread that may end at any time.
#pragma once

#include <atomic>
#include <new>
#include <utility>

#include "talvo/base/ref_ptr.h"
#include "talvo/base/reference_control.h"
#include "talvo/base/synchronization.h"
#include "talvo/event/event_queue.h"
#include "talvo/event/orderly_end.h"

class ACmThread;
class CCmThreadLink;

// Something that lives in a thread and has to let go of it when the thread ends. Joins and leaves in that thread only.
class TALVO_API CCmThreadTenant {
public:
    CCmThreadTenant() = default;
    CCmThreadTenant(const CCmThreadTenant&) = delete;
    CCmThreadTenant& operator=(const CCmThreadTenant&) = delete;

    // In the thread, after its loop and before its reactor and queues close. The tenant has left already.
    virtual void OnThreadEnd() = 0;

    // In the thread, while an orderly end is under way, see ECmDrainStage: again and again, so each call does what is left to
    // do and an ended tenant ignores it. Any tenant may join, leave and be deleted inside.
    virtual void OnDrain(ECmDrainStage) {}
    // Adds what this tenant has not finished.
    virtual void AddUndrained(CCmUndrained&) {}

protected:
    virtual ~CCmThreadTenant();  // leaves, if it has not

    // Joins the calling thread, if it is one of the library's.
    void JoinCurrentThread();
    void LeaveThread();
    BOOL IsDraining() const;  // the thread that it has joined is

private:
    friend class CCmThreadLink;
    CCmThreadLink* m_pLink = nullptr;  // not owned; null: joined to none
    CCmThreadTenant* m_pNext = nullptr;
    CCmThreadTenant** m_ppBack = nullptr;
};

// Every ACmThread has one, which outlives it as long as somebody holds it. Through it work is posted without knowing whether
// the thread is still there.
class TALVO_API CCmThreadLink : public CCmReferenceControlT<CCmMutexThread> {
public:
    explicit CCmThreadLink(ACmThread* aThread) : m_pThread(aThread) {}

    // Posts to the thread's event queue; needs no memory. Any thread. CM_OK; CM_ERROR_INVALID_ARG: null;
    // CM_ERROR_ALREADY_INITIALIZED: it waits in a queue, and goes on waiting; CM_ERROR_NULL_POINTER: the thread has no event
    // queue; CM_ERROR_NOT_AVAILABLE: it has ended. The event was destroyed in the last two cases.
    CmResult PostEvent(ICmEvent* aEvent);

    // The same for work without hurry. Called from inside an event of the caller's own thread it wakes the thread, if that is a
    // reactor's, when the events that the caller runs in one go are over; it may look earlier, and does at its next tick.
    CmResult PostEventQuietly(ICmEvent* aEvent);

    // Makes the thread look for what was posted quietly. Any thread.
    void WakeUp();

    // Posts and waits until the event has run and was destroyed; runs it at once when the caller is the thread itself. Returns
    // what OnEventFire returned, or CM_ERROR_NOT_AVAILABLE when the thread ended before it ran; CM_ERROR_INVALID_ARG and
    // CM_ERROR_ALREADY_INITIALIZED as PostEvent. Wakes the thread and needs no memory. Not to be called in a network thread for
    // another thread.
    CmResult CallEvent(ICmEvent* aEvent);

    // The same for a callable that takes nothing and returns a CmResult; it is run at most once, before Call returns.
    template <class Callable>
    CmResult Call(Callable aCallable) {
        if (IsCurrentThread())
            return aCallable();
        CWaitedEventT<Callable> event(aCallable);
        PostEvent(&event);
        return event.Wait();
    }

    // Posts a callable that takes and returns nothing; results as PostEvent. If the thread ends first it is destroyed unrun, as
    // it is when there is no memory: CM_ERROR_OUT_OF_MEMORY.
    template <class Callable>
    CmResult Post(Callable aCallable) {
        auto run = [callable = std::move(aCallable)]() mutable {
            callable();
            return CM_OK;
        };
        auto* pEvent = new (std::nothrow) CCallEventT<decltype(run)>(std::move(run));
        return pEvent ? PostEvent(pEvent) : CM_ERROR_OUT_OF_MEMORY;
    }

    // Whether the caller is the thread and it has not ended.
    BOOL IsCurrentThread() const;

    // The calling thread is the link's. Called by the thread classes.
    void BindToCurrentThread();

    // The thread's own, see CCmThreadTenant. Join: CM_OK; CM_ERROR_ALREADY_INITIALIZED: the tenant has joined a link before and
    // not left it; CM_ERROR_NOT_AVAILABLE: the thread has ended, the tenant has joined nothing and gets no notice. Leave
    // does nothing for a tenant that has not joined.
    CmResult Join(CCmThreadTenant& aTenant);
    void Leave(CCmThreadTenant& aTenant);

    // The thread's own. Tells its tenants the stage, and adds up what they have left: after that, but at CUT before.
    CCmUndrained Drain(ECmDrainStage aStage);
    ECmDrainStage GetDrainStage() const { return m_DrainStage; }

    // The thread's end: tells the tenants, then refuses posts and waits for those under way. Called by the thread classes.
    void Close();

private:
    template <class Callable>
    class CCallEventT final : public ICmEvent {
    public:
        explicit CCallEventT(Callable&& aCallable) : m_Callable(std::move(aCallable)) {}
        CmResult OnEventFire() override { return m_Callable(); }

    private:
        Callable m_Callable;
    };

    // Stands on the stack of a caller that waits for its end.
    template <class Callable>
    class CWaitedEventT final : public ICmEvent {
    public:
        explicit CWaitedEventT(Callable& aCallable) : m_Callable(aCallable) {}
        CmResult OnEventFire() override { return m_Result = m_Callable(); }
        void OnDestorySelf() override { m_Over.Signal(); }
        CmResult Wait() {
            m_Over.Wait();
            return m_Result;
        }

    private:
        Callable& m_Callable;
        CmResult m_Result = CM_ERROR_NOT_AVAILABLE;
        CCmEventThread m_Over;
    };

    BOOL Enter_i();
    void Exit_i();
    template <class Poster>
    CmResult Post_i(ICmEvent* aEvent, Poster aPoster);
    template <class Visit>
    void ForEachTenant_i(Visit aVisit);
    CCmUndrained GetUndrained_i();

    ACmThread* const m_pThread;  // not owned; alive while a post is under way or the link is open
    std::atomic<DWORD> m_dwThreadId{0};
    std::atomic<uint32_t> m_dwPosts{0};  // posts under way, and CLOSED
    CCmThreadTenant* m_pTenants = nullptr;
    CCmThreadTenant* m_pNextVisited = nullptr;  // of the walk under way
    ECmDrainStage m_DrainStage = ECmDrainStage::NONE;
};
