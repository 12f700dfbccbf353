// What the transports over a socket share.
#pragma once

#include "talvo/event/reactor.h"
#include "talvo/event/timer_delete.h"
#include "talvo/transport/drained_transport.h"
#include "talvo/transport/socket.h"

// Sink, reactor, the open sequence and the close path. Belongs to the thread of its reactor, as all its upcalls. The last
// release closes it and forgets the sink at once; the object itself is deleted by a timer, after the current call has returned.
class TALVO_API CCmTransportBase : public ACmEventHandler,
                                   public talvo::CDrainedTransport,
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

    CCmEnsureSingleThread m_Est;
    ICmReactor* const m_pReactor;  // not owned

private:
    void EndInOrder_i(BOOL aCut) override;

    ECmFailureCause m_Cause = CM_FAILURE_NONE;
    int m_nErrno = 0;
    const char* m_pText = nullptr;  // of a cause without errno
    const char* m_pVerb = nullptr;  // null: nothing has failed
};
