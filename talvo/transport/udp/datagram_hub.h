// One bound datagram socket for many peers.
#pragma once

#include <list>

#include "talvo/event/timer_delete.h"
#include "talvo/transport/transport_interface.h"
#include "talvo/transport/udp/datagram_port.h"
#include "talvo/transport/udp/peer_table.h"

class CCmTransportUdp;

namespace talvo {

// The implementation of CCmAcceptorUdp, which may be deleted before its transports: each of them holds a reference too. Finds
// the transport of a datagram's source, makes one for a new source, and ends idle ones. The socket closes when the acceptor no
// longer listens and no peer is left.
class TALVO_API CDatagramHub final : public CCmReferenceControlTimerDeleteT<CCmMutexNullSingleThread>,
                                     public ICmTimerHandler,
                                     private IDatagramUser {
public:
    // The limit on undeliverable datagrams of all transports together; bytes.
    static constexpr uint64_t MAX_KEPT_BYTES = 8 << 20;

    explicit CDatagramHub(ICmReactor* aReactor) : m_pReactor(aReactor), m_Port(aReactor, *this, CM_FALSE) {}
    ~CDatagramHub() override;

    // aSink and aId are not owned and used until StopListen. The socket of GetPort() is bound and non-blocking.
    CmResult StartListen(ICmAcceptorConnectorSink* aSink, ICmAcceptorConnectorId* aId);
    void StopListen();

    void SetMaxPeers(CmDword aMaxPeers) { m_dwMaxPeers = aMaxPeers; }
    void SetPeerIdleTime(const CCmTimeValue& aIdle);
    size_t GetPeerCount() const { return m_Peers.GetCount(); }

    CDatagramPort& GetPort() { return m_Port; }

    // For the transports. Send: as the port's; after CM_ERROR_PARTIAL_DATA aTransport gets OnRoom in its turn.
    CmResult Send(CCmTransportUdp& aTransport, CCmMessageBlock& aData, CmDword aLength);
    void Forget(CCmTransportUdp& aTransport);
    // Reserves that many more bytes, or returns FALSE; the transport gives them back later.
    CmBool Keep(CmDword aBytes);
    void GiveBack(CmDword aBytes) { m_ullKeptBytes -= aBytes; }

    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;  // a peer may have been idle for too long

private:
    using CPeers = CPeerTableT<CCmTransportUdp>;

    void OnDatagram(CCmMessageBlock& aData, const sockaddr& aFrom) override;
    void OnWritable() override;
    void OnBroken(int aError) override;

    void OnStranger(CCmMessageBlock& aData, const sockaddr& aFrom, const CPeerKey& aKey);
    void TraceLimit();
    void ArmIdleTimer();

    const CHomeReactor m_pReactor;
    ICmAcceptorConnectorSink* m_pSink = nullptr;  // while listening
    ICmAcceptorConnectorId* m_pId = nullptr;
    CDatagramPort m_Port;
    CPeers m_Peers;
    std::list<CCmTransportUdp*> m_Refused;  // not owned; wait for room, in turn
    CmDword m_dwMaxPeers = 0;
    int64_t m_llIdleUsec = 0;  // 0: no idle time-out
    CmBool m_bIdleTimer = CM_FALSE;
    uint64_t m_ullKeptBytes = 0;
    CTracePace m_TracePace;  // of the lines about too many peers
};

}  // namespace talvo
