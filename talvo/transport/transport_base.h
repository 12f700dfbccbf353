// The common part of transports over a socket.
#pragma once

#include "talvo/event/home_reactor.h"
#include "talvo/event/timer_delete.h"
#include "talvo/transport/drained_transport.h"
#include "talvo/transport/socket.h"

// Sink, reactor, the open sequence and the close path. Belongs to the thread of its reactor, as do all its upcalls. The last
// release does the same as Disconnect(CM_OK). A timer deletes the object, after the current call has returned. So a
// derived class may access its members after an upcall; m_pSink may be null then.
//
// A derived class reads in OnInput (one receive, at most of the read size, into GetNetworkBuffers) and reports room for sends
// in OnOutput; see ACmEventHandler for the results. Its SetOption and GetOption end with SetSocketOption_i and
// GetSocketOption_i. Its OnClose stores the failure with NoteFailure_i and calls this class's. Its destructor calls Close_t.
class TALVO_API CCmTransportBase : public ACmEventHandler,
                                   public talvo::CDrainedTransport,
                                   public CCmReferenceControlTimerDeleteT<CCmMutexNullSingleThread> {
public:
    // aReactor: of the owning thread; not owned, may be deleted before this object.
    explicit CCmTransportBase(ICmReactor* aReactor) : m_pReactor(aReactor) {}

    CmDword AddReference() override { return CCmReferenceControlTimerDeleteT::AddReference(); }
    CmDword ReleaseReference() override { return CCmReferenceControlTimerDeleteT::ReleaseReference(); }

    CmResult OpenWithSink(ICmTransportSink* aSink) override;
    ICmTransportSink* GetSink() override { return m_pSink; }
    CmResult Disconnect(CmResult aReason) override;
    // TRUE: the caller is the owning thread.
    CmBool IsOfThisThread() const override { return m_Est.IsCurrentThread(); }

    int OnClose(CmHandle aFd, long aMask) override;

    // Sets a socket's IP type-of-service byte to the CmDword at aTos; of an IPv6 socket also the traffic class.
    // CM_ERROR_NETWORK_SOCKET_ERROR, traced: the system refuses, or it is a Unix socket.
    static CmResult SetTos2Socket(CCmSocketBase& aSocket, void* aTos);

protected:
    // Starts and ends the use of the socket. Close_t of a closed transport does nothing.
    virtual CmResult Open_t() = 0;
    virtual CmResult Close_t(CmResult aReason) = 0;

    // The reason of OnDisconnect when the peer or a failure has ended the connection.
    virtual CmResult GetEndReason_i() const { return CM_ERROR_NETWORK_SOCKET_ERROR; }

    void OnReferenceDestory() override;

    // For the option tables: the socket's own options, and the refusal of unknown ones. aSocket null: no socket; aClass is the
    // transport's name in the trace.
    CmResult SetSocketOption_i(const char* aClass, CCmSocketBase* aSocket, CmDword aCommand, void* aArg);
    CmResult GetSocketOption_i(const char* aClass, CCmSocketBase* aSocket, CmDword aCommand, void* aArg);

    // A way in which connections fail. Failures are rare, so each connection has only a pointer to one.
    struct CWayToFail {
        ECmFailureCause m_Cause;
        const char* m_pText;  // null: that of the errno
        const char* m_pVerb;
    };
    static constexpr CWayToFail RECEIVING = {CM_FAILURE_SYSTEM, nullptr, "receive from"};
    static constexpr CWayToFail SENDING = {CM_FAILURE_SYSTEM, nullptr, "send to"};
    static constexpr CWayToFail EXCHANGING = {CM_FAILURE_SYSTEM, nullptr, "exchange datagrams with"};
    static constexpr CWayToFail SILENCE = {CM_FAILURE_SILENCE, "the peer has sent nothing for too long", "receive from"};

    // Stores the failure that ends the connection, for CM_OPT_TRANSPORT_LAST_FAILURE. The first one counts; a system failure
    // without an errno is ignored. aWay must stay valid.
    void NoteFailure_i(const CWayToFail& aWay, int aErrno = 0);
    CmBool HasFailed_i() const { return m_pFailure != nullptr; }
    int GetErrno_i() const { return m_nErrno; }  // of that failure; 0: the system has not failed
    CCmFailure GetFailure_i(const CCmInetAddr& aPeer) const;

    void RemoveFromReactor_i();

    const talvo::CHomeReactor m_pReactor;
    CCmEnsureSingleThread m_Est;

private:
    void EndInOrder_i(CmBool aCut) override;

    int m_nErrno = 0;
    const CWayToFail* m_pFailure = nullptr;  // null: no failure
};
