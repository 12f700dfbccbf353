// One end of a simulated connection.
#pragma once

#include <deque>
#include <memory>
#include <string>

#include "talvo/testing/sim_core.h"
#include "talvo/transport/socket_settings.h"
#include "talvo/transport/transport_base.h"

namespace talvo {

// An end of a stream, or of a flow of datagrams. All upcalls come from the schedule. The bytes of an OnReceive are overwritten
// afterwards, and a send takes at most 64 pieces, as with a socket.
//
//    SendData -- m_PathOut: chances, delay --> peer's m_OnTheWay -- silence --> peer's m_Unread -- pause --> OnReceive
//
// Both ends of a stream exist before either is indicated. Datagrams find their receiver when they arrive.
class CSimTransport final : public CCmTransportBase {
public:
    // aEnd: its kind and its addresses; no other end has the same pair. aSizes: a size of 0 is the link's.
    CSimTransport(CSimCore& aCore, ICmReactor* aReactor, const CCmSimEnd& aEnd, const CSocketSettings& aSizes);
    ~CSimTransport() override;

    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara = nullptr) override;
    CmResult SetOption(DWORD aCommand, void* aArg) override;
    CmResult GetOption(DWORD aCommand, void* aArg) override;

    // A datagram, from the network.
    void TakeDatagram(std::string aBytes);
    // A datagram of this end has found no receiver.
    void OnRefused();

    const CCmSimEnd& Describe() const { return m_End; }

protected:
    CmResult Open_t() override;
    CmResult Close_t(CmResult aReason) override;

private:
    enum EKind { DATA, END, CUT };
    struct CPiece {
        int64_t m_llArrives;
        EKind m_Kind;
        std::string m_strBytes;
    };

    // The loop calls aRun of this end after a delay, unless it is closed then.
    void After_i(int64_t aDelay, void (CSimTransport::*aRun)());
    static void AfterAt_i(CSimCore& aCore, int64_t aDelay, const CSimCore::CEndKey& aKey, void (CSimTransport::*aRun)());
    const CCmSimPath& GetPathOut_i() const;
    const CCmSimPath& GetPathIn_i() const;
    CSimTransport* FindPeer_i() const { return m_pCore->FindEnd({m_Key.second, m_Key.first}); }

    size_t GetRoom_i(size_t aLength, const CCmSimPath& aPath) const;
    void SendStream_i(std::string aBytes);
    void SendDatagram_i(const std::string& aBytes);
    void SendCopy_i(std::string aBytes);
    std::string Damage_i(std::string aBytes);
    int64_t TimeOnLine_i(size_t aLength);
    int64_t TimeToRepeat_i();
    void Post_i(EKind aKind, std::string aBytes);

    void TakeArrivals_i();
    void TakePiece_i(CPiece aPiece);
    void ScheduleDelivery_i();
    void Deliver_i();
    void DeliverBytes_i();
    std::string TakeUnread_i();
    std::string TakeFromStream_i(size_t aMax);
    void OnPeerRead_i(size_t aLength);
    void NotifyRoom_i();
    void NotifyEnd_i();
    void Break_i();
    void Cut_i();
    void Fail_i();
    CmResult EndSending_i();

    const std::shared_ptr<CSimCore> m_pCore;
    const CSimCore::CEndKey m_Key;
    const std::shared_ptr<CSimTransport*> m_pSelf = std::make_shared<CSimTransport*>(this);  // shared with calls; null: closed
    CCmSimEnd m_End;                                                                         // kept up to date
    CSocketSettings m_Sizes;
    BOOL m_bClosed = FALSE;
    BOOL m_bPaused = FALSE;
    BOOL m_bRestFirst = FALSE;  // OPT_REST_BEFORE_FAILURE
    BOOL m_bDeliveryDue = FALSE;
    BOOL m_bEndArrived = FALSE;  // the peer's, after m_Unread
    BOOL m_bTellEnd = FALSE;     // option 148
    BOOL m_bEndNotified = FALSE;
    BOOL m_bEndSent = FALSE;           // option 147
    BOOL m_bMute = FALSE;              // nothing of this end arrives any more
    uint64_t m_ullTaken = 0;           // bytes of the stream
    int64_t m_llLineFree = 0;          // the time when the last taken byte has left
    int64_t m_llLastArrival = 0;       // a stream keeps its order
    std::deque<CPiece> m_OnTheWay;     // to this end; a stream's
    std::deque<std::string> m_Unread;  // arrived and not delivered
    size_t m_stFrontRead = 0;          // bytes of the first that are delivered; a stream's
    size_t m_stUnread = 0;             // the bytes that are not
};

}  // namespace talvo
