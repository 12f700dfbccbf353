// A link to a thread that may end at any time.
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

// An object that lives in a thread and must release it when the thread ends. It joins and leaves in that thread only.
class TALVO_API CCmThreadTenant {
public:
    CCmThreadTenant() = default;
    CCmThreadTenant(const CCmThreadTenant&) = delete;
    CCmThreadTenant& operator=(const CCmThreadTenant&) = delete;

    // Called in the thread, after its loop and before its reactor and queues close. The tenant has left already.
    virtual void OnThreadEnd() = 0;

    // Called in the thread repeatedly during an orderly end, see ECmDrainStage. Each call does the work that is left; a tenant
    // that has ended ignores it. Any tenant may join, leave and be deleted inside.
    virtual void OnDrain(ECmDrainStage) {}
    // Adds the unfinished work of this tenant to the parameter (out).
    virtual void AddUndrained(CCmUndrained&) {}

protected:
    virtual ~CCmThreadTenant();  // leaves, if it has not left

    // Joins the calling thread, if it is one of the library's.
    void JoinCurrentThread();
    void LeaveThread();
    CmBool IsDraining() const;  // the joined thread is draining
    // The tenant's connection has failed with so many bytes in flight, and no sink is left to be notified. The drain under way
    // reports it, see CCmUndrained::m_dwLost. 0: nothing was lost.
    void CountLost(uint64_t aBytes);

private:
    friend class CCmThreadLink;
    CCmThreadLink* m_pLink = nullptr;  // not owned; null: joined to no thread
    CCmThreadTenant* m_pNext = nullptr;
    CCmThreadTenant** m_ppBack = nullptr;
};

// Every ACmThread has a link, which outlives it while references are held. It lets other threads post work even if the thread
// may have ended.
class TALVO_API CCmThreadLink : public CCmReferenceControlT<CCmMutexThread> {
public:
    explicit CCmThreadLink(ACmThread* aThread) : m_pThread(aThread) {}  // open until the thread ends

    // Posts to the thread's event queue; needs no memory. Any thread. CM_OK. CM_ERROR_INVALID_ARG: null.
    // CM_ERROR_ALREADY_INITIALIZED: the event is in a queue and stays there. CM_ERROR_NULL_POINTER: the thread has no event
    // queue. CM_ERROR_NOT_AVAILABLE: the thread has ended. In the last two cases the event was destroyed.
    CmResult PostEvent(ICmEvent* aEvent);

    // The same for work that is not urgent. Inside an event or a timer of the caller's own thread, it wakes a reactor's thread
    // only when the caller's batch of events, or all due timers, have run. The thread may run the event earlier, and does so at
    // its next tick.
    CmResult PostEventQuietly(ICmEvent* aEvent);

    // Makes the thread run the events that were posted quietly. Any thread.
    void WakeUp();

    // Posts and waits until the event has run and was destroyed; in the thread itself it runs at once. Returns the result of
    // OnEventFire. CM_ERROR_NOT_AVAILABLE: the thread ended before it ran. CM_ERROR_INVALID_ARG and
    // CM_ERROR_ALREADY_INITIALIZED as PostEvent. Wakes the thread and needs no memory. Do not call it in a network thread for
    // another thread.
    CmResult CallEvent(ICmEvent* aEvent);

    // The same for a callable without parameters that returns a CmResult. It runs at most once, before Call returns.
    template <class Callable>
    CmResult Call(Callable aCallable) {
        if (IsCurrentThread())
            return aCallable();
        CWaitedEventT<Callable> event(aCallable);
        PostEvent(&event);
        return event.Wait();
    }

    // Posts a callable without parameters and result; results as PostEvent. If the thread ends first, the callable is destroyed
    // and does not run. The same happens without memory: CM_ERROR_OUT_OF_MEMORY.
    template <class Callable>
    CmResult Post(Callable aCallable) {
        auto run = [callable = std::move(aCallable)]() mutable {
            callable();
            return CM_OK;
        };
        auto* pEvent = new (std::nothrow) CCallEventT<decltype(run)>(std::move(run));
        return pEvent ? PostEvent(pEvent) : CM_ERROR_OUT_OF_MEMORY;
    }

    // TRUE: the caller is the thread, and the link is open.
    CmBool IsCurrentThread() const;

    // Binds the link to the calling thread. Called by the thread classes.
    void BindToCurrentThread();

    // For the thread itself, see CCmThreadTenant. Join: CM_OK. CM_ERROR_ALREADY_INITIALIZED: the tenant has joined a link and
    // not left it. CM_ERROR_NOT_AVAILABLE: the thread has ended; the tenant has not joined and gets no notice. Leave does
    // nothing for a tenant that has not joined.
    CmResult Join(CCmThreadTenant& aTenant);
    void Leave(CCmThreadTenant& aTenant);

    // For the thread itself. Notifies its tenants of the stage and adds up their unfinished work: after the notices, but at CUT
    // before. NONE adds the lost work, too, and then clears it.
    CCmUndrained Drain(ECmDrainStage aStage);
    ECmDrainStage GetDrainStage() const { return m_DrainStage; }  // of the drain under way

    // Any thread, at the end of a drain: the thread drains with CUT if aCut, and then with NONE. Needs no memory.
    void EndDrain(CmBool aCut);

    // The thread's end: notifies the tenants, then refuses posts and waits for those under way. Called by the thread classes.
    void Close();

private:
    friend class CCmThreadTenant;

    template <class Callable>
    class CCallEventT final : public ICmEvent {
    public:
        explicit CCallEventT(Callable&& aCallable) : m_Callable(std::move(aCallable)) {}
        CmResult OnEventFire() override { return m_Callable(); }

    private:
        Callable m_Callable;
    };

    // An object on the stack of a caller that waits until it has run.
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

    class CEndOfDrain final : public ICmEvent {
    public:
        explicit CEndOfDrain(CCmThreadLink& aLink) : m_Link(aLink) {}
        void Post();
        CmResult OnEventFire() override;
        void OnDestorySelf() override { m_Link.ReleaseReference(); }  // each post holds one

    private:
        CCmThreadLink& m_Link;
    };

    CmBool Enter_i();
    void Exit_i();
    template <class Poster>
    CmResult Post_i(ICmEvent* aEvent, Poster aPoster);
    template <class Visit>
    void ForEachTenant_i(Visit aVisit);
    CCmUndrained GetUndrained_i();

    ACmThread* const m_pThread;  // not owned; valid while a post is under way or the link is open
    std::atomic<CmDword> m_dwThreadId{0};
    std::atomic<uint32_t> m_dwPosts{0};  // the number of posts under way, and CLOSED
    CCmThreadTenant* m_pTenants = nullptr;
    CCmThreadTenant* m_pNextVisited = nullptr;  // of the current walk
    ECmDrainStage m_DrainStage = ECmDrainStage::NONE;
    CCmUndrained m_Lost;  // in the drain under way
    CEndOfDrain m_EndOfDrain{*this};
    std::atomic<CmDword> m_dwEndsOfDrain{0};  // requested and not yet run
    std::atomic<CmBool> m_bCut{CM_FALSE};
};
