// A transport of the network thread, used from another thread.
#pragma once

#include "talvo/transport/thread_proxy/transport_proxy_core.h"

// Connector and acceptor proxies pass it to their sink. Every upcall arrives in order, in the user's thread: the thread that
// made the connector or acceptor proxy. All operations may be called from any thread. If another thread calls OpenWithSink,
// Disconnect or the release, an upcall already in progress may end after the return.
//
// Sending: SendData takes the whole chain or nothing. Payload owned by a data block is not copied; only messages of at most
// 1,024 bytes for a protocol connection are copied, which is cheaper. The limit of queued data is 1 MiB, or half of the
// socket's send buffer if that has grown larger; CM_OPT_TRANSPORT_PROXY_SEND_LIMIT (bytes) fixes it. The blocks are limited to
// one for each 128 bytes of that. Above either limit SendData returns CM_ERROR_PARTIAL_DATA, and one OnSend follows when half
// of the limit has drained. CM_OK: the data is on its way and is lost only with the connection.
// Queued data leaves with few system calls. Therefore a send from an event or upcall of the caller's thread does not wake the
// network thread at once. It is woken when the events that this thread runs together (at most 5) are finished, or when 32 KiB
// have gathered. A long computation afterwards delays the sends by at most the network thread's tick (10 ms). Sends from
// elsewhere wake it at once. The unit of a send depends on the connection type:
// - Raw TCP: bytes of a stream, joined with those of other sends up to 64 pieces a system call.
// - Raw UDP: one datagram, which counts 128 bytes more towards the limits. CM_OK guarantees nothing (see CCmTransportUdp). A
//   datagram that is too large is refused at once with CM_ERROR_INVALID_ARG.
// - A protocol connection (any bit of 0xFFF00000): one message, which arrives as one OnReceive. A message longer than the
//   connection's limit (CM_OPT_TRANSPORT_MAX_MESSAGE) is refused at once with CM_ERROR_INVALID_ARG, never queued. The proxy
//   reads that limit when it is made and after every SetOption through it. If the limit is lowered in the network thread,
//   messages in flight may be lost, with a trace line at level 0. An empty message is CM_OK and is not sent.
//
// Receiving: OnReceive gets a duplicate of its own, or a view on a copy of a message of at most 1,024 bytes. Each chunk counts
// 128 bytes besides its payload. The limit of queued data is 1 MiB, or half of the socket's receive buffer if that has grown
// larger; CM_OPT_TRANSPORT_PROXY_RECV_LIMIT fixes it. Above the limit, reading stops until the user's thread has taken half of
// it. CM_OPT_TRANSPORT_PAUSE_READING pauses at once: no OnReceive and no OnDisconnect until it is set to FALSE. When the
// connection fails, bytes that the system has received join the queue, beyond its limit, so that no pause loses them.
//
// Opening: a raw transport stays unopened until OpenWithSink. A protocol connection runs from the start, and its data and its
// end are kept within the same limit. So OpenWithSink may come at any time: it is CM_OK even if the connection has ended
// meanwhile, and all kept data follows from the loop, OnDisconnect last. An unopened proxy makes no upcall, and the release
// frees everything. After OnDisconnect, or the user's Disconnect, OpenWithSink is CM_ERROR_NULL_POINTER.
//
// Disconnect with CM_OK, and the last release, first send accepted data and wait for the acknowledgement of the peer's system,
// for at most 30 s (key "LingerSeconds" in section "Proxy"). Then the connection's own Disconnect(CM_OK) follows. No upcall
// follows either, not even one that was already posted. Releasing inside any upcall is safe. CM_ERROR_NULL_POINTER: the
// transport has ended. CM_ERROR_NOT_AVAILABLE: the network thread has ended. When the network thread ends, or
// CCmConnectionManager::Drain ends the connection, OnDisconnect comes with CM_ERROR_NETWORK_SOCKET_CLOSE.
//
// The options 141 to 143 are the proxy's own; ECmTransportOption lists the others that do not wait. OnSend comes during a
// pause, too; when the connection is lost in a pause after a refused send, one OnSend comes, whose sends fail. Sends of several
// threads stay whole, in any order.
class TALVO_API CCmTransportThreadProxy final : public talvo::CThreadProxyT<ICmTransport, talvo::CTransportProxyCore> {
public:
    // In the network thread, before any data can arrive: while the connector or acceptor indicates aTransport, which is kept
    // there. aType: the connection type it was made for. Null: memory ran out.
    static CCmRefPtrT<ICmTransport> Make(ICmTransport* aTransport, CCmThreadLink& aUser, CCmThreadLink& aNetwork,
                                         CmDword aType) {
        const auto pProxy = Make_i<CCmTransportThreadProxy>(aTransport, aUser, aNetwork, aType);
        if (pProxy)
            pProxy->m_pCore->Start(pProxy.Get());
        return CCmRefPtrT<ICmTransport>(pProxy.Get());
    }

    CmResult OpenWithSink(ICmTransportSink* aSink) override { return m_pCore->OpenWithSink(aSink); }
    ICmTransportSink* GetSink() override { return m_pCore->GetSink(); }
    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara = nullptr) override {
        return m_pCore->SendData(aData, aPara);
    }
    CmResult SetOption(CmDword aCommand, void* aArg) override { return m_pCore->SetOption(aCommand, aArg); }
    CmResult GetOption(CmDword aCommand, void* aArg) override { return m_pCore->GetOption(aCommand, aArg); }
    CmResult Disconnect(CmResult aReason) override { return m_pCore->Disconnect(aReason); }

private:
    using CThreadProxyT::CThreadProxyT;
};
