// Listens in a simulated network.
#pragma once

#include <string>

#include "talvo/testing/sim_core.h"
#include "talvo/transport/acceptor_base.h"

namespace talvo {

class CSimTransport;

class CSimAcceptor final : public CCmAcceptorBase {
public:
    // In a simulated thread only.
    explicit CSimAcceptor(BOOL aDatagrams);
    ~CSimAcceptor() override;

    CmResult StartListen(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrListen) override;
    CmResult StopListen(CmResult aReason) override;
    CmResult GetListenAddr(CCmInetAddr& aAddr) override;

    // The accepting end of a stream, for a peer.
    CCmRefPtrT<CSimTransport> MakeEnd(const CCmInetAddr& aLocal, const CCmInetAddr& aPeer);
    void Accept(CCmRefPtrT<CSimTransport> aTransport);
    // The first datagram of a peer.
    void AcceptDatagram(const CSimCore::CEndKey& aKey, const std::string& aBytes);

private:
    const std::shared_ptr<CSimCore> m_pCore;
    const BOOL m_bDatagrams;
    CCmInetAddr m_AddrListen;  // while it listens
};

}  // namespace talvo
