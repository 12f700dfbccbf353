#include "talvo/session/forward_receiver.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "talvo/base/ascii.h"
#include "talvo/base/live_counter.h"
#include "talvo/session/forward_core.h"
#include "talvo/transport/connection_type.h"
#include "talvo/transport/datagram.h"
#include "talvo/transport/drained_transport.h"
#include "talvo/transport/thread_proxy/proxy_options.h"
#include "talvo/transport/transport_linger.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CForwardReceiver");

// The label, as it stands between quotation marks in one line. Null: it is empty.
std::unique_ptr<const CCmString> MakeLabel(CCmString aText) {
    std::replace_if(
        aText.begin(), aText.end(), [](char c) { return c == '"' || is_control(c); }, '?');
    return aText.empty() ? nullptr : std::make_unique<const CCmString>(std::move(aText));
}

BOOL IsClosed(ICmTransport& aTransport) {
    BOOL bAlive = FALSE;
    return aTransport.GetOption(CM_OPT_TRANSPORT_SOCK_ALIVE, &bAlive) == CM_ERROR_NOT_INITIALIZED;
}

}  // namespace

CForwardReceiver::CForwardReceiver(CForwardCore& aCore, const CForwardLog& aLog, const CCmForwardReceiverOptions& aOptions,
                                   DWORD aId)
    : m_pCore(&aCore), m_Cursor(aLog, aOptions), m_pLabel(MakeLabel(aOptions.m_strLabel)), m_dwId(aId) {
    ++s_Live;
}

CForwardReceiver::~CForwardReceiver() { --s_Live; }

CmResult CForwardReceiver::Attach(ICmTransport* aTransport) {
    const auto* pOwn = dynamic_cast<CDrainedTransport*>(aTransport);
    if (pOwn && !pOwn->IsOfThisThread())
        return CM_ERROR_INVALID_ARG;
    ICmTransport* pInner = nullptr;
    CmResult rv = aTransport->GetOption(CM_OPT_TRANSPORT_INNER_TRANSPORT, &pInner);
    if (rv == CM_ERROR_NULL_POINTER || rv == CM_ERROR_NOT_AVAILABLE)
        return CM_ERROR_NULL_POINTER;
    rv = rv == CM_OK ? AttachProxy_i(aTransport, pInner) : AttachDirect_i(aTransport);
    if (rv == CM_OK)
        m_pTransport = aTransport;
    return rv;
}

// The proxy's core refuses other threads, before anything is done with the transport of its thread.
CmResult CForwardReceiver::AttachProxy_i(ICmTransport* aTransport, ICmTransport* aInner) {
    ICmTransportSink* pSink = this;
    if (const CmResult rv = aTransport->SetOption(OPT_PROXY_SENDER, &pSink); rv != CM_OK)
        return rv;
    m_bProxy = true;
    m_pSending = aInner;
    FindWay_i();
    return CM_OK;
}

CmResult CForwardReceiver::AttachDirect_i(ICmTransport* aTransport) {
    ICmTransportSink* pSink = aTransport->GetSink();
    if (dynamic_cast<CForwardReceiver*>(pSink))
        return CM_ERROR_FOUND;
    if (!pSink)
        return IsClosed(*aTransport) ? CM_ERROR_NULL_POINTER : CM_ERROR_INVALID_ARG;
    if (CTransportLinger::IsLinger(*pSink))
        return CM_ERROR_NULL_POINTER;
    if (aTransport->OpenWithSink(this) != CM_OK)
        return CM_ERROR_NULL_POINTER;
    m_pUserSink = pSink;
    m_pSending = aTransport;
    FindWay_i();
    return CM_OK;
}

