#include "talvo/http/server/channel_http_server.h"

#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_memory.h"
#include "talvo/http/server/http_server_connection.h"

using talvo::EHttpBody;

namespace {

CCmLiveCounter s_Live("CCmChannelHttpServer");

}  // namespace

CCmChannelHttpServer::CCmChannelHttpServer(talvo::CHttpServerConnection& aConnection) : m_pConnection(&aConnection) {
    ++s_Live;
}

CCmChannelHttpServer::~CCmChannelHttpServer() { --s_Live; }

// The connection's reference is the last one: the application has released its own.
DWORD CCmChannelHttpServer::ReleaseReference() {
    const DWORD dwLeft = CCmReferenceControlTimerDeleteT::ReleaseReference();
    if (dwLeft == 1 && m_pConnection)
        m_pConnection->OnReleased();
    return dwLeft;
}

void CCmChannelHttpServer::Reset() {
    m_Request.Clear();
    m_Answer.Reset();
    m_pSink = nullptr;
    m_Status = WAITING;
    m_bPaused = m_bForgotten = m_bOnSendDue = FALSE;
}

void CCmChannelHttpServer::Forget() {
    m_pSink = nullptr;
    m_bForgotten = TRUE;
}

ICmChannelHttpServerSink* CCmChannelHttpServer::Detach() {
    m_pTransport = &m_pConnection->GetTransport();
    m_pConnection = nullptr;
    return std::exchange(m_pSink, nullptr);
}

CmResult CCmChannelHttpServer::CheckOpen_i(EStatus aMost) const {
    if (m_Status > aMost)
        return CM_ERROR_NOT_AVAILABLE;
    return m_pConnection ? CM_OK : CM_ERROR_NOT_INITIALIZED;
}

CmResult CCmChannelHttpServer::ReceiveRequest(ICmChannelHttpServerSink* aSink) {
    if (!aSink)
        return CM_ERROR_INVALID_ARG;
    CmResult rv = CheckOpen_i(BEGUN);
    if (rv == CM_OK && !m_pSink)
        rv = talvo::ResultWithMemory([this] { return m_pConnection->InviteBody(); });
    if (rv != CM_OK)
        return rv;
    if (!std::exchange(m_pSink, aSink))
        m_pConnection->OnBodyWanted();
    return CM_OK;
}

CmResult CCmChannelHttpServer::SetStatus(long aStatus, const CCmString& aText) {
    const CmResult rv = CheckOpen_i(WAITING);
    return rv == CM_OK ? talvo::ResultWithMemory([&] { return m_Answer.SetStatus(aStatus, aText); }) : rv;
}

CmResult CCmChannelHttpServer::SetHeader(const CCmHttpAtom& aAtom, const CCmString& aValue, BOOL aMerge) {
    const CmResult rv = CheckOpen_i(WAITING);
    return rv == CM_OK ? m_Answer.SetHeader(aAtom, aValue, aMerge) : rv;
}

// If memory runs out for an answer, how much of it is printed is unknown, so the connection ends.
template <class Call>
CmResult CCmChannelHttpServer::Send_i(const Call& aCall) {
    const CmResult rv = talvo::ResultWithMemory(aCall);
    if (rv == CM_ERROR_OUT_OF_MEMORY && m_pConnection)
        m_pConnection->Abort(rv);
    return rv;
}

CmResult CCmChannelHttpServer::Answer(CCmMessageBlock* aBody) {
    return Send_i([=, this] { return AnswerWhole_i(aBody); });
}

CmResult CCmChannelHttpServer::AnswerWhole_i(CCmMessageBlock* aBody) {
    const CmResult rv = Begin_i(aBody ? aBody->GetChainedLength() : 0);
    if (rv != CM_OK)
        return rv;
    const CmResult rvBody = aBody && !m_bNoBody ? m_pConnection->SendAll(*aBody) : CM_OK;
    if (rvBody == CM_OK)
        Complete_i();
    return rvBody;
}

CmResult CCmChannelHttpServer::AnswerText(long aStatus, const CCmString& aContentType, const CCmString& aBody) {
    CmResult rv = SetStatus(aStatus, CCmString());
    if (rv == CM_OK)
        rv = SetHeader(CCmHttpAtomList::Content_Type, aContentType, FALSE);
    if (rv != CM_OK)
        return rv;
    const DWORD dwLength = static_cast<DWORD>(aBody.size());
    CCmMessageBlock body(dwLength, aBody.data(), CCmMessageBlock::DONT_DELETE, dwLength);
    return Answer(&body);
}

CmResult CCmChannelHttpServer::BeginAnswer(uint64_t aLength) {
    const CmResult rv = Send_i([=, this] { return Begin_i(aLength); });
    if (rv == CM_OK && aLength == 0)
        Complete_i();
    return rv;
}

CmResult CCmChannelHttpServer::Begin_i(uint64_t aLength) {
    const CmResult rv = CheckOpen_i(WAITING);
    if (rv != CM_OK)
        return rv;
    m_Body = m_Answer.GetBody(m_Request, aLength);
    m_bNoBody = m_Answer.IsWithoutBody() || m_Request.GetMethod() == CCmHttpAtomList::Head;
    const std::string_view tail = m_pConnection->BeginAnswer(m_Body == EHttpBody::UNTIL_CLOSE || m_Answer.IsToClose());
    m_Answer.Print(m_Body, aLength, tail, m_pConnection->GetOutput().GetText());
    m_ullLeft = aLength;
    m_Status = BEGUN;
    return CM_OK;
}

