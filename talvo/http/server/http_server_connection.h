// One connection of an HTTP server.
#pragma once

#include "talvo/event/timer_wrapper_id.h"
#include "talvo/http/message/http_framing.h"
#include "talvo/http/server/channel_http_server.h"
#include "talvo/http/server/http_request_reader.h"
#include "talvo/http/server/http_server_output.h"
#include "talvo/http/server/http_server_owner.h"

namespace talvo {

//          request complete           answer complete, connection kept
//   HEAD ------------------> ANSWER -----------------------------------> HEAD
//    |   head with a body      ^  \  answer complete, last one
//    +--------------> BODY ----+   +----------------------------> CLOSING ---> ENDED
//
// Reads a request, passes it to the application, delivers the answer. Data that cannot be used yet is held back, and reading
// pauses beyond a limit, so the data held for one peer is bounded. Upcalls come from the event loop only: a call of the user
// returns first. Any upcall may end the connection; the object stays until the loop's next turn.
//
// Time is counted in the owner's looks, so that clients do not time out while the thread is busy elsewhere.
class CHttpServerConnection final : public ICmTransportSink,
                                    public CCmTimerWrapperIDSink,
                                    public CHttpBodySink,
                                    public CCmReferenceControlTimerDeleteT<CCmMutexNullSingleThread> {
public:
    CHttpServerConnection(CHttpServerOwner& aOwner, ICmTransport* aTransport);
    ~CHttpServerConnection() override;

    CmResult Open();

    // For the look at the clock. TRUE: the current wait has timed out.
    BOOL IsLate() const {
        return m_bKickDue || (m_Wait != FOR_NOTHING && static_cast<int32_t>(m_Owner.GetLooks() - m_dwDeadline) >= 0);
    }
    void OnLate();
    // Finishes the current request and takes no new one. Closes at once if no request has begun. Makes no upcall.
    void Stop();
    // Stop for a drain, called by the loop repeatedly. Also abandons a request if its body is incomplete and its answer has not
    // begun. Stops waiting for the peer's close once its system has acknowledged everything.
    void Drain();
    // Ends at once. The user gets aReason unless the answer is complete or the user has disconnected.
    void End(CmResult aReason);
    // The same, without an upcall.
    void Drop();

    size_t m_stPlace = 0;  // for the owner: its index of this connection

    // The following functions are for the channel of the current request.
    ICmTransport& GetTransport() { return *m_pTransport; }
    CHttpServerOutput& GetOutput() { return m_Output; }
    // Returns the end of the head of the answer that begins now.
    std::string_view BeginAnswer(BOOL aLast);
    CmResult SendAll(CCmMessageBlock& aBody);
    CmResult SendPart(CCmMessageBlock& aData);
    CmResult SendChunk(const CCmMessageBlock& aData, DWORD aLength);
    void OnAnswered();
    // Sends "100 Continue", if the client waits for it. CM_ERROR_OUT_OF_MEMORY.
    CmResult InviteBody();
    void OnBodyWanted();
    void OnReleased();
    // The answer cannot continue; the current call reports this to its user.
    void Abort(CmResult aReason);

    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;
    void OnTimer(CCmTimerWrapperID* aId) override;
    BOOL OnBody(CCmMessageBlock& aView) override;

private:
    enum EState { HEAD, BODY, ANSWER, CLOSING, ENDED };
    // The event that it waits for; it decides the time-out.
    enum EWait { FOR_NOTHING, FOR_FIRST, FOR_NEXT, FOR_HEAD, FOR_BODY, FOR_READER, FOR_CLOSE };

    // Input: http_server_connection.cc.
    template <class Call>
    void Enter_i(const Call& aCall);
    void TakeData_i(CCmMessageBlock& aData);
    void RunKick_i();
    void Run_i(CCmMessageBlock* aInput, BOOL aRoom);
    void RunHeld_i(BOOL aRoom);
    void NotifyRoom_i();
    BOOL Step_i(CCmMessageBlock* aInput);
    BOOL ReadHead_i(CCmMessageBlock* aInput);
    BOOL BeginRequest_i();
    int CheckRequest_i(const CHttpFraming& aFraming);
    BOOL ReadBody_i(CCmMessageBlock* aInput);
    BOOL OnBodyResult_i(CmResult aResult);
    BOOL NotifyEnd_i();
    BOOL NotifyClientEnd_i();
    BOOL Answered_i();
    BOOL HasRequest_i() const { return m_State == BODY || m_State == ANSWER; }
    BOOL IsAnswered_i() const { return m_pChannel && m_pChannel->IsComplete(); }
    void CheckReleased_i();
    void Refuse_i(int aStatus);
    BOOL PrintRefusal_i(int aStatus, DWORD& aBytes);
    void Close_i(CmResult aReason);
    void NotifyLost_i(CCmChannelHttpServer& aChannel, CmResult aReason);
    BOOL IsBodyWhole_i(const CCmMessageBlock* aInput) const;
    void Hold_i(CCmMessageBlock& aInput);

    // Output and time: http_server_connection_output.cc.
    void Flush_i();
    void OnSent_i(CmResult aResult);
    void AppendCopy_i(const CCmMessageBlock& aData);
    BOOL IsGathered_i(DWORD aLength) const;
    void Settle_i();
    EWait GetWait_i() const;
    void SetWait_i(EWait aWait);
    DWORD GetTimeout_i(EWait aWait) const;
    BOOL IsStarved_i() const;
    BOOL IsAcknowledged_i();
    void PauseReading_i(BOOL aPause);
    void Kick_i();

    CHttpServerOwner& m_Owner;
    CCmRefPtrT<ICmTransport> m_pTransport;
    CCmRefPtrT<CCmChannelHttpServer> m_pChannel;  // of the current request, or kept for the next; null: none made yet
    CHttpRequestReader m_Reader;
    CHttpBodyReader m_BodyReader;
    CHttpServerOutput m_Output;
    CBlockChain m_Held;        // received and not used yet
    CCmTimerWrapperID m_Kick;  // runs steps that must wait until the user's call has returned

    EState m_State = HEAD;
    EWait m_Wait = FOR_NOTHING;
    DWORD m_dwDeadline = 0;      // in looks
    uint64_t m_ullProgress = 0;  // bytes of the body when the wait began
    uint64_t m_ullDropped = 0;   // bytes that came while closing
    BOOL m_bRunning = FALSE;     // inside a turn of the loop: output is gathered, upcalls may come
    BOOL m_bBlocked = FALSE;     // the transport takes no more until its OnSend
    BOOL m_bBroken = FALSE;      // the transport takes no more at all
    CmResult m_BrokenReason = CM_ERROR_NETWORK_SOCKET_ERROR;
    BOOL m_bReadingPaused = FALSE;  // the state last set in the transport
    BOOL m_bKickDue = FALSE;        // memory ran out for the timer: the next look runs the steps
    BOOL m_bPeerEnded = FALSE;      // it sends no more, and may wait for its answers
    BOOL m_bFirst = TRUE;           // no request has come yet
    BOOL m_bLast = FALSE;           // the connection ends after this answer
    BOOL m_bStopping = FALSE;
    BOOL m_bContinueDue = FALSE;        // the client waits for "100 Continue"
    BOOL m_bEndNotified = FALSE;        // OnRequestEnd has been called
    BOOL m_bClientEndNotified = FALSE;  // OnClientEnd has been called
    BOOL m_bEndSent = FALSE;            // the sending side is shut down
};

}  // namespace talvo
