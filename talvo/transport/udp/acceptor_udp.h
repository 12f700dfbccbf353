// Serves datagram peers on one port.
#pragma once

#include "talvo/transport/acceptor_base.h"
#include "talvo/transport/base_types.h"
#include "talvo/transport/udp/datagram_hub.h"

// One bound socket, and a transport for each address that sends to it. The first datagram of an address hands its transport up
// through OnConnectIndication, and is delivered behind that, or when the sink opens the transport later. A transport that the
// sink does not keep leaves nothing behind, and the next datagram of that address is a first one again; so it is after a
// Disconnect, the last release, or the idle time, for which the peer has sent nothing (see CCmTransportUdp).
//
// At the limit on peers, datagrams of new addresses are dropped, with a line at most every second; known ones are served as
// before. Anybody can forge a datagram's source: what a sink keeps for a peer it should keep small until that has answered.
//
// Transports that were handed up stay when listening ends, and with them the socket and its port, until the last one goes.
// The defaults are the configuration's: keys "PeerIdleSeconds" (120) and "MaxPeers" (65,536) in section "Udp".
class TALVO_API CCmAcceptorUdp : public CCmAcceptorBase {
public:
    CCmAcceptorUdp();
    ~CCmAcceptorUdp() override;

    static CCmRefPtrT<ICmAcceptor> Make(const CCmAcceptorSettings& aSettings);  // a CCmAcceptorMaker

    // Further: CM_ERROR_NOT_INITIALIZED when there is no network thread, or the reactor's failure to register.
    CmResult StartListen(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrListen) override;
    CmResult StopListen(CmResult aReason) override;
    CmResult GetListenAddr(CCmInetAddr& aAddr) override;

    // Both at any time. Fewer peers than there are now: those stay. A time of zero: silence does not matter.
    void SetMaxPeers(DWORD aMaxPeers);
    void SetPeerIdleTime(const CCmTimeValue& aIdle);
    // 0 when not listening.
    size_t GetPeerCount() const { return m_pHub ? m_pHub->GetPeerCount() : 0; }

private:
    CmResult SetOption_i(DWORD aCommand, void* aArg) override {
        return aCommand == CM_OPT_TRANSPORT_READ_SIZE ? CM_ERROR_INVALID_ARG : CCmAcceptorBase::SetOption_i(aCommand, aArg);
    }
    CmResult Bind_i(CCmSocketUdp& aSocket, const CCmInetAddr& aAddrListen);

    CCmRefPtrT<talvo::CDatagramHub> m_pHub;  // while listening
    DWORD m_dwMaxPeers;
    CCmTimeValue m_tvPeerIdle;
};
