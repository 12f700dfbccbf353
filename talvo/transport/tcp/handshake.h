// The stage of a TCP connection between its connect and its indication.
#pragma once

#include <memory>

#include "talvo/base/failure.h"
#include "talvo/transport/tcp/transport_tcp.h"

namespace talvo {

// One handshake of one connection: TLS, the greeting of a proxy, the head of a balancer. It is a state machine without a
// registration and without a timer; CHandshakeRun has both. It is destroyed at its end, or earlier to cancel it.
class IHandshake {
public:
    enum EStep {
        READ,   // Recv_i would have blocked
        WRITE,  // Send_i would have blocked
        DONE,   // the next byte belongs to the next handshake or to the user of the transport
        FAILED
    };

    // Advances until the socket would block. The first call comes at once, each further one when the socket is ready for the
    // result of the last. Recv_i may return bytes behind the handshake's own: UnRecv_i puts them back. std::bad_alloc fails the
    // handshake.
    virtual EStep Step(CCmTransportTcp& aTransport) = 0;

    // The reason of FAILED. None: the transport has noted it, or the peer has closed.
    virtual CCmFailure GetFailure(const CCmInetAddr& aPeer) const = 0;

    // The reason of the indication if the handshake has failed, also if the socket has; a time-out has
    // CM_ERROR_NETWORK_CONNECT_ERROR. Another reason than that one ends a race of addresses: the peer has answered, and a
    // further address of the name would hide the answer.
    virtual CmResult GetReason() const { return CM_ERROR_NETWORK_CONNECT_ERROR; }

    virtual ~IHandshake() = default;
};

// Makes the handshakes of a connector's or acceptor's connections, and the transports for them. Called in the thread of the
// reactor. Both operations may throw std::bad_alloc.
class TALVO_API IHandshakeMaker {
public:
    // A CCmTransportTcp unless overridden.
    virtual CCmRefPtrT<CCmTransportTcp> MakeTransport(ICmReactor* aReactor);

    // Handshake number aStep of a connection, from 0. Each begins after the one before. Null: there is no further one.
    virtual std::unique_ptr<IHandshake> MakeHandshake(CCmTransportTcp& aTransport, CmDword aStep) = 0;

    // For all handshakes of a connection; zero: no limit. 10 s unless overridden.
    virtual CCmTimeValue GetTimeLimit() const;
    // The connections of an acceptor that may shake hands at the same time, at least 1. 1,024 unless overridden.
    virtual CmDword GetMostInFlight() const;

protected:
    virtual ~IHandshakeMaker() = default;
};

// A new transport from aMaker; without a maker a CCmTransportTcp. Null: memory ran out.
CCmRefPtrT<CCmTransportTcp> MakeTcpTransport(ICmReactor* aReactor, IHandshakeMaker* aMaker);

}  // namespace talvo
