// The units that a transport's thread proxy sends: bytes, datagrams or messages.
#pragma once

#include <atomic>
#include <variant>

#include "talvo/base/block_chain.h"
#include "talvo/transport/framed_sending.h"
#include "talvo/transport/message_list.h"
#include "talvo/transport/network_buffers.h"
#include "talvo/transport/transport_interface.h"

namespace talvo {

// The data between the send queue and the transport. Network thread.
struct CProxyBatch {
    CmBool IsEmpty() const { return m_Joined.IsEmpty() && m_Waiting.IsEmpty(); }
    // The first entry is finished, sent or lost.
    void Pop(CmDword aCost, CmDword aBlocks);
    // The first aCount messages are sent.
    void PopSeveral(CmDword aCount) { m_ullGone += m_Waiting.PopSeveral(aCount, m_dwGoneBlocks); }
    void Clear();

    CMessageList m_Waiting;
    CBlockChain m_Joined;          // before that, on a stream
    CmDword m_dwJoinedBlocks = 0;  // of m_Joined when it was joined
    uint64_t m_ullGone = 0;        // finished bytes that the send queue still counts
    CmDword m_dwGoneBlocks = 0;    // likewise
};

// The rules of a kind of connection. The user's thread calls Check and CostOf, the network thread all else. Separate from the
// batch, so that the threads do not contend for its memory.
class CProxyLane {
public:
    enum EKind { STREAM, DATAGRAMS, MESSAGES };

    virtual ~CProxyLane() = default;
    CProxyLane(const CProxyLane&) = delete;
    CProxyLane& operator=(const CProxyLane&) = delete;

    CmBool IsStream() const { return m_Kind == STREAM; }
    CmBool IsDatagrams() const { return m_Kind == DATAGRAMS; }
    CmBool IsMessages() const { return m_Kind == MESSAGES; }

    // aLength (out): bytes of aData. CM_ERROR_INVALID_ARG: it can never be sent.
    virtual CmResult Check(const CCmMessageBlock& aData, CmDword& aLength) const;
    // The cost of that many bytes in the queues; 0: there is no data to send.
    CmDword CostOf(CmDword aLength) const { return aLength + m_dwOverhead; }

    // Reads the transport's options that are relevant here: at first, and after each change.
    virtual void ReadOptions(ICmTransport&) {}
    // The framing for the copies in the queues, after the first ReadOptions.
    virtual IFramedSending::EFraming GetFraming() const { return IFramedSending::NOT_FRAMED; }
    // aSink, which has opened the transport, takes frames, too.
    virtual void SetFrameSink(IFrameSink*) {}
    // TRUE: a received chunk of that many bytes is the last of its report, and the user is notified at once.
    virtual CmBool EndsReport(CmDword) const { return CM_FALSE; }
    // Sends a part of aBatch, which must not be empty. CM_OK: continue. Else the transport's result. The connection may end
    // inside; aBatch stays until SendNext has returned.
    virtual CmResult SendNext(ICmTransport& aTransport, CProxyBatch& aBatch) = 0;

protected:
    // aOverhead: the cost besides the bytes.
    explicit CProxyLane(EKind aKind, CmDword aOverhead = 0) : m_Kind(aKind), m_dwOverhead(aOverhead) {}

private:
    const EKind m_Kind;
    const CmDword m_dwOverhead;
};

// Raw bytes: queued data is joined, up to 64 pieces a call.
class CStreamLane final : public CProxyLane {
public:
    CStreamLane() : CProxyLane(STREAM) {}

    void ReadOptions(ICmTransport& aTransport) override;
    CmBool EndsReport(CmDword aLength) const override { return aLength < m_dwReadSize; }
    CmResult SendNext(ICmTransport& aTransport, CProxyBatch& aBatch) override;

private:
    CmDword m_dwReadSize = CNetworkBuffers::DEFAULT_READ;  // the transport's
};

// Raw datagrams: one a call, taken or lost whole.
class CDatagramLane final : public CProxyLane {
public:
    CDatagramLane() : CProxyLane(DATAGRAMS, OVERHEAD) {}

    CmResult Check(const CCmMessageBlock& aData, CmDword& aLength) const override;
    CmResult SendNext(ICmTransport& aTransport, CProxyBatch& aBatch) override;

private:
    static constexpr CmDword OVERHEAD = 128;  // an empty one takes room too
};

// A protocol connection's messages: as frames, many a call, or one a call. Such a call may do anything to the connection.
class CMessageLane final : public CProxyLane {
public:
    CMessageLane() : CProxyLane(MESSAGES) {}

    CmResult Check(const CCmMessageBlock& aData, CmDword& aLength) const override;
    void ReadOptions(ICmTransport& aTransport) override;
    IFramedSending::EFraming GetFraming() const override;
    void SetFrameSink(IFrameSink* aSink) override;
    CmResult SendNext(ICmTransport& aTransport, CProxyBatch& aBatch) override;

private:
    static constexpr CmDword NO_LIMIT = CCmMessageBlock::MOST_LENGTH - 1;

    CmResult SendFrames_i(CProxyBatch& aBatch, CmBool& aSent);

    std::atomic<CmDword> m_dwMaxMessage{NO_LIMIT};  // the connection's last value
    IFramedSending* m_pFramed = nullptr;            // the transport, if it takes frames
};

// The one of the three for a connection type.
class CProxyLaneOf {
public:
    explicit CProxyLaneOf(CmDword aType);
    CProxyLane* operator->() { return &m_Lane; }
    const CProxyLane* operator->() const { return &m_Lane; }

private:
    CProxyLane& Make(CmDword aType);

    std::variant<CStreamLane, CDatagramLane, CMessageLane> m_Lanes;
    CProxyLane& m_Lane;
};

}  // namespace talvo
