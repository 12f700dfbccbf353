// One connection of an HTTP server.
#pragma once

#include "talvo/event/timer_wrapper_id.h"
#include "talvo/http/message/http_framing.h"
#include "talvo/http/server/channel_http_server.h"
#include "talvo/http/server/http_request_reader.h"
#include "talvo/http/server/http_server_output.h"

namespace talvo {

class CHttpServerConnection;

// What connections ask of the acceptor that they belong to, which outlives them.
class CHttpServerOwner {
public:
    virtual const CHttpServerSettings& GetSettings() const = 0;
    // Counts the looks at the clock, one a second.
    virtual DWORD GetLooks() const = 0;
    // What ends a head: "Date", "Connection", the empty line.
    virtual std::string_view GetTail(BOOL aKeepAlive) = 0;
    virtual void OnRequest(ICmChannelHttpServer& aChannel) = 0;
    // A request without a sink has been lost.
    virtual void OnRequestLost(CmResult aReason, ICmChannelHttpServer& aChannel) = 0;
    // The client of a request without a sink has ended its sending side.
    virtual void OnClientEnd(ICmChannelHttpServer& aChannel) = 0;
    // The connection has ended: lets go of it.
    virtual void Remove(CHttpServerConnection& aConnection) = 0;

protected:
    ~CHttpServerOwner() = default;
};

//          request complete           answer complete, connection kept
//   HEAD ------------------> ANSWER -----------------------------------> HEAD
//    |   head with a body      ^  \  answer complete, last one
//    +--------------> BODY ----+   +----------------------------> CLOSING ---> ENDED
//
// Reads a request, hands it up, delivers what is answered. Bytes beyond what can be used now are held back, and reading is
// paused beyond a limit, so that what one peer can make it hold is bounded. Upcalls come from the event loop alone: whatever
// the user calls returns first. Any of them may end the connection; the object stays until the loop's next turn.
//
// Time is counted in the owner's looks, so that a thread which is busy elsewhere does not make its clients late.
class CHttpServerConnection final : public ICmTransportSink,
                                    public CCmTimerWrapperIDSink,
                                    public CHttpBodySink,
                                    public CCmReferenceControlTimerDeleteT<CCmMutexNullSingleThread> {
public:
    CHttpServerConnection(CHttpServerOwner& aOwner, ICmTransport* aTransport);
    ~CHttpServerConnection() override;

    CmResult Open();

    // A look at the clock: whoever was waited for too long.
    BOOL IsLate() const {
        return m_bKickDue || (m_Wait != FOR_NOBODY && static_cast<int32_t>(m_Owner.GetLooks() - m_dwDeadline) >= 0);
    }
    void OnLate();
    // Finishes what has begun and takes no new request. Closes at once when there is none. No upcall comes inside.
    void Stop();
    // Stop for a drain, from the loop, again and again. Also gives up a request whose body is not whole and whose answer has
    // not begun, and waits no longer for the peer to close when its system has acknowledged everything.
    void Drain();
    // Ends at once; the user hears aReason unless the answer is complete or it has disconnected.
    void End(CmResult aReason);
    // The same, and the user hears nothing.
    void Drop();

    size_t m_stPlace = 0;  // the owner's: where it keeps this connection

    // For the channel of the request under way.
    ICmTransport& GetTransport() { return *m_pTransport; }
    CHttpServerOutput& GetOutput() { return m_Output; }
    // What ends the head of the answer that begins now.
    std::string_view BeginAnswer(BOOL aLast);
    CmResult SendAll(CCmMessageBlock& aBody);
    CmResult SendPart(CCmMessageBlock& aData);
    CmResult SendChunk(const CCmMessageBlock& aData, DWORD aLength);
    void OnAnswered();
    // Tells the client to send the body, if it waits for that. CM_ERROR_OUT_OF_MEMORY.
    CmResult InviteBody();
    void OnBodyWanted();
    void OnReleased();
    // The answer cannot go on; its user has that from the call under way.
    void Abort(CmResult aReason);

    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;
    void OnTimer(CCmTimerWrapperID* aId) override;
    BOOL OnBody(CCmMessageBlock& aView) override;

private:
    enum EState { HEAD, BODY, ANSWER, CLOSING, ENDED };
    // Whom it waits for, and so how long.
    enum EWait { FOR_NOBODY, FOR_FIRST, FOR_NEXT, FOR_HEAD, FOR_BODY, FOR_READER, FOR_CLOSE };

    // Input: http_server_connection.cc.
    template <class Call>
    void Enter_i(const Call& aCall);
    void TakeData_i(CCmMessageBlock& aData);
    void RunKick_i();
    void Run_i(CCmMessageBlock* aInput, BOOL aRoom);
    void RunHeld_i(BOOL aRoom);
    void TellRoom_i();
    BOOL Step_i(CCmMessageBlock* aInput);
    BOOL ReadHead_i(CCmMessageBlock* aInput);
    BOOL BeginRequest_i();
    int CheckRequest_i(const CHttpFraming& aFraming);
    BOOL ReadBody_i(CCmMessageBlock* aInput);
    BOOL OnBodyResult_i(CmResult aResult);
    BOOL TellEnd_i();
    BOOL TellClientEnd_i();
    BOOL Answered_i();
    BOOL HasRequest_i() const { return m_State == BODY || m_State == ANSWER; }
    BOOL IsAnswered_i() const { return m_pChannel && m_pChannel->IsComplete(); }
    void CheckReleased_i();
    void Refuse_i(int aStatus);
    BOOL PrintRefusal_i(int aStatus);
    void Close_i(CmResult aReason);
    void TellLost_i(CCmChannelHttpServer& aChannel, CmResult aReason);
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
    DWORD GetPatience_i(EWait aWait) const;
    BOOL IsStarved_i() const;
    BOOL IsAcknowledged_i();
    void PauseReading_i(BOOL aPause);
    void Kick_i();

    CHttpServerOwner& m_Owner;
    CCmRefPtrT<ICmTransport> m_pTransport;
    CCmRefPtrT<CCmChannelHttpServer> m_pChannel;  // of the request under way, or kept for the next; null: none made yet
    CHttpRequestReader m_Reader;
    CHttpBodyReader m_BodyReader;
    CHttpServerOutput m_Output;
    CBlockChain m_Held;        // received and not used yet
    CCmTimerWrapperID m_Kick;  // runs what has to wait until the user's call has returned

    EState m_State = HEAD;
    EWait m_Wait = FOR_NOBODY;
    DWORD m_dwDeadline = 0;      // in looks
    uint64_t m_ullProgress = 0;  // bytes of the body when the wait began
    uint64_t m_ullDropped = 0;   // bytes that came while closing
    BOOL m_bRunning = FALSE;     // inside a turn of the loop: what is sent is gathered, upcalls may come
    BOOL m_bBlocked = FALSE;     // the transport takes no more until its OnSend
    BOOL m_bBroken = FALSE;      // it takes no more at all
    CmResult m_BrokenReason = CM_ERROR_NETWORK_SOCKET_ERROR;
    BOOL m_bReadingPaused = FALSE;  // as it was told
    BOOL m_bKickDue = FALSE;        // there was no memory for the timer: the next look runs it
    BOOL m_bPeerEnded = FALSE;      // it sends no more, and may wait for what it has asked
    BOOL m_bFirst = TRUE;           // no request has come yet
    BOOL m_bLast = FALSE;           // the connection ends behind this answer
    BOOL m_bStopping = FALSE;
    BOOL m_bContinueDue = FALSE;    // the client waits for "100 Continue"
    BOOL m_bEndTold = FALSE;        // that the request is complete
    BOOL m_bClientEndTold = FALSE;  // that its client sends no more
    BOOL m_bEndSent = FALSE;        // the sending side is shut down
};

}  // namespace talvo
