// A thread that the thread manager knows.
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

// Base of all threads. Made with new, started by Create, ended by Stop, waited for by Join, given up by Destory; these are
// called by the thread's owner, not by the thread itself. Nothing is ever done to a running thread by force. OnThreadInit and
// OnThreadRun must not throw, nor may what they call: an exception is traced and ends the process.
//
// Who owns the object: until Destory its maker. It is deleted when both its thread has ended and Destory was called, whichever
// comes last. So a thread that a Join has given up waiting for finds, whenever it comes back, everything it uses still there:
// its object, its reactor and its queues.
class TALVO_API ACmThread {
public:
    using TFlag = CCmThreadManager::TFlag;

    ACmThread();
    ACmThread(const ACmThread&) = delete;
    ACmThread& operator=(const ACmThread&) = delete;

    // Starts the thread (aType other than 0) or adopts the calling one (0, the main thread), and registers it under its type.
    // Returns after OnThreadInit; OnThreadRun begins when the thread is registered. aFlag 0 is taken as joinable.
    // CM_ERROR_ALREADY_INITIALIZED: created before. CM_ERROR_OUT_OF_MEMORY. CM_ERROR_INVALID_ARG: aType is -1.
    // CM_ERROR_UNEXPECTED: the system has no thread. CM_ERROR_FOUND: the type is taken; the thread was stopped and joined and
    // is the maker's to destroy.
    virtual CmResult Create(int aType, TFlag aFlag = CCmThreadManager::TF_JOINABLE);

    // Asks the thread to end; any thread, returns at once. CM_ERROR_NOT_IMPLEMENTED unless overridden.
    virtual CmResult Stop(CCmTimeValue* aTimeout = nullptr);

    virtual void OnThreadInit();     // runs first in the new thread; does nothing unless overridden
    virtual void OnThreadRun() = 0;  // the thread's body

    // What the thread offers; null unless overridden. The objects live as long as the thread's.
    virtual ICmReactor* GetReactor();
    virtual ICmEventQueue* GetEventQueue();
    virtual ICmTimerQueue* GetTimerQueue();

    // Use Destory for a thread that was created. Unregisters it if nobody has.
    virtual ~ACmThread();

    // aReason is traced. Unregisters, and deletes now or, if the thread still runs, when it ends. CM_OK, also for a thread that
    // runs and was given up before. CM_ERROR_NOT_AVAILABLE, and nothing is done: the main thread from inside a callback.
    CmResult Destory(CmResult aReason);

    // Waits at most 100 ms for the end of the thread; longer while it lingers, see Linger, as long as its loop turns at least
    // once a second. CM_OK. CM_ERROR_TIMEOUT: it runs on, detached, and is no longer waited for: shutting down never hangs on a
    // stuck thread. CM_ERROR_FAILURE: called by the thread itself, or nothing to wait for.
    CmResult Join();

    // There is no safe way to end a thread by force: this gives up waiting for it, as Join does after its time.
    CmResult Terminate();

    // The thread's own, when its loop has returned: runs the loop of its reactor on while connections linger that their users
    // have ended with CM_OK, for at most "LingerSeconds" (section "Proxy", 30; 0: no wait). All other connections end at once.
    void Linger();

    DWORD GetThreadId() const { return m_dwThreadId; }  // 0 until created
    int GetThreadType() const { return m_Type; }        // -1 until created

    // Whether a started thread has not come to its end, registered or given up. Any thread.
    static BOOL IsAnyRunning() { return s_nRunning > 0; }

    // The way to this thread for objects that may outlive it. Not before Create, which fails where there is no memory for it.
    CCmThreadLink& GetLink() const { return *m_pLink; }

protected:
    // The thread's loop is over: tenants let go, posts through the link are refused. Concrete classes call it at the end of
    // OnThreadRun, before they close their queues, and in their destructor.
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

    std::atomic<DWORD> m_dwThreadId{0};
    pthread_t m_Handle{};
    BOOL m_bHasHandle = FALSE;  // the system keeps the thread's end for a join
    int m_Type = -1;
    TFlag m_Flag = CCmThreadManager::TF_NONE;
    std::unique_ptr<CCmEventThread> m_pEventStart;  // while Create waits for the new thread
    CCmEventThread m_EventRun{TRUE};                // registered: OnThreadRun may begin
    CCmEventThread m_EventEnd{TRUE};                // OnThreadRun is over
    std::atomic<DWORD> m_dwLingerLooks{0};          // counts while it lingers: the thread is alive
    BOOL m_bRegistered = FALSE;
    std::atomic<BOOL> m_bDestoryed{FALSE};
    CCmAtomicOperationT<CCmMutexThread> m_LetGo;  // counts the end of the thread and Destory; 2 deletes
    CCmRefPtrT<CCmThreadLink> m_pLink;            // null: there was no memory
};
