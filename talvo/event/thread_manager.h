// The registry of the library's threads, and the starting point of an application.
#pragma once

#include <atomic>
#include <functional>
#include <vector>

#include "talvo/base/clean_up.h"
#include "talvo/base/export.h"
#include "talvo/base/mutex.h"
#include "talvo/base/result.h"
#include "talvo/base/time_value.h"

class ACmThread;
class CCmThreadLink;
class ICmEventQueue;
class ICmReactor;
class ICmTimerQueue;

// Life of an application, all from its main thread:
//
//    CCmThreadManager::Instance()->InitMainThread(argc, argv);       before any other thread of the library
//    ... CCmConnectionManager::Instance() starts the network thread; user threads come and go ...
//    GetThread(TT_MAIN)->OnThreadRun(), or the reactor's RunEventLoop, for as long as the application lives
//    CCmConnectionManager::Instance()->Drain(nullptr), which ends all connections in order
//    StopAllThreads(nullptr); JoinAllThreads(); CCmConnectionManager::CleanupInstance(), which ends the network thread;
//    then Destory of each thread that the application made, the main thread last
//
// A process may also simply exit at any point: running threads keep everything they use until the process ends. Any thread may
// call, unless a function excludes it.
class TALVO_API CCmThreadManager {
public:
    // Thread types, with one thread each. User types begin above 1000.
    enum TType : int {
        TT_UNKNOWN = -1,
        TT_MAIN = 0,     // the application's main thread, adopted
        TT_NETWORK = 1,  // the thread of the sockets
        TT_CURRENT = 3   // not a type: the registered thread that calls
    };

    // How a thread is ended.
    enum TFlag : int {
        TF_NONE = 0,      // means TF_JOINABLE
        TF_JOINABLE = 1,  // the owner calls Join and then Destory
        TF_DETACHED = 2   // no Join
    };

    // The thread that serves as the network thread.
    enum ENetworkThreadMode {
        NETWORK_THREAD_OWN,  // a thread of its own (the default)
        NETWORK_THREAD_MAIN  // the main thread: it must run its reactor's loop, and GetThread(TT_NETWORK) returns it
    };

    // The first call creates it. Never null.
    static CCmThreadManager* Instance();

    // At process exit: destroys the instance and the objects on the clean-up list. Does nothing while a thread is still
    // registered, or while a thread that Join has given up on still runs.
    static void CleanupOnlyOne();

    // Adopts the calling thread as the main thread, with an open reactor; without memory for one, with an event queue and
    // timers only. aArgc and aArgv are the program's arguments; they are ignored. CM_ERROR_ALREADY_INITIALIZED: a thread is
    // registered already. Other failures: the reactor could not be opened.
    CmResult InitMainThread(int aArgc, char** aArgv);

    // For an object that owns the life of the main thread, an application for example: one at a time in the process, in all its
    // shared objects. CM_OK: the caller is the owner until it calls ReleaseMainThread. CM_ERROR_ALREADY_INITIALIZED: there is
    // an owner.
    static CmResult ClaimMainThread();
    static void ReleaseMainThread();

    // Sets the mode, before the connection manager's first Instance. Without this call the configuration key "NetworkThread" in
    // section "Thread" ("own" or "main") sets it. CM_ERROR_ALREADY_INITIALIZED: there is a network thread.
    CmResult SetNetworkThreadMode(ENetworkThreadMode aMode);
    ENetworkThreadMode GetNetworkThreadMode();  // the mode that is or will be used

    // Creates a closed reactor of the network thread's kind, which the caller owns. Null: out of memory.
    static ICmReactor* CreateNetworkReactor();

    // Starts a joinable thread (type 0: adopts the caller) that runs aReactor, and takes aReactor over with any result. aThread
    // (out): null on failure. CM_ERROR_INVALID_ARG: aReactor is null. CM_ERROR_OUT_OF_MEMORY. Otherwise as ACmThread::Create.
    CmResult CreateReactorThread(int aType, ICmReactor* aReactor, ACmThread*& aThread);