void CForwardReceiver::FindWay_i() {
    DWORD dwMaxMessage = 0;
    DWORD dwType = 0;
    m_pSending->GetOption(CM_OPT_TRANSPORT_TRAN_TYPE, &dwType);
    const BOOL bMessages = m_pSending->GetOption(CM_OPT_TRANSPORT_MAX_MESSAGE, &dwMaxMessage) == CM_OK;
    m_pFramed = dynamic_cast<IFramedSending*>(m_pSending.Get());
    if (m_pFramed && m_pFramed->GetFraming() == IFramedSending::NOT_FRAMED)
        m_pFramed = nullptr;
    if (m_pFramed)
        m_Way = FRAMES;
    else if (bMessages)
        m_Way = MESSAGES;
    else
        m_Way = CConnectionType(dwType).IsOverDatagrams() ? DATAGRAMS : STREAM;
}

DWORD CForwardReceiver::GetMaxMessage() const {
    DWORD dwMaxMessage = std::numeric_limits<DWORD>::max();
    if (m_Way == DATAGRAMS)
        return MAX_DATAGRAM_LENGTH;
    if (m_Way != STREAM && m_pSending)
        m_pSending->GetOption(CM_OPT_TRANSPORT_MAX_MESSAGE, &dwMaxMessage);
    return dwMaxMessage;
}

// A copy of the cursor looks ahead.
BOOL CForwardReceiver::CanTakeAll(const CForwardLog& aLog) const {
    const DWORD dwMost = GetMaxMessage();
    if (aLog.GetLongest() <= dwMost)
        return TRUE;
    CForwardCursor ahead(m_Cursor);
    while (const CForwardEntry* pEntry = ahead.Peek(aLog)) {
        if (pEntry->m_Message.m_dwLength > dwMost)
            return FALSE;
        ahead.Take(pEntry->m_Message.m_dwLength);
    }
    return TRUE;
}

void CForwardReceiver::Detach(CmResult aReason, BOOL aEnded) {
    m_pCore = nullptr;
    m_pFramed = nullptr;
    m_pUserSink = nullptr;
    const CCmRefPtrT<ICmTransport> pSending = std::move(m_pSending);
    const CCmRefPtrT<ICmTransport> pTransport = std::move(m_pTransport);
    if (!pTransport)
        return;
    CCmChainPtr pRest = m_Rest.TakeAll();
    ICmTransportSink* pNobody = nullptr;
    if (m_bProxy)
        pTransport->SetOption(OPT_PROXY_SENDER, &pNobody);
    const BOOL bFinish = !aEnded && aReason == CM_OK && pRest;
    if (!aEnded && !(bFinish && FinishMessage_i(*pTransport, std::move(pRest))))
        pTransport->Disconnect(aReason);
}

// A stream gets the rest of the message that it has taken in part. TRUE: aTransport ends by itself after it.
BOOL CForwardReceiver::FinishMessage_i(ICmTransport& aTransport, CCmChainPtr aRest) const {
    if (!m_bProxy)
        return CTransportLinger::Begin(aTransport, std::move(aRest));
    aTransport.SetOption(OPT_PROXY_SENDER_REST, aRest.get());
    return FALSE;
}

void CForwardReceiver::Start() {
    BOOL bYes = TRUE;
    m_bStarted = true;
    if (m_bProxy && m_pTransport)
        m_bRefused = m_pTransport->SetOption(OPT_PROXY_SENDER_STARTS, &bYes) == CM_ERROR_PARTIAL_DATA;
}

EForwardFraming CForwardReceiver::GetFraming_i() const {
    if (m_Way != FRAMES)
        return EForwardFraming::NONE;
    return m_pFramed->GetFraming() == IFramedSending::LENGTH ? EForwardFraming::LENGTH : EForwardFraming::PACKAGE;
}

BOOL CForwardReceiver::HasFraming(EForwardFraming& aFraming) const {
    aFraming = GetFraming_i();
    return m_Way == FRAMES || m_Way == STREAM;
}

CmResult CForwardReceiver::Serve(const CForwardLog& aLog) {
    const CCmRefPtrT<CForwardReceiver> pKeep(this);
    m_Cursor.NoteLag(aLog);
    if (m_Way != FRAMES && m_Way != STREAM)
        return ServeMessages_i(aLog);
    return m_Cursor.IsPlain() ? ServePlain_i(aLog) : ServeChosen_i(aLog);
}

