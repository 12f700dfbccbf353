// The core of the transport thread proxy.
#pragma once

#include <atomic>

#include "talvo/event/timer_queue.h"
#include "talvo/transport/frame_sink.h"
#include "talvo/transport/reconnect_sink.h"
#include "talvo/transport/thread_proxy/guarded_addr.h"
#include "talvo/transport/thread_proxy/proxy_core.h"
#include "talvo/transport/thread_proxy/proxy_lane.h"
#include "talvo/transport/thread_proxy/proxy_notices.h"
#include "talvo/transport/thread_proxy/proxy_queues.h"
#include "talvo/transport/transport_interface.h"

namespace talvo {

//  user's thread                     this object                        network thread
//
//  SendData ------ keep -----> [send queue, bytes bounded] -- drain --> transport.SendData
//  OnReceive <--- upcall ----- [receive queue, bytes bounded] <-------- transport's OnReceive
//
// A queue stores a duplicate of its data or, for a small message of a protocol connection, a copy.
//
// Each direction has one event. It is posted when its queue gets data and no such event is in flight: a burst costs one
// wake-up. After a refusal in the network thread, or by a full queue, OnSend follows when half of the data has drained.
//
// A lane, one of three, decides the form of a drained batch: joined bytes, datagrams or messages.
//
// A protocol connection is opened in the network thread as soon as the proxy is made, because without a sink it loses received
// data. Its data and its end stay in the receive queue until the user has opened the proxy.
//
// Network side: hosted while it holds the transport. Leaving ends it: Disconnect, the peer's close, the thread's end. A
// Disconnect(CM_OK) with unsent or unacknowledged bytes lingers first, for a bounded time, without a sink, and drops received
// data.
// The suspensions of a reliable connection come to the user's reconnect sink at their places between the received chunks.
class TALVO_API CTransportProxyCore final : public CProxyCore,
                                            public ICmTransportSink,
                                            public IFrameSink,
                                            public ICmReconnectSink,
                                            public ICmTimerHandler {
public:
    // In the network thread, which keeps aTransport. aType: the connection type.
    CTransportProxyCore(ICmTransport* aTransport, CCmThreadLink& aUser, CCmThreadLink& aNetwork, CmDword aType);
    ~CTransportProxyCore() override;

    // The same thread, when the handle holds this object: from now on the transport may call.
    void Start(ICmTransport* aProxy);

    // The proxy's operations, see ICmTransport and CCmTransportThreadProxy.
    CmResult OpenWithSink(ICmTransportSink* aSink);
    ICmTransportSink* GetSink() const { return m_pSink; }
    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara);
    CmResult SetOption(CmDword aCommand, void* aArg);
    CmResult GetOption(CmDword aCommand, void* aArg);
    CmResult Disconnect(CmResult aReason);
    void Abandon() override;

    // From the transport, in the network thread.
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnFrames(const char* aFrames, CmDword aLength, CmDword aCount) override;
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;

    void OnSuspended(ICmTransport* aTrptId, CmResult aReason) override;
    void OnResumed(ICmTransport* aTrptId, CmDword aMilliseconds) override;

    void OnThreadEnd() override;
    void OnDrain(ECmDrainStage aStage) override;
    void AddUndrained(CCmUndrained& aLeft) override;
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;  // lingering: complete, or timed out

private:
    // User's thread.
    void Upcall();
    CmBool Deliver_i();
    void TellNotices_i();
    void PauseReading_i(CmBool aPause);
    // Either thread.
    CmResult Enqueue_i(CCmMessageBlock& aData, CCmTransportParameter* aPara);
    CmResult PostUpcall_i() { return m_UpcallEvent.Post(GetUser()); }
    void PostApplyReading_i() { m_ApplyReadingEvent.Post(GetNetwork()); }
    CmResult GetKept_i(CmDword aCommand, void* aArg) const;
    // Network thread.
    void ReadAddresses_i();
    void Moved_i(uint64_t aBytes);
    void Open_i();
    CmResult SetSender_i(ICmTransportSink* aSender);
    CmResult StartSender_i();
    void EndSender_i(CmResult aReason);
    void Received_i(CmResult aPushed, CmDword aBytes, CmDword aChunks, CmBool aStop);
    void AddNotice_i(CProxyNotice aNotice);
    void Notify_i();
    void Drain();
    void EndSending_i();
    CmResult SendWaiting_i();
    CmBool TakeBatch_i();
    void Cork_i(CmBool aCork);
    void ReportSent_i();
    void ApplyReading_i();
    void Disconnect_i() { EndWith_i(m_DisconnectReason); }
    void EndWith_i(CmResult aReason);
    CmDword GetUnacknowledged_i();
    CmBool HasUnsent_i() { return !m_SendQueue.IsEmpty() || GetUnacknowledged_i() > 0; }
    void Linger_i();
    void EndInOrder_i();
    void NotifyLost_i(CmResult aReason, const CCmFailure& aFailure);
    void Lost_i(CmResult aReason, const CCmFailure& aFailure);
    void LostHere_i(CmResult aReason, const char* aText);
    void LetGo_i(CmResult aReason);
    CmResult SetInnerOption_i(CmDword aCommand, void* aArg);
    CmResult GetInnerOption_i(CmDword aCommand, void* aArg);

