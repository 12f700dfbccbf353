// Datagrams to and from one peer as a transport.
#pragma once

#include <memory>

#include "talvo/transport/message_list.h"
#include "talvo/transport/transport_base.h"
#include "talvo/transport/udp/datagram_hub.h"

// Connectors make it over a connected socket of its own; the acceptor makes one for each peer, over a socket that all share.
//
// One datagram is one OnReceive, an empty one too; its bytes lie in a buffer of the thread that is used again afterwards. One
// SendData is one datagram, of at most 65,507 bytes in at most 1,024 non-empty blocks, else CM_ERROR_INVALID_ARG; it is taken
// whole or not at all. An empty chain sends an empty datagram.
//
// CM_OK says that the datagram was taken and leaves before the loop sleeps again, together with others that are sent in the
// same turn; whether it arrives nobody knows. If the socket's buffer is full then, it waits for room, and meanwhile SendData
// returns CM_ERROR_PARTIAL_DATA; one OnSend follows, to each peer that was refused in turn. A datagram that the system refuses
// for another reason (a firewall, no route) is lost, with a line at most every second.
//
// OnDisconnect: CM_ERROR_NETWORK_SOCKET_ERROR when a connected peer's system refuses datagrams;
// CM_ERROR_NETWORK_SOCKET_CLOSE when a peer of an acceptor has sent nothing for too long. A peer says no goodbye.
//
// Datagrams that arrive while reading is paused, or before the transport is opened: a connected socket holds as many as its
// buffer does. Of an acceptor's peer up to 32 are kept, all peers' together up to 8 MiB, and those beyond are dropped.
class TALVO_API CCmTransportUdp : public CCmTransportBase, public ICmTimerHandler, private talvo::IDatagramUser {
public:
    // Over a socket of its own, which the caller opens, makes non-blocking and connects: GetPeer().
    explicit CCmTransportUdp(ICmReactor* aReactor);
    // FALSE, of the former: memory ran out. GetPeer() must not be used, and everything else finds it closed.
    BOOL HasSocket() const { return bool{m_pOwnPort}; }
    // One peer of aHub.
    CCmTransportUdp(ICmReactor* aReactor, talvo::CDatagramHub* aHub, const CCmInetAddr& aAddrPeer);
    ~CCmTransportUdp() override;

    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara = nullptr) override;
    // On a shared socket CM_OPT_TRANSPORT_SNDBUF, _RCVBUF and _TOS concern all peers, and CM_OPT_TRANSPORT_FD only ends the use
    // of it.
    CmResult SetOption(DWORD aCommand, void* aArg) override;
    CmResult GetOption(DWORD aCommand, void* aArg) override;

    HANDLE GetHandle() const override;
    // Not for a peer of an acceptor.
    CCmSocketUdp& GetPeer() { return m_pOwnPort->GetSocket(); }
    void SetPeerAddr(const CCmInetAddr& aAddrPeer) { m_AddrPeer = aAddrPeer; }
    const CCmInetAddr& GetPeerAddr() const { return m_AddrPeer; }

    // Of the socket; all zero when closed.
    CCmDatagramCounters GetCounters() const;

    // From the hub. A datagram of this peer; room after a refusal; nothing has come for too long.
    void Take(CCmMessageBlock& aData);
    void OnRoom();
    void OnSilent();
    BOOL IsWaitingForRoom() const { return m_bNeedOnSend; }

    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;  // what was kept can be delivered

protected:
    CmResult Open_t() override;
    CmResult Close_t(CmResult aReason) override;

private:
    void OnDatagram(CCmMessageBlock& aData, const sockaddr_in&) override { Take(aData); }
    void OnWritable() override { OnRoom(); }
    void OnBroken(int aError) override {
        NoteFailure_i(EXCHANGING, aError);
        OnClose(GetHandle(), READ_MASK);
    }

    talvo::CDatagramPort* GetPort() const;
    CCmSocketBase* GetSocket_i() const;  // null after the end
    BOOL CanDeliver() const { return m_pSink && !m_bReadingPaused; }
    void DeliverKept();
    void DeliverLater();
    void Keep(const CCmMessageBlock& aData);
    CCmChainPtr TakeFirstKept();
    CmResult PauseReading_i(BOOL aPause);
    CmResult Detach_i(HANDLE aNewHandle);

    std::unique_ptr<talvo::CDatagramPort> m_pOwnPort;  // null: a peer of m_pHub
    CCmRefPtrT<talvo::CDatagramHub> m_pHub;            // null: connected, or closed
    CCmInetAddr m_AddrPeer;
    talvo::CMessageList m_Kept;  // datagrams that cannot be delivered yet
    DWORD m_dwKept = 0;          // so many
    BOOL m_bReadingPaused = FALSE;
    BOOL m_bNeedOnSend = FALSE;
    BOOL m_bDeliverDue = FALSE;  // the timer runs
};
