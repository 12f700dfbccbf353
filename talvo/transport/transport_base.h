// What the transports over a socket share.
#pragma once

#include "talvo/event/reactor.h"
#include "talvo/event/thread_link.h"
#include "talvo/event/timer_delete.h"
#include "talvo/transport/socket.h"
#include "talvo/transport/transport_interface.h"

// Sink, reactor, the open sequence and the close path. Belongs to the thread of its reactor, as all its upcalls. The last
// release closes it and forgets the sink at once; the object itself is deleted by a timer, after the current call has returned.
class TALVO_API CCmTransportBase : public ACmEventHandler,
                                   public ICmTransport,
                                   protected CCmThreadTenant,
                                   public CCmReferenceControlTimerDeleteT<CCmMutexNullSingleThread> {
public:
    // aReactor: of the owning thread; not owned, may die before this object.
    explicit CCmTransportBase(ICmReactor* aReactor) : m_pReactor(aReactor) {}

    DWORD AddReference() override { return CCmReferenceControlTimerDeleteT::AddReference(); }
    DWORD ReleaseReference() override { return CCmReferenceControlTimerDeleteT::ReleaseReference(); }

    CmResult OpenWithSink(ICmTransportSink* aSink) override;
    ICmTransportSink* GetSink() override { return m_pSink; }
    CmResult Disconnect(CmResult aReason) override;

    int OnClose(HANDLE aFd, long aMask) override;

    // Sets a socket's IP type-of-service byte to the DWORD at aTos. CM_ERROR_NETWORK_SOCKET_ERROR, traced.
    static CmResult SetTos2Socket(CCmSocketBase& aSocket, void* aTos);

protected:
    // Starts and ends the use of the socket. Close_t of a closed transport does nothing.
    virtual CmResult Open_t() = 0;
    virtual CmResult Close_t(CmResult aReason) = 0;

    void OnReferenceDestory() override;

    // Notes what ends the connection, for CM_OPT_TRANSPORT_LAST_FAILURE. The texts are literals. The first one counts.
    void NoteFailure_i(int aErrno, const char* aVerb);
    void NoteFailure_i(ECmFailureCause aCause, const char* aText, const char* aVerb);
    BOOL HasFailed_i() const { return m_pVerb != nullptr; }
    CCmFailure GetFailure_i(const CCmInetAddr& aPeer) const;

    // Takes the handler out of the reactor, if that still exists.
    void RemoveFromReactor_i();

    // CM_OPT_TRANSPORT_LAYERED. CM_OK.
    CmResult SetLayered_i(BOOL aLayered);
    BOOL IsLayered_i() const { return m_bLayered; }

    CCmEnsureSingleThread m_Est;
    ICmTransportSink* m_pSink = nullptr;  // not owned; set by OpenWithSink, cleared by Disconnect, OnClose and the last release
    ICmReactor* const m_pReactor;         // not owned

private:
    void OnThreadEnd() override {}
    void OnDrain(ECmDrainStage aStage) override;
    void AddUndrained(CCmUndrained& aLeft) override;

    BOOL m_bLayered = FALSE;  // a layer above ends it in order
    ECmFailureCause m_Cause = CM_FAILURE_NONE;
    int m_nErrno = 0;
    const char* m_pText = nullptr;  // of a cause without errno
    const char* m_pVerb = nullptr;  // null: nothing has failed
};
