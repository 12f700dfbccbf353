// Serves datagram peers on one port.
#pragma once

#include "talvo/transport/acceptor_base.h"
#include "talvo/transport/base_types.h"
#include "talvo/transport/udp/datagram_hub.h"

// One bound socket, and a transport for each address that sends to it. The first datagram of an address passes its transport to
// OnConnectIndication. The datagram is delivered after that, or when the sink opens the transport later. If the sink does not
// keep the transport, no state remains, and the next datagram of that address counts as the first again. The same holds after a
// Disconnect, the last release, or the idle time without a datagram from the peer (see CCmTransportUdp).
//
// At the limit on peers, datagrams of new addresses are dropped, with a trace line at most every second; known peers are served
// as before. Any host can forge a datagram's source address: a sink should keep little for a peer until the peer has answered.
//
// After listening ends, earlier transports stay, and with them the socket and its port, until the last one ends. The defaults
// come from the configuration: keys "PeerIdleSeconds" (120) and "MaxPeers" (65,536) in section "Udp".
class TALVO_API CCmAcceptorUdp : public CCmAcceptorBase {
public:
    CCmAcceptorUdp();
    ~CCmAcceptorUdp() override;

    static CCmRefPtrT<ICmAcceptor> Make(const CCmAcceptorSettings& aSettings);  // a CCmAcceptorMaker

    // Also: CM_ERROR_NOT_INITIALIZED: there is no network thread; or the reactor's failure to register.
    CmResult StartListen(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrListen) override;
    CmResult StopListen(CmResult aReason) override;
    CmResult GetListenAddr(CCmInetAddr& aAddr) override;

    // Both at any time. A limit below the current number keeps the current peers. A time of zero: no idle time-out.
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
