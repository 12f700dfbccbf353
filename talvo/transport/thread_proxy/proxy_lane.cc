#include "talvo/transport/thread_proxy/proxy_lane.h"

#include "talvo/base/trace.h"
#include "talvo/transport/connection_type.h"
#include "talvo/transport/datagram.h"
#include "talvo/transport/network_buffers.h"
#include "talvo/transport/thread_proxy/frame_run.h"
#include "talvo/transport/thread_proxy/proxy_queues.h"

namespace talvo {

namespace {

// Up to the size of one call of the transport.
void Join(CProxyBatch& aBatch) {
    aBatch.m_dwJoinedBlocks = 0;
    while (!aBatch.m_Waiting.IsEmpty()) {
        const DWORD dwBlocks = CountBlocks(aBatch.m_Waiting.Front());
        if (aBatch.m_dwJoinedBlocks > 0 && aBatch.m_dwJoinedBlocks + dwBlocks > CNetworkBuffers::MAX_PIECES)
            break;
        aBatch.m_Joined.Append(aBatch.m_Waiting.TakeChain());
        aBatch.m_dwJoinedBlocks += dwBlocks;
    }
}

}  // namespace

void CProxyBatch::Pop(DWORD aCost, DWORD aBlocks) {
    m_ullGone += aCost;
    m_dwGoneBlocks += aBlocks;
    m_Waiting.Pop();
}

void CProxyBatch::Clear() {
    m_Joined.Clear();
    m_Waiting.Clear();
}

CmResult CProxyLane::Check(const CCmMessageBlock& aData, DWORD& aLength) const {
    aLength = aData.GetChainedLength();
    return aLength < CCmMessageBlock::MOST_LENGTH ? CM_OK : CM_ERROR_INVALID_ARG;
}

void CStreamLane::ReadOptions(ICmTransport& aTransport) {
    DWORD dwSize = 0;
    if (aTransport.GetOption(CM_OPT_TRANSPORT_READ_SIZE, &dwSize) == CM_OK)
        m_dwReadSize = dwSize;
}

CmResult CStreamLane::SendNext(ICmTransport& aTransport, CProxyBatch& aBatch) {
    if (aBatch.m_Joined.IsEmpty())
        Join(aBatch);
    CCmTransportParameter para;
    const CmResult rv = aTransport.SendData(*aBatch.m_Joined.GetHead(), &para);
    aBatch.m_ullGone += para.m_dwHaveSent;
    aBatch.m_Joined.DropRead();
    if (aBatch.m_Joined.IsEmpty())
        aBatch.m_dwGoneBlocks += aBatch.m_dwJoinedBlocks;
    return rv;
}

CmResult CDatagramLane::Check(const CCmMessageBlock& aData, DWORD& aLength) const { return CheckDatagram(aData, aLength); }

// A datagram that cannot be sent is lost, and the next follows.
CmResult CDatagramLane::SendNext(ICmTransport& aTransport, CProxyBatch& aBatch) {
    CCmMessageBlock& datagram = aBatch.m_Waiting.Front();
    const DWORD dwLength = datagram.GetChainedLength();
    const DWORD dwBlocks = CountBlocks(datagram);
    CCmTransportParameter para;
    const CmResult rv = aTransport.SendData(datagram, &para);
    if (rv == CM_ERROR_PARTIAL_DATA)
        return rv;
    aBatch.Pop(CostOf(dwLength), dwBlocks);
    return CM_OK;
}

CmResult CMessageLane::Check(const CCmMessageBlock& aData, DWORD& aLength) const {
    aLength = aData.GetChainedLength();
    const DWORD dwMax = m_dwMaxMessage;
    if (aLength <= dwMax)
        return CM_OK;
    CM_ERROR_TRACE_THIS("CCmTransportThreadProxy::SendData, message too long. len="
                        << aLength << " max=" << dwMax
                        << ", raise it with the options 132 (send buffer) and 136 (message length)");
    return CM_ERROR_INVALID_ARG;
}

// A connection that does not support the option has no limit.
void CMessageLane::ReadOptions(ICmTransport& aTransport) {
    DWORD dwMax = 0;
    const CmResult rv = aTransport.GetOption(CM_OPT_TRANSPORT_MAX_MESSAGE, &dwMax);
    m_dwMaxMessage = rv == CM_OK ? dwMax : NO_LIMIT;
    m_pFramed = dynamic_cast<IFramedSending*>(&aTransport);
    if (m_pFramed && m_pFramed->GetFraming() == IFramedSending::NOT_FRAMED)
        m_pFramed = nullptr;
}

IFramedSending::EFraming CMessageLane::GetFraming() const {
    return m_pFramed ? m_pFramed->GetFraming() : IFramedSending::NOT_FRAMED;
}

void CMessageLane::SetFrameSink(IFrameSink* aSink) {
    if (m_pFramed)
        m_pFramed->SetFrameSink(aSink);
}

// aSent (out): FALSE: the first message cannot be sent as a frame now, and nothing is done.
CmResult CMessageLane::SendFrames_i(CProxyBatch& aBatch, BOOL& aSent) {
    CFrameRun run(aBatch.m_Waiting, m_dwMaxMessage);
    DWORD dwTaken = 0;
    const CmResult rv = run.IsEmpty() ? CM_ERROR_NOT_AVAILABLE : m_pFramed->SendFrames(run.GetFrames(), run, dwTaken);
    aSent = rv != CM_ERROR_NOT_AVAILABLE || dwTaken > 0;
    aBatch.PopSeveral(dwTaken);
    return rv;
}

CmResult CMessageLane::SendNext(ICmTransport& aTransport, CProxyBatch& aBatch) {
    if (BOOL bSent = FALSE; m_pFramed && !aBatch.m_Waiting.IsFrontInUse()) {
        const CmResult rvFrames = SendFrames_i(aBatch, bSent);
        if (bSent)
            return rvFrames;
    }
    CCmMessageBlock& message = aBatch.m_Waiting.Front();
    const DWORD dwLength = message.GetChainedLength();
    const DWORD dwBlocks = aBatch.m_Waiting.IsFrontCopied() ? 0 : CountBlocks(message);
    CCmTransportParameter para;
    const CmResult rv = aTransport.SendData(message, &para);
    if (rv != CM_OK && rv != CM_ERROR_INVALID_ARG) {
        aBatch.m_ullGone += dwLength - message.GetChainedLength();
        return rv;
    }
    if (rv != CM_OK)  // the limit was lowered in the network thread
        CM_ERROR_TRACE_THIS("CTransportProxyCore::SendMessage_i, message too long for the connection, lost. len=" << dwLength);
    aBatch.Pop(CostOf(dwLength), dwBlocks);
    return CM_OK;
}

CProxyLaneOf::CProxyLaneOf(DWORD aType) : m_Lane(Make(aType)) {}

CProxyLane& CProxyLaneOf::Make(DWORD aType) {
    if (CConnectionType(aType).IsProtocol())
        return m_Lanes.emplace<CMessageLane>();
    if (CConnectionType(aType).IsDatagrams())
        return m_Lanes.emplace<CDatagramLane>();
    return m_Lanes.emplace<CStreamLane>();
}

}  // namespace talvo
