// The base class of the threads that the thread manager registers.
#pragma once

#include <pthread.h>

#include <atomic>
#include <memory>

#include "talvo/base/atomic_operation.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/base/synchronization.h"
#include "talvo/event/reactor.h"
#include "talvo/event/thread_link.h"
#include "talvo/event/thread_manager.h"

// Base of all threads. The thread's owner, not the thread itself, creates it with new and calls Create, Stop, Join and Destory.
// A running thread is never ended by force. OnThreadInit and OnThreadRun, and the functions they call, must not throw: an
// exception is traced and ends the process.
//
// Ownership and deletion: the creator owns the object until Destory. The object is deleted when its thread has ended and
// Destory was called, whichever comes last. So if Join gives up, a thread that continues later still has its object, its
// reactor and its queues.
class TALVO_API ACmThread {
public:
    using TFlag = CCmThreadManager::TFlag;  // see CCmThreadManager

    ACmThread();
    ACmThread(const ACmThread&) = delete;
    ACmThread& operator=(const ACmThread&) = delete;

    // Starts the thread (aType is not 0) or adopts the calling one (0, the main thread), and registers it under its type.
    // Returns after OnThreadInit; OnThreadRun begins after the registration. An aFlag of 0 means joinable.
    // CM_ERROR_ALREADY_INITIALIZED: created before. CM_ERROR_OUT_OF_MEMORY. CM_ERROR_INVALID_ARG: aType is -1.
    // CM_ERROR_UNEXPECTED: the system has no thread. CM_ERROR_FOUND: the type is in use; the thread was stopped and joined, and
    // the creator must destroy it.
    virtual CmResult Create(int aType, TFlag aFlag = CCmThreadManager::TF_JOINABLE);

    // Asks the thread to end and returns at once. Any thread. The default returns CM_ERROR_NOT_IMPLEMENTED.
    virtual CmResult Stop(CCmTimeValue* aTimeout = nullptr);

    virtual void OnThreadInit();     // runs first in the new thread; the default does nothing
    virtual void OnThreadRun() = 0;  // the thread's body

    // The thread's reactor and queues; the defaults return null. They live as long as the thread's object.
    virtual ICmReactor* GetReactor();
    virtual ICmEventQueue* GetEventQueue();
    virtual ICmTimerQueue* GetTimerQueue();

    // Call Destory instead for a thread that was created. Unregisters the thread if it is still registered.
    virtual ~ACmThread();

    // Unregisters the thread, and deletes it now or, if it still runs, at its end. aReason is traced. CM_OK, also for a thread
    // that runs and for which Join gave up. CM_ERROR_NOT_AVAILABLE: the main thread inside a callback; nothing changes.
    CmResult Destory(CmResult aReason);
    CmResult Destroy(CmResult aReason) { return Destory(aReason); }  // the same under its right spelling

    // Waits at most 100 ms for the end of the thread. The wait is longer while the thread lingers (see Linger), as long as its
    // loop turns at least once a second. CM_OK. CM_ERROR_TIMEOUT: it runs on, detached, and cannot be joined any more: a stuck
    // thread never blocks the shut-down. CM_ERROR_FAILURE: called by the thread itself, or there is nothing to wait for.
    CmResult Join();

    // Detaches the thread, as Join does after its time-out: there is no safe way to end a thread by force.
    CmResult Terminate();

    // The thread itself calls it after its loop has returned. Runs its reactor's loop while connections linger that their users
    // have closed with CM_OK, for at most "LingerSeconds" (section "Proxy", 30; 0: no wait). Closes all other connections at
    // once.
    void Linger();

    CmDword GetThreadId() const { return m_dwThreadId; }  // 0 until created
    int GetThreadType() const { return m_Type; }          // -1 until created

    // TRUE: a started thread, registered or detached, has not ended. Any thread.
    static CmBool IsAnyRunning() { return s_nRunning > 0; }

    // The link to this thread for objects that may outlive it. Valid after Create, which fails if there is no memory for it.
    CCmThreadLink& GetLink() const { return *m_pLink; }

protected:
    // The thread's loop is over: its tenants leave, and the link refuses posts. A concrete class calls it at the end of
    // OnThreadRun, before it closes its queues, and in its destructor.
    void CloseLink() {
        if (m_pLink)
            m_pLink->Close();
    }

private:
    static void* ThreadProc(void* aThread);
    CmResult Start_i();
    void BindToCurrentThread_i();
    CmResult WaitForEnd_i();
    void StopWaiting_i();
    void LetGo_i();

    static std::atomic<int> s_nRunning;  // threads between their start and the end of OnThreadRun

    std::atomic<CmDword> m_dwThreadId{0};
    pthread_t m_Handle{};
    CmBool m_bHasHandle = CM_FALSE;  // the system keeps the ended thread for a join
    int m_Type = -1;
    TFlag m_Flag = CCmThreadManager::TF_NONE;
    std::unique_ptr<CCmEventThread> m_pEventStart;  // exists while Create waits for the new thread
    CCmEventThread m_EventRun{CM_TRUE};             // signalled after registration: OnThreadRun may begin
    CCmEventThread m_EventEnd{CM_TRUE};             // signalled after OnThreadRun
    std::atomic<CmDword> m_dwLingerLooks{0};        // increases while the thread lingers, as a sign of life
    CmBool m_bRegistered = CM_FALSE;
    std::atomic<CmBool> m_bDestoryed{CM_FALSE};
    CCmAtomicOperationT<CCmMutexThread> m_LetGo;  // counts the end of the thread and Destory; 2 deletes
    CCmRefPtrT<CCmThreadLink> m_pLink;            // null: memory ran out
};
