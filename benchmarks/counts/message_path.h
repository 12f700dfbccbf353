// The paths of messages through the library, and their cost.
#pragma once

#include "benchmarks/counts/counters.h"
#include "talvo/transport/tls/ssl_context.h"
#include "tests/support/network_fixture.h"

// The average cost of one message.
struct CCost {
    CCost(const CCounters& aSpent, size_t aMessages, size_t aSize);

    double m_dCalls;
    double m_dWakes;
    double m_dAllocations;
    double m_dCopies;  // copied bytes for each byte of the message
    double m_dLocks;
    double m_dHeld = 0;  // of sessions: bytes of memory for each receiver, its connection included
};

// A message of aSize bytes from a plain socket and back, aMessages times, one at a time. The library's end is in the network
// thread, or in the main thread behind a proxy. The plain socket's own system calls are not counted.
CCost EchoCost(const CTestNetwork& aNetwork, BOOL aInNetwork, size_t aMessages, DWORD aSize);

// The same in the network thread with a new connection for each message, which the plain socket closes. The number of waits
// depends on its pace.
CCost EchoOnceCost(const CTestNetwork& aNetwork, size_t aConnections, DWORD aSize);

// As EchoCost with a coroutine at the library's end, in the network thread.
CCost CoroutineEchoCost(const CTestNetwork& aNetwork, size_t aMessages, DWORD aSize);

// As EchoCost with the library at both ends of a connection of type aType, each in the network thread; of TLS with contexts.
// OpenSSL's copies are counted, too.
CCost PairEchoCost(const CTestNetwork& aNetwork, DWORD aType, size_t aMessages, DWORD aSize,
                   CCmRefPtrT<CCmSslContext> aServer = {}, CCmRefPtrT<CCmSslContext> aClient = {});

// aConnections of a server of TLS in the network thread with aClient, which shakes hands, ends the connection and returns a
// size. The client's own calls are counted.
CCost TlsOnceCost(const CTestNetwork& aNetwork, CCmRefPtrT<CCmSslContext> aServer, size_t aConnections,
                  const std::function<size_t(const CCmInetAddr&)>& aClient);

// An HTTP/1.1 request from a plain socket and its answer, aMessages times on one connection, one at a time. The server is in
// the network thread; with a path, on a Unix socket. Copies are counted for each byte of the answer. aHeaders: further header
// lines of the request.
CCost HttpCost(const CTestNetwork& aNetwork, size_t aMessages, const char* aPath = nullptr, const char* aHeaders = "");

// aMessages from one end to the other, both in the main thread behind proxies and of type aType, sent from inside events. Both
// ends are counted, and the block that the application creates for each message. A network without a thread of its own needs
// CTYPE_FORCE_THREAD_PROXY; its cost does not depend on the turns that threads take.
CCost StreamCost(const CTestNetwork& aNetwork, DWORD aType, size_t aMessages, DWORD aSize);

// aEvents posted to the network thread from the main thread, while the network thread is busy, until all have run.
CCost PostCost(const CTestNetwork& aNetwork, size_t aEvents);

// aTimers, each scheduled, scheduled again and cancelled in the network thread, among as many others.
CCost TimerCost(const CTestNetwork& aNetwork, size_t aTimers);

// aMessages through a forward session in the network thread, one a turn, to aReceivers package connections whose peers are
// plain sockets. The cost is that of a delivered message. aInNetwork FALSE: the main thread forwards, through the session's
// proxy.
CCost ForwardCost(const CTestNetwork& aNetwork, BOOL aInNetwork, size_t aReceivers, size_t aMessages, DWORD aSize);
