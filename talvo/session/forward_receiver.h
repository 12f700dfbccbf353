// A receiver of a forward session: a cursor and a transport.
#pragma once

#include <memory>

#include "talvo/base/ref_ptr.h"
#include "talvo/base/reference_control.h"
#include "talvo/connection/protocol/frame_queue.h"
#include "talvo/session/forward_chain.h"
#include "talvo/session/forward_cursor.h"
#include "talvo/transport/framed_sending.h"

namespace talvo {

class CForwardBatch;
class CForwardCore;

//                             user's sink    <-- OnReceive, OnDisconnect --.
//                                                                         |
//    log  --> [ cursor | chain of views ] -- SendFrames or SendData --> transport
//                  ^                                                      |
//                  '------------------- OnSend, OnDisconnect -------------'
//
// The sink of its transport, in place of the user's sink, to which it passes received data. With a thread proxy the proxy's
// core stays the sink, and passes on OnSend and the end. One thread.
class TALVO_API CForwardReceiver final : public ICmTransportSink, public CCmReferenceControlT<CCmMutexNullSingleThread> {
public:
    CForwardReceiver(CForwardCore& aCore, const CForwardLog& aLog, const CCmForwardReceiverOptions& aOptions, DWORD aId);
    ~CForwardReceiver() override;

    // Takes aTransport. Results as ICmForwardSession::AddReceiver.
    CmResult Attach(ICmTransport* aTransport);
    // Disconnects and releases the transport; once. CM_OK: after the message that it has begun. aEnded: it has ended already.
    void Detach(CmResult aReason, BOOL aEnded);

    DWORD GetId() const { return m_dwId; }
    CForwardCursor& GetCursor() { return m_Cursor; }
    const CForwardCursor& GetCursor() const { return m_Cursor; }
    const char* GetLabel() const { return m_pLabel ? m_pLabel->c_str() : ""; }
    // TRUE: it sends frames of its own, whose framing is aFraming (out).
    BOOL HasFraming(EForwardFraming& aFraming) const;
    // The longest message that its transport can take.
    DWORD GetMaxMessage() const;
    // FALSE: a message that it is due is longer.
    BOOL CanTakeAll(const CForwardLog& aLog) const;

    // OnJoin is over: it may be served.
    void Start();
    BOOL IsStarted() const { return m_bStarted; }
    // TRUE: its transport can take data.
    BOOL IsReady() const { return m_bStarted && !m_bRefused && !IsGone(); }

    // Sends messages of its backlog with one call. CM_OK: all of them, or the transport has refused and OnSend follows. Else
    // the receiver must go.
    CmResult Serve(const CForwardLog& aLog);

    // The end, and its reason. Set before the transport is released.
    void SetGone(CmResult aReason);
    BOOL IsGone() const { return m_bGone; }
    CmResult GetReason() const { return m_Reason; }

    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;

    CCmRefPtrT<CForwardReceiver> m_pNextNotice;  // the list of those with an upcall to come

private:
    enum EWay : BYTE { FRAMES /* its connection takes them */, STREAM /* it counts the bytes itself */, MESSAGES, DATAGRAMS };

    CmResult AttachProxy_i(ICmTransport* aTransport, ICmTransport* aInner);
    CmResult AttachDirect_i(ICmTransport* aTransport);
    void FindWay_i();
    EForwardFraming GetFraming_i() const;
    CmResult ServeBatch_i(const CForwardLog& aLog, const CForwardBatch& aBatch);
    CmResult ServePlain_i(const CForwardLog& aLog);
    CmResult ServeChosen_i(const CForwardLog& aLog);
    CmResult SendRange_i(const CForwardLog& aLog, CCmMessageBlock& aFrames, DWORD aCount);
    CmResult SendFrames_i(CCmMessageBlock& aFrames, const IFrameLengths& aLengths, DWORD& aTaken);
    CmResult ServeMessages_i(const CForwardLog& aLog);
    CmResult SendMessages_i(const CForwardLog& aLog);
    CmResult SendMessage_i(const CForwardMessage& aMessage);
    CmResult SendPayload_i(CCmMessageBlock& aPayload);
    CmResult Refused_i(CmResult aResult);
    BOOL FinishMessage_i(ICmTransport& aTransport, CCmChainPtr aRest) const;

    CForwardCore* m_pCore;  // not owned; null: gone
    CForwardCursor m_Cursor;
    CCmRefPtrT<ICmTransport> m_pTransport;            // the user's: a proxy, or the transport itself
    CCmRefPtrT<ICmTransport> m_pSending;              // of this thread
    ICmTransportSink* m_pUserSink = nullptr;          // not owned; null behind a proxy
    IFramedSending* m_pFramed = nullptr;              // m_pSending, if it is one
    CFrameQueue m_Rest;                               // of a message that a raw stream has taken in part
    const std::unique_ptr<const CCmString> m_pLabel;  // null: ""
    const DWORD m_dwId;
    CmResult m_Reason = CM_OK;
    EWay m_Way = STREAM;
    bool m_bProxy = false;
    bool m_bStarted = false;
    bool m_bRefused = false;
    bool m_bGone = false;

public:
    bool m_bNoticed = false;  // in the list of m_pNextNotice
    bool m_bReports = false;  // it is gone, and OnReceiver is due
};

}  // namespace talvo