    // The stage of the end, for both threads. It never goes back.
    enum class ELife {
        ALIVE,
        SENDING_ENDED,  // by option 147: no more data can be sent
        CLOSED,         // the connection is lost, or the user's thread has ended
        OVER            // no more upcalls: the user has disconnected or got OnDisconnect
    };
    // Advances to aLife, unless already there or further. Returns the stage before.
    ELife Advance_i(ELife aLife);

    const CmDword m_dwType;
    CProxyLaneOf m_Lane;
    ICmTransport* m_pProxy = nullptr;  // the handle, for upcalls: exists while there is a sink

    std::atomic<ICmTransportSink*> m_pSink{nullptr};           // not owned; the user's
    std::atomic<ICmReconnectSink*> m_pReconnectSink{nullptr};  // likewise
    std::atomic<ELife> m_Life{ELife::ALIVE};
    std::atomic<CmBool> m_bPausedByUser{CM_FALSE};
    std::atomic<CmBool> m_bSenderStarted{CM_FALSE};
    std::atomic<CmBool> m_bLossAtOnce{CM_FALSE};  // a pause does not hold the end back
    std::atomic<CmBool> m_bOnSendDue{CM_FALSE};
    std::atomic<CmBool> m_bLost{CM_FALSE};  // m_LostReason is due, after all data
    CmResult m_LostReason = CM_OK;          // set before m_bLost
    CCmFailure m_Failure;                   // likewise
    // The connection's values when the proxy was made, or when it was last resumed.
    CGuardedAddr m_LocalAddr;
    CGuardedAddr m_PeerAddr;
    std::atomic<CmDword> m_dwTransportType{0};
    CmResult m_DisconnectReason = CM_OK;  // set before the event is posted
    CProxySendQueue m_SendQueue;
    CProxyReceiveQueue m_ReceiveQueue;
    CProxyNotices m_Notices;
    CEmbeddedEventT<CTransportProxyCore, &CTransportProxyCore::Drain> m_DrainEvent{*this};
    CEmbeddedEventT<CTransportProxyCore, &CTransportProxyCore::Upcall> m_UpcallEvent{*this};
    CEmbeddedEventT<CTransportProxyCore, &CTransportProxyCore::Notify_i> m_NotifyEvent{*this};
    CEmbeddedEventT<CTransportProxyCore, &CTransportProxyCore::EndSending_i> m_EndSendingEvent{*this};
    CEmbeddedEventT<CTransportProxyCore, &CTransportProxyCore::Disconnect_i> m_DisconnectEvent{*this};
    CEmbeddedEventT<CTransportProxyCore, &CTransportProxyCore::ApplyReading_i> m_ApplyReadingEvent{*this};

    // User's thread only.
    CMessageList m_Delivering;
    uint64_t m_ullDelivered = 0;  // chunks
    CmBool m_bToldSuspended = CM_FALSE;

    // Network thread only.
    CCmRefPtrT<ICmTransport> m_pTransport;
    ICmTransportSink* m_pSender = nullptr;  // not owned; sends in place of the user
    CProxyBatch m_Batch;
    CmBool m_bDraining = CM_FALSE;
    CmBool m_bRoomMeanwhile = CM_FALSE;  // an OnSend came while draining
    CmBool m_bOpened = CM_FALSE;
    uint64_t m_ullChunks = 0;                  // received
    uint64_t m_ullMoved = 0;                   // bytes since the socket's buffers were looked at
    CmBool m_bEndSending = CM_FALSE;           // due after the queued data
    CmBool m_bReadingPaused = CM_FALSE;        // the state last set in the transport
    ICmTimerQueue* m_pLingerTimers = nullptr;  // not owned; set when lingering: this thread's, which may be unregistered by now
    int64_t m_llLingerEndUsec = 0;
};

}  // namespace talvo
