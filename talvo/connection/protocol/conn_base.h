// The common part of protocol connections: a sink above, a transport below, and a status.
#pragma once

#include "talvo/base/ensure_single_thread.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/connection/protocol/conn_owner.h"
#include "talvo/event/timer_delete.h"
#include "talvo/transport/drained_transport.h"
#include "talvo/transport/frame_sink.h"

// A protocol connection is a transport for the upper layer, over another transport. It belongs to the network thread, as do all
// its upcalls. The last release ends it as Disconnect(CM_OK) does. A timer deletes the object, after the current call has
// returned.
class TALVO_API CConnBase : public talvo::CDrainedTransport, public CCmReferenceControlTimerDeleteT<CCmMutexNullSingleThread> {
public:
    // The status of a connection.
    enum : CmWord {
        CS_STATUS_NOT_CONNECTED = 1,  // at first, and after the end
        CS_STATUS_HANDSHAKE = 2,
        CS_STATUS_CONNECTED = 3,    // data flows in this status only
        CS_STATUS_RECONNECTING = 4  // reliable connections only
    };

    CmDword AddReference() override { return CCmReferenceControlTimerDeleteT::AddReference(); }
    CmDword ReleaseReference() override { return CCmReferenceControlTimerDeleteT::ReleaseReference(); }

    // CM_ERROR_INVALID_ARG: aSink is null. CM_ERROR_NOT_AVAILABLE: the connection has ended, or was never opened.
    CmResult OpenWithSink(ICmTransportSink* aSink) override;
    ICmTransportSink* GetSink() override { return m_pSink; }
    CmBool IsOfThisThread() const override { return m_Est.IsCurrentThread(); }

    // The transport below; this connection ends it gracefully and keeps a reference.
    void SetTPTransport(ICmTransport* aTransport);
    ICmTransport* GetTPTransport() const { return m_pTransport.Get(); }

    // The only function that changes the status. Traces the change. A change that the diagram does not have is traced as an
    // error and refused, and debug builds abort.
    //
    //   NOT_CONNECTED --> HANDSHAKE --> CONNECTED --> RECONNECTING
    //         |                            ^  ^            |
    //         +----------------------------+  +------------+      and from each back to NOT_CONNECTED
    void SetCurrStatus(CmWord aStatus);

    CmWord GetCurrStatus() const { return m_wStatus; }  // one of CS_STATUS_...
    // The server's number of the connection, 0: none.
    void SetChannel(CmWord aChannel) { m_wChannel = aChannel; }
    CmWord GetChannel() const { return m_wChannel; }
    CmByte GetConnType() const { return m_byConnType; }  // the kind of connection on the wire

    // The connector or acceptor that made it; not owned. Null: no more reports to it.
    void SetConnConnector(talvo::CConnOwner* aConnector) { m_pOwner = aConnector; }
    void SetConnAcceptor(talvo::CConnOwner* aAcceptor) { m_pOwner = aAcceptor; }

protected:
    CConnBase() = default;

    void OnReferenceDestory() override;

    // The opening has ended: reports this to the owner, if there still is one, and detaches it. Call it last: the sink may do
    // anything.
    void Indicate_i(CmResult aReason);

    // The connection has ended: detaches the sink, then notifies it. Call it last.
    void NotifyEnd_i(CmResult aReason);

    // Ends the use of the transport below, if there is one, and keeps the pointer. Returns the transport's result.
    CmResult DisconnectTransport_i(CmResult aReason);

    // Stores a failure of the peer that this end found, for CM_OPT_TRANSPORT_LAST_FAILURE; aText is a literal. The first
    // counts.
    void NoteFailure_i(ECmFailureCause aCause, const char* aText);

    // As IFramedSending::SetFrameSink.
    void SetFrameSink_i(talvo::IFrameSink* aSink) { m_pFrameSink = aSink; }
    // Null: the sink takes messages only, or there is none.
    talvo::IFrameSink* GetFrameSink_i() const { return m_pSink ? m_pFrameSink : nullptr; }

    // Values of the transport below; CM_ERROR_NOT_AVAILABLE without one. The addresses, the type and the last failure are also
    // available after the end.
    CmResult SetTransportOption_i(CmDword aCommand, void* aArg);
    CmResult GetTransportOption_i(CmDword aCommand, void* aArg);

    CCmRefPtrT<ICmTransport> m_pTransport;
    talvo::CConnOwner* m_pOwner = nullptr;  // not owned; set until the opening has ended
    CCmEnsureSingleThread m_Est;
    CmWord m_wStatus = CS_STATUS_NOT_CONNECTED;
    CmWord m_wChannel = 0;
    CmByte m_byConnType = 15;

private:
    void EndInOrder_i(CmBool aCut) override;
    CmResult GetKeptOption_i(CmDword aCommand, void* aArg);

    talvo::IFrameSink* m_pFrameSink = nullptr;  // not owned; of m_pSink
    bool m_bReleased = false;
    ECmFailureCause m_Cause = CM_FAILURE_NONE;
    const char* m_pFailureText = nullptr;
    CCmRefPtrT<ICmTransport> m_pEnded;  // the transport below until the end; only for options
};
