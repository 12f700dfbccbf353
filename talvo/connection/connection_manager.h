// Where an application gets its connectors and acceptors.
#pragma once

#include "talvo/base/clean_up.h"
#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/transport/transport_interface.h"

class ACmThread;

// The process-wide factory. It makes sure that the network thread exists and wraps what it makes in a thread proxy when the
// caller is another thread, so that an application is called back in its own. Any thread that has an event queue may call: the
// main thread, and those of CCmThreadManager::CreateUserTaskThread and CreateReactorThread.
class TALVO_API CCmConnectionManager : public CCmCleanUpBase {
public:
    // A connection type is a base type in the low 16 bits and flags.
    enum CType : DWORD {
        CTYPE_TCP = 0x1,
        CTYPE_UDP = 0x2,
        CTYPE_FORCE_THREAD_PROXY = 0x20000,  // a proxy even in the network thread
        CTYPE_SEND_NO_PARTIAL_DATA = 0x00100000,
        CTYPE_PDU_LENGTH = 0x08000000,
        CTYPE_PDU_PACKAGE = 0x10000000,
        CTYPE_PDU_KEEPALIVE = 0x20000000,
        CTYPE_PDU_RELIABLE = 0x70000000
    };
    using CPriority = ECmTransportPriority;

    // Created by the first call, together with the network thread (in the thread manager's other mode the main thread serves as
    // that, and must have been adopted). Null: there is no network thread; the trace says why.
    static CCmConnectionManager* Instance();
    // Destroys the instance. The network thread, if it was spawned and still exists, is stopped, joined and destroyed. From the
    // main thread, when nobody uses the instance any more. Proxies that the application still holds may be used and released
    // afterwards: their operations then fail as documented.
    static void CleanupInstance();

    // A new connector or acceptor with one reference for the caller, null on failure.
    // CM_ERROR_INVALID_ARG: no such base type. CM_ERROR_FAILURE: flags that name no connection. CM_ERROR_NOT_IMPLEMENTED: a
    // type that is not offered yet (today all but CTYPE_TCP and CTYPE_UDP). CM_ERROR_NULL_POINTER: the calling thread has no
    // event queue, or the network thread is gone.
    // CM_ERROR_OUT_OF_MEMORY.
    CmResult CreateConnectionClient(DWORD aType, ICmConnector*& aConnector);
    CmResult CreateConnectionServer(DWORD aType, ICmAcceptor*& aAcceptor);
    CmResult CreateDetectionConnectionClient(ICmDetectionConnector*& aConnector);  // CM_ERROR_NOT_IMPLEMENTED today

    // The same without a proxy: in the network thread only, which is also the thread of all upcalls.
    CmResult CreateConnectionClient_i(DWORD aType, ICmConnector*& aConnector);
    CmResult CreateConnectionServer_i(DWORD aType, ICmAcceptor*& aAcceptor);

private:
    CCmConnectionManager() = default;
    ~CCmConnectionManager() override;
    void CleanUp() override;

    CmResult SpawnNetworkThread_i();

    ACmThread* m_pThreadNetwork = nullptr;  // owned if spawned here; null in the main-thread mode
};
