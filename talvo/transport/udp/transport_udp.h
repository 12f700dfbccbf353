// Datagrams to and from one peer as a transport.
#pragma once

#include <memory>

#include "talvo/transport/message_list.h"
#include "talvo/transport/transport_base.h"
#include "talvo/transport/udp/datagram_hub.h"

// Connectors make it over its own connected socket. The acceptor makes one for each peer, over a shared socket.
//
// One datagram is one OnReceive, an empty one too; its bytes are in a buffer of the thread that is reused afterwards. One
// SendData is one datagram, of at most 65,507 bytes in at most 1,024 non-empty blocks, else CM_ERROR_INVALID_ARG. It is taken
// whole or not at all. An empty chain sends an empty datagram.
//
// CM_OK: the datagram was taken and leaves before the loop sleeps again, together with others of the same turn. Its arrival is
// not confirmed. If the socket's buffer is full then, it waits for room, and meanwhile SendData returns CM_ERROR_PARTIAL_DATA.
// One OnSend follows, to each refused peer in turn. A datagram that the system refuses for another reason (a firewall, no
// route) is lost, with a trace line at most every second.
//
// OnDisconnect: CM_ERROR_NETWORK_SOCKET_ERROR: a connected peer's system refuses datagrams; CM_ERROR_NETWORK_SOCKET_CLOSE: a
// peer of an acceptor has been idle for too long. UDP has no close: a peer's end is not reported.
//
// Datagrams may arrive while reading is paused, or before the transport is opened. A connected socket keeps as many as fit its
// buffer. For an acceptor's peer up to 32 are kept, for all peers together up to 8 MiB; further ones are dropped.
class TALVO_API CCmTransportUdp : public CCmTransportBase, public ICmTimerHandler, private talvo::IDatagramUser {
public:
    // Over its own socket, which the caller opens, makes non-blocking and connects: GetPeer().
    explicit CCmTransportUdp(ICmReactor* aReactor);
    // FALSE, after the constructor above: memory ran out. GetPeer() must not be used, and all other calls treat it as closed.
    CmBool HasSocket() const { return bool{m_pOwnPort}; }
    // One peer of aHub.
    CCmTransportUdp(ICmReactor* aReactor, talvo::CDatagramHub* aHub, const CCmInetAddr& aAddrPeer);
    ~CCmTransportUdp() override;

    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara = nullptr) override;
    // On a shared socket CM_OPT_TRANSPORT_SNDBUF, _RCVBUF and _TOS concern all peers, and CM_OPT_TRANSPORT_FD only ends this
    // transport's use of it.
    CmResult SetOption(CmDword aCommand, void* aArg) override;
    CmResult GetOption(CmDword aCommand, void* aArg) override;

    CmHandle GetHandle() const override;
    // Not for a peer of an acceptor.
    CCmSocketUdp& GetPeer() { return m_pOwnPort->GetSocket(); }

    // The peer of this transport.
    void SetPeerAddr(const CCmInetAddr& aAddrPeer) { m_AddrPeer = aAddrPeer; }
    const CCmInetAddr& GetPeerAddr() const { return m_AddrPeer; }

    // Of the socket; all zero when closed.
    CCmDatagramCounters GetCounters() const;

    // For the hub: a datagram of this peer; room after a refusal; the idle time-out.
    void Take(CCmMessageBlock& aData);
    void OnRoom();
    void OnSilent();
    CmBool IsWaitingForRoom() const { return m_bNeedOnSend; }

    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;  // kept datagrams can be delivered

protected:
    CmResult Open_t() override;
    CmResult Close_t(CmResult aReason) override;

private:
    void OnDatagram(CCmMessageBlock& aData, const sockaddr&) override { Take(aData); }
    void OnWritable() override { OnRoom(); }
    void OnBroken(int aError) override {
        NoteFailure_i(EXCHANGING, aError);
        OnClose(GetHandle(), READ_MASK);
    }

    talvo::CDatagramPort* GetPort() const;
    CCmSocketBase* GetSocket_i() const;  // null after the end
    CmBool CanDeliver() const { return m_pSink && !m_bReadingPaused; }
    void DeliverKept();
    void DeliverLater();
    void Keep(const CCmMessageBlock& aData);
    CCmChainPtr TakeFirstKept();
    CmResult PauseReading_i(CmBool aPause);
    CmResult Detach_i(CmHandle aNewHandle);

    std::unique_ptr<talvo::CDatagramPort> m_pOwnPort;  // null: a peer of m_pHub
    CCmRefPtrT<talvo::CDatagramHub> m_pHub;            // null: connected, or closed
    CCmInetAddr m_AddrPeer;
    talvo::CMessageList m_Kept;  // datagrams that cannot be delivered yet
    CmDword m_dwKept = 0;        // their number
    CmBool m_bReadingPaused = CM_FALSE;
    CmBool m_bNeedOnSend = CM_FALSE;
    CmBool m_bDeliverDue = CM_FALSE;  // the timer runs
};
