// The registry of the library's threads, and the first thing an application asks for.
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
// A process may also simply exit, from wherever it is: threads that still run keep what they use until the process is gone.
// Any thread may call, except where it says otherwise.
class TALVO_API CCmThreadManager {
public:
    // Thread types: one thread each. User types begin above 1000.
    enum TType : int {
        TT_UNKNOWN = -1,
        TT_MAIN = 0,     // the application's main thread, adopted
        TT_NETWORK = 1,  // where sockets live
        TT_CURRENT = 3   // no type, but the registered thread that is asking
    };

    enum TFlag : int {
        TF_NONE = 0,      // taken as TF_JOINABLE
        TF_JOINABLE = 1,  // the owner calls Join and then Destory
        TF_DETACHED = 2   // nobody joins
    };

    // Which thread serves as the network thread.
    enum ENetworkThreadMode {
        NETWORK_THREAD_OWN,  // a thread of its own (the default)
        NETWORK_THREAD_MAIN  // the main thread: it must run its reactor's loop, and GetThread(TT_NETWORK) answers with it
    };

    // Created by the first call; null never.
    static CCmThreadManager* Instance();

    // At process exit: destroys the instance and what is on the clean-up list. While a thread is still registered, or one that
    // a Join has given up on still runs, it leaves everything as it is, for that thread.
    static void CleanupOnlyOne();

    // Adopts the calling thread as the main thread, with a reactor that is open at once (without memory for one, with an event
    // queue and timers only). aArgc and aArgv are the program's arguments (not looked at). CM_ERROR_ALREADY_INITIALIZED: a
    // thread is registered already. Other failures: the reactor could not be opened.
    CmResult InitMainThread(int aArgc, char** aArgv);

    // Chooses the mode; before the connection manager's first Instance. The configuration key "NetworkThread" in section
    // "Thread" ("own" or "main") chooses where nobody has called this. CM_ERROR_ALREADY_INITIALIZED: there is a network thread.
    CmResult SetNetworkThreadMode(ENetworkThreadMode aMode);
    ENetworkThreadMode GetNetworkThreadMode();

    // A new, closed reactor of the kind the network thread runs; the caller's. Null: out of memory.
    static ICmReactor* CreateNetworkReactor();

    // Starts a joinable thread (type 0: adopts the caller) that runs aReactor, which belongs to it whatever the result.
    // CM_ERROR_INVALID_ARG: aReactor is null; CM_ERROR_OUT_OF_MEMORY; else as ACmThread::Create. aThread is null on failure.
    CmResult CreateReactorThread(int aType, ICmReactor* aReactor, ACmThread*& aThread);

    // Starts a thread with an event queue and, if aWithTimerQueue, a timer queue. An aType of -1 takes the next user type.
    // CM_ERROR_OUT_OF_MEMORY, or as ACmThread::Create. aThread is null on failure.
    CmResult CreateUserTaskThread(ACmThread*& aThread, TFlag aFlag = TF_JOINABLE, BOOL aWithTimerQueue = TRUE,
                                  int aType = TT_UNKNOWN);

    // The next free user type: 1001, 1002, ...
    int GetAndIncreamUserType();

    // Called by the threads themselves. CM_ERROR_FOUND: it, or another thread of its type, is registered already.
    // CM_ERROR_NOT_FOUND: it is not registered. CM_ERROR_INVALID_ARG: null. CM_ERROR_OUT_OF_MEMORY.
    CmResult RegisterThread(ACmThread* aThread);
    CmResult UnregisterThread(ACmThread* aThread);

    // The registered thread of that type, or what it offers; null if there is none. The pointers are good as long as the
    // thread is: an object that may outlive it holds its CCmThreadLink instead.
    ACmThread* GetThread(int aType);
    ICmReactor* GetThreadReactor(int aType);
    ICmEventQueue* GetThreadEventQueue(int aType);
    ICmTimerQueue* GetThreadTimerQueue(int aType);

    // The link of each registered thread, with the registry locked: aVisit may post and must not come back here.
    void ForEachLink(const std::function<void(CCmThreadLink&)>& aVisit);

    // Asks every thread but the main one to end, or waits for each (at most 100 ms, and while it lingers, see ACmThread::Join).
    // Where the main thread is the network thread, JoinAllThreads lets it linger too, which runs its loop. Only the main thread
    // may call when one is registered: CM_ERROR_FAILURE. Otherwise CM_OK. aTimeout is handed to ACmThread::Stop, whose classes
    // here do not wait.
    CmResult StopAllThreads(CCmTimeValue* aTimeout = nullptr);
    CmResult JoinAllThreads();

    // The socket library. Nothing has to be started or released on Linux; writing to a closed connection raises no signal,
    // whatever the application does about SIGPIPE. CM_OK.
    static CmResult SocketStartup();
    static CmResult SocketCleanup();

    static DWORD GetThreadSelfId();
    static BOOL IsThreadEqual(DWORD aLeft, DWORD aRight);
    static BOOL IsEqualCurrentThread(DWORD aId);
    static BOOL IsEqualCurrentThread(int aType);  // the registered thread of that type is the caller

    // Lent to other singletons for their creation, and for ordering reference counts. The first is never destroyed.
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
    std::vector<ACmThread*> m_Threads CM_GUARDED_BY(m_Mutex);  // in registration order, not owned
    CCmMutexThread m_Mutex;
    int m_LastUserType CM_GUARDED_BY(m_Mutex) = 1000;
    std::atomic<int> m_NetworkThreadMode{-1};  // -1: not chosen
};

// Lets the calling thread sleep, really: not on the replaceable clock. Milliseconds.
TALVO_API void ms_sleep(unsigned long aMilliSeconds);
