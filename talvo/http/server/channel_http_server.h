// The channel of a request and its answer.
#pragma once

#include "talvo/event/timer_delete.h"
#include "talvo/http/server/channel_server.h"
#include "talvo/http/server/http_server_answer.h"

namespace talvo {

class CHttpServerConnection;

}  // namespace talvo

// A connection makes it, holds one reference, and uses the channel again for its next request if no other reference is left.
class CCmChannelHttpServer final : public ICmChannelHttpServer,
                                   private CCmReferenceControlTimerDeleteT<CCmMutexNullSingleThread> {
public:
    explicit CCmChannelHttpServer(talvo::CHttpServerConnection& aConnection);
    ~CCmChannelHttpServer() override;

    DWORD AddReference() override { return CCmReferenceControlTimerDeleteT::AddReference(); }
    DWORD ReleaseReference() override;

    const CCmHttpRequestHead& GetRequest() const override { return m_Request; }
    CmResult ReceiveRequest(ICmChannelHttpServerSink* aSink) override;
    CmResult SetStatus(long aStatus, const CCmString& aText) override;
    CmResult SetHeader(const CCmHttpAtom& aAtom, const CCmString& aValue, BOOL aMerge) override;
    CmResult Answer(CCmMessageBlock* aBody) override;
    CmResult AnswerText(long aStatus, const CCmString& aContentType, const CCmString& aBody) override;
    CmResult BeginAnswer(uint64_t aLength) override;
    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara) override;
    CmResult EndAnswer() override;
    CmResult Disconnect(CmResult aReason) override;
    CmResult SetOption(DWORD aCommand, void* aArg) override;
    CmResult GetOption(DWORD aCommand, void* aArg) override;
    ICmTransportSink* GetSink() override { return m_pSink; }

    // A server channel is connected from the start: CM_ERROR_NOT_IMPLEMENTED.
    CmResult OpenWithSink(ICmTransportSink*) override { return CM_ERROR_NOT_IMPLEMENTED; }
    CmResult AsyncOpen(ICmChannelSink*) override { return CM_ERROR_NOT_IMPLEMENTED; }
    CmResult GetUrl(CCmHttpUrl*&) override { return CM_ERROR_NOT_IMPLEMENTED; }

    // The following functions are for the connection.

    CCmHttpRequestHead& GetHead() { return m_Request; }
    ICmChannelHttpServerSink* GetServerSink() const { return m_pSink; }
    BOOL IsShared() const { return GetReference() > 1; }
    BOOL IsBegun() const { return m_Status != WAITING; }
    BOOL IsComplete() const { return m_Status == COMPLETE; }
    BOOL IsHeldBack() const { return !m_pSink || m_bPaused; }
    // TRUE: OnSend is due to the user, who is then notified.
    BOOL TakeOnSendDue() { return std::exchange(m_bOnSendDue, FALSE); }

    // The application gets no more upcalls, or asks for none.
    void Forget();
    BOOL IsForgotten() const { return m_bForgotten; }
    // Prepares the channel for the next request.
    void Reset();
    // Detaches the connection. Returns the sink that the channel had.
    ICmChannelHttpServerSink* Detach();

private:
    enum EStatus { WAITING /* no answer yet */, BEGUN /* the head is sent */, COMPLETE };

    CmResult CheckOpen_i(EStatus aMost) const;
    template <class Call>
    CmResult Send_i(const Call& aCall);
    CmResult SendPiece_i(CCmMessageBlock& aData, CCmTransportParameter* aPara);
    CmResult AnswerWhole_i(CCmMessageBlock* aBody);
    CmResult End_i();
    CmResult Begin_i(uint64_t aLength);
    CmResult SendLength_i(CCmMessageBlock& aData, CCmTransportParameter* aPara);
    CmResult SendChunk_i(CCmMessageBlock& aData, CCmTransportParameter* aPara);
    void Drop_i(CCmMessageBlock& aData, CCmTransportParameter* aPara);
    void Complete_i();
    CmResult GetKept_i(DWORD aCommand, void* aArg) const;

    CCmHttpRequestHead m_Request;
    talvo::CHttpServerAnswer m_Answer;
    talvo::CHttpServerConnection* m_pConnection;  // not owned; null: detached
    CCmRefPtrT<ICmTransport> m_pTransport;        // once detached: for its addresses
    ICmChannelHttpServerSink* m_pSink = nullptr;  // not owned
    EStatus m_Status = WAITING;
    talvo::EHttpBody m_Body = talvo::EHttpBody::NONE;  // of the answer, once it has begun
    uint64_t m_ullLeft = 0;                            // bytes of the length that SendData has not taken
    BOOL m_bNoBody = FALSE;                            // only the head is sent; the application's body is dropped
    BOOL m_bPaused = FALSE;
    BOOL m_bForgotten = FALSE;
    BOOL m_bOnSendDue = FALSE;
};