    // Starts a thread with an event queue and, if aWithTimerQueue, a timer queue. An aType of -1 takes the next user type.
    // aThread (out): null on failure. CM_ERROR_OUT_OF_MEMORY, or as ACmThread::Create.
    CmResult CreateUserTaskThread(ACmThread*& aThread, TFlag aFlag = TF_JOINABLE, CmBool aWithTimerQueue = CM_TRUE,
                                  int aType = TT_UNKNOWN);

    // The next free user type: 1001, 1002, ...
    int GetAndIncreamUserType();
    int GetAndIncreaseUserType() { return GetAndIncreamUserType(); }  // the same under its right spelling

    // Called by the threads themselves. CM_ERROR_FOUND: it, or another thread of its type, is registered already.
    // CM_ERROR_NOT_FOUND: it is not registered. CM_ERROR_INVALID_ARG: null. CM_ERROR_OUT_OF_MEMORY.
    CmResult RegisterThread(ACmThread* aThread);
    CmResult UnregisterThread(ACmThread* aThread);

    // The registered thread of that type, or its reactor or queues; null if there is none. The pointers are valid as long as
    // the thread: an object that may outlive it holds its CCmThreadLink instead.
    ACmThread* GetThread(int aType);
    ICmReactor* GetThreadReactor(int aType);
    ICmEventQueue* GetThreadEventQueue(int aType);
    ICmTimerQueue* GetThreadTimerQueue(int aType);

    // Calls aVisit for the link of each registered thread, with the registry locked: aVisit may post and must not call the
    // manager.
    void ForEachLink(const std::function<void(CCmThreadLink&)>& aVisit);

    // Stops every thread but the main one, or waits for each: at most 100 ms, longer while it lingers, see ACmThread::Join. If
    // the main thread is the network thread, JoinAllThreads also lets it linger, which runs its loop. CM_OK. CM_ERROR_FAILURE:
    // a main thread is registered, and another thread calls. aTimeout is passed to ACmThread::Stop, whose classes here do not
    // wait.
    CmResult StopAllThreads(CCmTimeValue* aTimeout = nullptr);
    CmResult JoinAllThreads();

    // The socket library. Linux needs no start or release of it. A write to a closed connection raises no signal, also if the
    // application handles SIGPIPE. CM_OK.
    static CmResult SocketStartup();
    static CmResult SocketCleanup();

    // The system's identifiers of threads: that of the caller, and comparisons with it.
    static CmDword GetThreadSelfId();
    static CmBool IsThreadEqual(CmDword aLeft, CmDword aRight);
    static CmBool IsEqualCurrentThread(CmDword aId);
    static CmBool IsEqualCurrentThread(int aType);  // the caller is the registered thread of that type

    // For other singletons: locks for their creation and for the order of reference counts. The first is never destroyed.
    static CCmMutexThreadRecursive& GetSingletonMutex() { return CCmCleanUpBase::GetSingletonMutex(); }
    CCmMutexThread& GetReferenceControlMutex() { return m_ReferenceControlMutex; }

    CCmThreadManager(const CCmThreadManager&) = delete;
    CCmThreadManager& operator=(const CCmThreadManager&) = delete;

private:
    CCmThreadManager();
    ~CCmThreadManager();

    ACmThread* Find_l(int aType) CM_REQUIRES(m_Mutex);
    ACmThread* GetNextThread_i(const ACmThread* aThread, size_t& aIndex);
    template <class Function>
    CmResult CallThreads_i(Function aFunction);

    CCmMutexThread m_ReferenceControlMutex;
    std::vector<ACmThread*> m_Threads CM_GUARDED_BY(m_Mutex);  // in the order of registration, not owned
    CCmMutexThread m_Mutex;
    int m_LastUserType CM_GUARDED_BY(m_Mutex) = 1000;
    std::atomic<int> m_NetworkThreadMode{-1};  // -1: not set
};

// Puts the calling thread to sleep in real time, not on the replaceable clock. Milliseconds.
TALVO_API void ms_sleep(unsigned long aMilliSeconds);