// Messages whose storage has another framing are encoded once for all receivers that are there.
CmResult CForwardReceiver::ServePlain_i(const CForwardLog& aLog) {
    const CForwardMessage& first = aLog.At(m_Cursor.GetNext()).m_Message;
    const BOOL bAsStored = first.m_pPayload || first.m_Framing == GetFraming_i();
    if (const CForwardBatch* pBatch = bAsStored ? nullptr : m_pCore->FindBatch(m_Cursor.GetNext(), GetFraming_i()))
        return ServeBatch_i(aLog, *pBatch);
    CForwardChain chain(GetFraming_i());
    const DWORD dwCount = chain.AddFrom(aLog, m_Cursor.GetNext());
    return dwCount > 0 ? SendRange_i(aLog, chain.GetHead(), dwCount) : ServeMessages_i(aLog);
}

CmResult CForwardReceiver::ServeBatch_i(const CForwardLog& aLog, const CForwardBatch& aBatch) {
    CCmMessageBlock frames(aBatch.GetBlock());
    frames.AdvanceTopLevelWritePtr(aBatch.GetBlock()->GetLength());
    return SendRange_i(aLog, frames, aBatch.GetCount());
}

// The next aCount messages.
CmResult CForwardReceiver::SendRange_i(const CForwardLog& aLog, CCmMessageBlock& aFrames, DWORD aCount) {
    const CForwardRange lengths(aLog, m_Cursor.GetNext(), aCount, GetFraming_i());
    DWORD dwTaken = 0;
    const CmResult rv = SendFrames_i(aFrames, lengths, dwTaken);
    if (IsGone())
        return CM_OK;
    m_Cursor.TakeMany(aLog, dwTaken);
    return Refused_i(rv);
}

CmResult CForwardReceiver::SendFrames_i(CCmMessageBlock& aFrames, const IFrameLengths& aLengths, DWORD& aTaken) {
    return m_Way == FRAMES ? m_pFramed->SendFrames(aFrames, aLengths, aTaken)
                           : m_Rest.SendFrames(*m_pSending, aFrames, aLengths, aTaken);
}

// A look-ahead fills the chain. If the transport takes less, only so many are taken.
CmResult CForwardReceiver::ServeChosen_i(const CForwardLog& aLog) {
    CForwardChain chain(GetFraming_i());
    CForwardLengths lengths;
    CForwardCursor ahead(m_Cursor);
    const CForwardEntry* pEntry = ahead.Peek(aLog);
    const CForwardEntry* pFirst = pEntry;
    for (; pEntry && !lengths.IsFull() && chain.Add(pEntry->m_Message); pEntry = ahead.Peek(aLog)) {
        lengths.Add(HeaderLengthOf(GetFraming_i()) + pEntry->m_Message.m_dwLength);
        ahead.Take(pEntry->m_Message.m_dwLength);
    }
    if (chain.IsEmpty() && pFirst)
        return ServeMessages_i(aLog);  // too many pieces, or another framing
    if (chain.IsEmpty()) {
        m_Cursor = ahead;
        return CM_OK;
    }
    DWORD dwTaken = 0;
    const CmResult rv = SendFrames_i(chain.GetHead(), lengths, dwTaken);
    if (IsGone())
        return CM_OK;
    if (dwTaken == lengths.GetCount())
        m_Cursor = ahead;
    else
        for (; dwTaken > 0; --dwTaken)
            m_Cursor.Take(m_Cursor.Peek(aLog)->m_Message.m_dwLength);
    return Refused_i(rv);
}

// A connection that encodes its messages itself gathers them.
CmResult CForwardReceiver::ServeMessages_i(const CForwardLog& aLog) {
    const CCmRefPtrT<ICmTransport> pSending = m_pSending;
    BOOL bCork = TRUE;
    if (m_Way == MESSAGES)
        pSending->SetOption(CM_OPT_TRANSPORT_CORK, &bCork);
    const CmResult rv = IsGone() ? CM_OK : SendMessages_i(aLog);
    bCork = FALSE;
    if (m_Way == MESSAGES && !IsGone())
        pSending->SetOption(CM_OPT_TRANSPORT_CORK, &bCork);
    return IsGone() ? CM_OK : rv;
}