CmResult CCmChannelHttpServer::SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara) {
    if (aPara)
        aPara->m_dwHaveSent = 0;
    return Send_i([&] { return SendPiece_i(aData, aPara); });
}

CmResult CCmChannelHttpServer::SendPiece_i(CCmMessageBlock& aData, CCmTransportParameter* aPara) {
    CmResult rv = CheckOpen_i(BEGUN);
    if (rv == CM_OK && m_Status == WAITING)
        rv = Begin_i(UNKNOWN_LENGTH);
    if (rv != CM_OK)
        return rv;
    if (m_Body == EHttpBody::LENGTH && aData.GetChainedLength() > m_ullLeft)
        return CM_ERROR_INVALID_ARG;
    if (m_bNoBody) {
        Drop_i(aData, aPara);
        return CM_OK;
    }
    rv = m_Body == EHttpBody::CHUNKED ? SendChunk_i(aData, aPara) : SendLength_i(aData, aPara);
    m_bOnSendDue = rv == CM_ERROR_PARTIAL_DATA;
    return rv;
}

CmResult CCmChannelHttpServer::SendLength_i(CCmMessageBlock& aData, CCmTransportParameter* aPara) {
    const DWORD dwBefore = aData.GetChainedLength();
    const CmResult rv = m_pConnection->SendPart(aData);
    const DWORD dwTaken = dwBefore - aData.GetChainedLength();
    if (aPara)
        aPara->m_dwHaveSent = dwTaken;
    if (m_Body == EHttpBody::LENGTH) {
        m_ullLeft -= dwTaken;
        if (m_ullLeft == 0)
            Complete_i();
    }
    return rv;
}

CmResult CCmChannelHttpServer::SendChunk_i(CCmMessageBlock& aData, CCmTransportParameter* aPara) {
    const DWORD dwLength = aData.GetChainedLength();
    const CmResult rv = m_pConnection->SendChunk(aData, dwLength);
    if (rv == CM_OK)
        Drop_i(aData, aPara);
    return rv;
}

// Marks all data as taken.
void CCmChannelHttpServer::Drop_i(CCmMessageBlock& aData, CCmTransportParameter* aPara) {
    const DWORD dwLength = aData.GetChainedLength();
    aData.AdvanceChainedReadPtr(dwLength);
    if (aPara)
        aPara->m_dwHaveSent = dwLength;
    if (m_Body != EHttpBody::LENGTH)
        return;
    m_ullLeft -= dwLength;
    if (m_ullLeft == 0)
        Complete_i();
}

CmResult CCmChannelHttpServer::EndAnswer() {
    return Send_i([this] { return End_i(); });
}

CmResult CCmChannelHttpServer::End_i() {
    if (m_Status == COMPLETE)
        return CM_OK;
    CmResult rv = CheckOpen_i(BEGUN);
    if (rv == CM_OK && m_Status == WAITING)
        return BeginAnswer(0);
    if (rv != CM_OK)
        return rv;
    if (m_Body == EHttpBody::LENGTH && m_ullLeft > 0 && !m_bNoBody) {
        CM_ERROR_TRACE_THIS("CCmChannelHttpServer::EndAnswer, bytes of the length are missing. m_ullLeft=" << m_ullLeft);
        m_pConnection->Abort(CM_ERROR_FAILURE);
        return CM_ERROR_FAILURE;
    }
    if (m_Body == EHttpBody::CHUNKED && !m_bNoBody)
        rv = m_pConnection->GetOutput().Append("0\r\n\r\n");
    if (rv == CM_OK)
        Complete_i();
    else
        m_pConnection->Abort(rv);
    return rv;
}

void CCmChannelHttpServer::Complete_i() {
    m_Status = COMPLETE;
    m_bOnSendDue = FALSE;
    m_pSink = nullptr;  // no more upcalls
    m_pConnection->OnAnswered();
}

CmResult CCmChannelHttpServer::Disconnect(CmResult aReason) {
    Forget();
    if (m_pConnection && m_Status != COMPLETE)
        m_pConnection->End(aReason);
    return CM_OK;
}

CmResult CCmChannelHttpServer::SetOption(DWORD aCommand, void* aArg) {
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    if (!m_pConnection)
        return CM_ERROR_NOT_INITIALIZED;
    if (aCommand != CM_OPT_TRANSPORT_PAUSE_READING)
        return m_pConnection->GetTransport().SetOption(aCommand, aArg);
    m_bPaused = !!*static_cast<BOOL*>(aArg);
    if (!IsHeldBack())
        m_pConnection->OnBodyWanted();
    return CM_OK;
}

CmResult CCmChannelHttpServer::GetOption(DWORD aCommand, void* aArg) {
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    if (!m_pConnection)
        return GetKept_i(aCommand, aArg);
    if (aCommand != CM_OPT_TRANSPORT_PAUSE_READING)
        return m_pConnection->GetTransport().GetOption(aCommand, aArg);
    *static_cast<BOOL*>(aArg) = m_bPaused;
    return CM_OK;
}

// The options that can be read after the end of the transport.
CmResult CCmChannelHttpServer::GetKept_i(DWORD aCommand, void* aArg) const {
    switch (aCommand) {
    case CM_OPT_TRANSPORT_LOCAL_ADDR:
    case CM_OPT_TRANSPORT_PEER_ADDR:
    case CM_OPT_TRANSPORT_TRAN_TYPE:
        return m_pTransport->GetOption(aCommand, aArg);
    default:
        return CM_ERROR_NOT_INITIALIZED;
    }
}
