// What every protocol connection has: a sink above, a transport below, and a status.
#pragma once

#include "talvo/base/ensure_single_thread.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/connection/protocol/conn_owner.h"
#include "talvo/event/timer_delete.h"
#include "talvo/transport/drained_transport.h"

// A protocol connection presents itself to the upper layer as a transport and lies over another one. It belongs to the network
// thread, as all its upcalls; the last release ends it as Disconnect(CM_OK) does, and the object is deleted by a timer, after
// the current call has returned.
class TALVO_API CConnBase : public talvo::CDrainedTransport, public CCmReferenceControlTimerDeleteT<CCmMutexNullSingleThread> {
public:
    enum : WORD {
        CS_STATUS_NOT_CONNECTED = 1,  // at first, and after the end
        CS_STATUS_HANDSHAKE = 2,
        CS_STATUS_CONNECTED = 3,    // only now data flows
        CS_STATUS_RECONNECTING = 4  // reliable connections only
    };

    DWORD AddReference() override { return CCmReferenceControlTimerDeleteT::AddReference(); }
    DWORD ReleaseReference() override { return CCmReferenceControlTimerDeleteT::ReleaseReference(); }

    // CM_ERROR_INVALID_ARG: aSink is null. CM_ERROR_NOT_AVAILABLE: the connection has ended, or was never opened.
    CmResult OpenWithSink(ICmTransportSink* aSink) override;
    ICmTransportSink* GetSink() override { return m_pSink; }

    // The transport below, which leaves its orderly end to this connection; keeps a reference.
    void SetTPTransport(ICmTransport* aTransport);
    ICmTransport* GetTPTransport() const { return m_pTransport.Get(); }

    // The one place where the status changes. Traces it; a change that the diagram does not have is traced as an error and
    // refused, and debug builds end there.
    //
    //   NOT_CONNECTED --> HANDSHAKE --> CONNECTED --> RECONNECTING
    //         |                            ^  ^            |
    //         +----------------------------+  +------------+      and from each back to NOT_CONNECTED
    void SetCurrStatus(WORD aStatus);
    WORD GetCurrStatus() const { return m_wStatus; }
    void SetChannel(WORD aChannel) { m_wChannel = aChannel; }
    WORD GetChannel() const { return m_wChannel; }
    BYTE GetConnType() const { return m_byConnType; }

    // Who made it, on the active and on the passive side; not owned. Null: it shall tell nobody any more.
    void SetConnConnector(talvo::CConnOwner* aConnector) { m_pOwner = aConnector; }
    void SetConnAcceptor(talvo::CConnOwner* aAcceptor) { m_pOwner = aAcceptor; }

protected:
    CConnBase() = default;

    void OnReferenceDestory() override;

    // The opening has ended: tells the owner, if there still is one, and forgets it. Comes last: the sink may do anything.
    void Indicate_i(CmResult aReason);

    // The connection has ended: forgets the sink, then tells it. Comes last.
    void TellEnd_i(CmResult aReason);

    // Ends the use of the transport below, if there is one, without forgetting it; the result of that.
    CmResult DisconnectTransport_i(CmResult aReason);

    // Notes what this end found wrong with the peer, for CM_OPT_TRANSPORT_LAST_FAILURE; aText is a literal. The first counts.
    void NoteFailure_i(ECmFailureCause aCause, const char* aText);

    // Answers of the transport below; CM_ERROR_NOT_AVAILABLE without one. The addresses, the type and the last failure can be
    // asked for after the end, too.
    CmResult SetTransportOption_i(DWORD aCommand, void* aArg);
    CmResult GetTransportOption_i(DWORD aCommand, void* aArg);

    CCmEnsureSingleThread m_Est;
    CCmRefPtrT<ICmTransport> m_pTransport;
    talvo::CConnOwner* m_pOwner = nullptr;  // not owned; set until the opening has ended
    WORD m_wStatus = CS_STATUS_NOT_CONNECTED;
    WORD m_wChannel = 0;
    BYTE m_byConnType = 15;

private:
    void EndInOrder_i(BOOL aCut) override;
    CmResult GetKeptOption_i(DWORD aCommand, void* aArg);

    CCmRefPtrT<ICmTransport> m_pEnded;  // was below until the connection ended; only asked
    const char* m_pFailureText = nullptr;
    ECmFailureCause m_Cause = CM_FAILURE_NONE;
    bool m_bReleased = false;
};