CmResult CForwardReceiver::SendMessages_i(const CForwardLog& aLog) {
    DWORD dwBytes = 0;
    for (DWORD i = 0; i < CForwardChain::MAX_PIECES && dwBytes < CForwardChain::MAX_PAYLOAD; ++i) {
        const CForwardEntry* pEntry = m_Cursor.Peek(aLog);
        if (!pEntry)
            break;
        const DWORD dwLength = pEntry->m_Message.m_dwLength;
        const CmResult rv = SendMessage_i(pEntry->m_Message);
        if (IsGone())
            return CM_OK;
        if (rv != CM_OK)
            return Refused_i(rv);
        m_Cursor.Take(dwLength);
        if (!m_Rest.IsEmpty())
            return Refused_i(CM_ERROR_PARTIAL_DATA);
        dwBytes += dwLength;
    }
    return CM_OK;
}

// CM_OK: taken.
CmResult CForwardReceiver::SendMessage_i(const CForwardMessage& aMessage) {
    if (!m_Rest.IsEmpty()) {
        if (const CmResult rv = m_Rest.Flush(*m_pSending); rv != CM_OK)
            return rv;
    }
    if (aMessage.m_pPayload) {
        const CCmChainPtr pPayload(aMessage.m_pPayload->DuplicateChained());
        return pPayload ? SendPayload_i(*pPayload) : CM_ERROR_OUT_OF_MEMORY;
    }
    CCmMessageBlock block(aMessage.m_pBlock);
    const DWORD dwOffset = aMessage.m_dwOffset + aMessage.GetHeaderLength();
    block.AdvanceTopLevelWritePtr(dwOffset + aMessage.m_dwLength);
    block.AdvanceTopLevelReadPtr(dwOffset);
    CCmMessageBlock payload(block, aMessage.m_dwLength);
    if (!m_Cursor.MaySkip())
        payload.LockWriting();  // a connection with a send buffer shares it
    return SendPayload_i(payload);
}

// A stream's rest is kept.
CmResult CForwardReceiver::SendPayload_i(CCmMessageBlock& aPayload) {
    if (m_Way != STREAM)
        return m_pSending->SendData(aPayload);
    const CmResult rv = m_Rest.Send(*m_pSending, nullptr, 0, aPayload);
    return rv == CM_ERROR_PARTIAL_DATA ? CM_OK : rv;
}

// CM_OK: it stays, perhaps until OnSend or OnDisconnect.
CmResult CForwardReceiver::Refused_i(CmResult aResult) {
    if (aResult == CM_OK)
        return CM_OK;
    m_bRefused = true;
    m_Cursor.CountRefusal();
    return aResult == CM_ERROR_PARTIAL_DATA || aResult == CM_ERROR_NETWORK_SOCKET_ERROR ? CM_OK : aResult;
}

void CForwardReceiver::SetGone(CmResult aReason) {
    m_bGone = true;
    m_Reason = aReason;
}

void CForwardReceiver::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter* aPara) {
    if (m_pUserSink)
        m_pUserSink->OnReceive(aData, m_pTransport.Get(), aPara);
}

void CForwardReceiver::OnSend(ICmTransport*, CCmTransportParameter*) {
    if (!m_pCore)
        return;
    if (!m_Rest.IsEmpty() && m_Rest.Flush(*m_pSending) != CM_OK)
        return m_Cursor.CountRefusal();
    m_bRefused = false;
    m_pCore->OnRoom(*this);
}

void CForwardReceiver::OnDisconnect(CmResult aReason, ICmTransport*) {
    const CCmRefPtrT<CForwardReceiver> pKeep(this);
    const CCmRefPtrT<ICmTransport> pTransport = m_pTransport;
    ICmTransportSink* pUserSink = m_pUserSink;
    if (m_pCore)
        m_pCore->OnEnd(*this, aReason);
    if (pUserSink)
        pUserSink->OnDisconnect(aReason, pTransport.Get());
}

}  // namespace talvo
