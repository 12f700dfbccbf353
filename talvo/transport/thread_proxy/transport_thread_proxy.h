// A transport of the network thread, used from another thread.
#pragma once

#include "talvo/transport/thread_proxy/transport_proxy_core.h"

// What connector and acceptor proxies hand to their sink. Every upcall arrives in the thread that made the connector or
// acceptor proxy (the user's), in order. All operations may be called from any thread; but from another than the user's, an
// upcall that is already under way there may end after OpenWithSink, Disconnect or the release has returned.
//
// Sending: SendData takes the whole chain or nothing, without copying payload that a data block owns, except that messages of
// at most 1,024 bytes for a protocol connection are copied, which is cheaper. When more than a limit waits for the network (1
// MiB, or half of the socket's send buffer where that has grown larger; CM_OPT_TRANSPORT_PROXY_SEND_LIMIT, bytes, fixes it), or
// more blocks than one for each 128 bytes of that, it returns CM_ERROR_PARTIAL_DATA, and one OnSend follows when half of the
// limit has drained. CM_OK says that the data is on its way: it is lost only when the connection is. What waits together leaves
// with few system calls. So that much does, sends from inside an event or upcall of the caller's thread wake the network
// thread when the events that this thread runs in one go (at most 5) are over, or 32 KiB have gathered; who computes for long
// afterwards delays them by the network thread's tick (10 ms) at most. Sends from elsewhere wake it at once. What one send is
// depends on the connection type:
// - Raw TCP: bytes of a stream, joined with those of other sends up to 64 pieces a system call.
// - Raw UDP: one datagram, which counts 128 bytes more towards the limits. CM_OK promises nothing (see CCmTransportUdp); one
//   that is too large is refused at once with CM_ERROR_INVALID_ARG.
// - A protocol connection (any bit of 0xFFF00000): one message, which arrives as one OnReceive. One that is longer than the
//   connection can take (CM_OPT_TRANSPORT_MAX_MESSAGE) is refused at once with CM_ERROR_INVALID_ARG, never queued. That limit
//   is the connection's as of its making and of every SetOption through the proxy; whoever lowers it in the network thread
//   may cost messages under way, which a trace line at level 0 tells. An empty message is CM_OK and nothing is sent.
//
// Receiving: OnReceive gets a duplicate of its own, or a view on a copy of a message of at most 1,024 bytes. When more than a
// limit (1 MiB, each chunk counting 128 bytes beyond its payload, or half of the socket's receive buffer where that has grown
// larger; CM_OPT_TRANSPORT_PROXY_RECV_LIMIT fixes it) waits for the user's thread, reading stops until half of it is taken.
// CM_OPT_TRANSPORT_PAUSE_READING pauses by hand, at once: no OnReceive and no OnDisconnect until it is set to FALSE.
//
// Opening: a raw transport stays unopened until OpenWithSink. A protocol connection runs from the start, and what arrives is
// kept within the same limit, its end included, so OpenWithSink may come as late as the user likes: it is CM_OK even if the
// connection has ended meanwhile, and everything that was kept follows from the loop, OnDisconnect last. Who never opens hears
// nothing, and the release frees it all. After OnDisconnect, or the user's Disconnect, it is CM_ERROR_NULL_POINTER.
//
// Disconnect, and the last release, let data that was accepted go out first when the reason is CM_OK, and the peer's
// system acknowledge it, for at most 30 s (key "LingerSeconds" in section "Proxy"); then the connection's own Disconnect(CM_OK)
// does the rest. No upcall follows either, even one that was already posted. Releasing inside any upcall is safe.
// CM_ERROR_NULL_POINTER: the transport is gone. CM_ERROR_NOT_AVAILABLE: the network thread is. When the network thread ends,
// or CCmConnectionManager::Drain ends the connection, OnDisconnect says CM_ERROR_NETWORK_SOCKET_CLOSE.
//
// The options 141 to 143 are the proxy's own; ECmTransportOption says which others answer without waiting. OnSend comes during
// a pause, too. Sends of several threads stay whole, in an order of their own.
class TALVO_API CCmTransportThreadProxy final : public talvo::CThreadProxyT<ICmTransport, talvo::CTransportProxyCore> {
public:
    // In the network thread, before anything can arrive: while the connector or acceptor indicates aTransport, which is kept
    // there. aType: the connection type it was made for.
    // Null: memory ran out.
    static CCmRefPtrT<ICmTransport> Make(ICmTransport* aTransport, CCmThreadLink& aUser, CCmThreadLink& aNetwork, DWORD aType) {
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
    CmResult SetOption(DWORD aCommand, void* aArg) override { return m_pCore->SetOption(aCommand, aArg); }
    CmResult GetOption(DWORD aCommand, void* aArg) override { return m_pCore->GetOption(aCommand, aArg); }
    CmResult Disconnect(CmResult aReason) override { return m_pCore->Disconnect(aReason); }

private:
    using CThreadProxyT::CThreadProxyT;
};
